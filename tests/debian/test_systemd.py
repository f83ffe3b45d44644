"""A stock Debian with systemd, on which the README has been followed. Its tests go on from each other, in their order."""
import re

from lofterdev.debian_machine import DebianMachine


def count(machine: DebianMachine, text: str) -> int:
    """How often the boot's journal has the text in a line of lofter's."""
    journal = machine.run("journalctl --sync; journalctl -b -o cat --no-pager SYSLOG_IDENTIFIER=lofter")
    return len(re.findall(re.escape(text), journal))


def test_no_unit_has_failed(machine: DebianMachine) -> None:
    machine.run("systemctl is-system-running --wait")
    assert machine.run("systemctl --failed --no-legend --plain") == ""
    assert machine.run("systemctl is-active lofter") == "active\n"


def test_the_boot_run_came_before_all_services(machine: DebianMachine) -> None:
    assert machine.run("cat /run/first /run/greeting") == "my first step\n--text=good morning\n"
    times = {}
    for unit, which in (("lofter.service", "InactiveExit"), ("lofter.service", "ActiveEnter"), ("sysinit.target", "ActiveEnter"),
                        ("cron.service", "InactiveExit")):
        times[unit, which] = int(machine.run(f"systemctl show -p {which}TimestampMonotonic --value {unit}"))
    assert 0 < times["lofter.service", "InactiveExit"] < times["lofter.service", "ActiveEnter"] \
        <= times["sysinit.target", "ActiveEnter"] <= times["cron.service", "InactiveExit"]


def test_each_message_is_in_the_journal_once_and_so_is_what_plugins_print(machine: DebianMachine) -> None:
    assert count(machine, "executing start plugin: greeting") == 1
    assert count(machine, "Launching Executor") == 1
    assert count(machine, "my first step") == 1
    assert count(machine, "unable") == 0 and count(machine, "failed") == 0


def test_the_boots_messages_reach_rsyslog(machine: DebianMachine) -> None:
    machine.run("timeout 100 sh -c 'until grep -q \"lofter.*executing start plugin: greeting\" /var/log/syslog; do sleep 0.2; done'")


def test_the_service_can_be_restarted_and_leaves_running_what_plugins_left(machine: DebianMachine) -> None:
    before = machine.run("cat /run/tessel/hxed.pid /run/tessel/tssyslogd.pid")
    machine.run("rm /run/greeting; systemctl restart lofter")
    assert machine.run("cat /run/greeting") == "--text=good morning\n"
    assert machine.run("cat /run/tessel/hxed.pid /run/tessel/tssyslogd.pid") == before
    machine.run("kill -0 $(cat /run/tessel/hxed.pid) && kill -0 $(cat /run/tessel/tssyslogd.pid)")
    assert machine.run("ls -1 /run/tessel") == "hxed.pid\ntssyslogd.pid\n"


def test_lofter_can_be_called_on_the_host_that_has_booted(machine: DebianMachine) -> None:
    machine.run("rm /run/greeting; lofter --invoke --method=start --plugin=greeting.json")
    assert machine.run("cat /run/greeting") == "--text=good morning\n"
    machine.run("systemctl restart lofter")


def test_daemons_are_not_lofters_here(machine: DebianMachine) -> None:
    status, output = machine.attempt("/etc/init.d/lofter start-daemons")
    assert (status, output) == (1, "/etc/init.d/lofter: the daemons of this host are systemd's\n")


def test_the_machine_goes_down(machine: DebianMachine) -> None:
    machine.type("poweroff\n")
    machine.wait_for_end(300)
    assert "Power down" in machine.text
