"""A stock Debian with sysvinit, on which the README has been followed. Its tests go on from each other, in their order."""
import re

from lofterdev.debian_machine import boot, DebianMachine

SCRIPTS = ["cron", "dropbear", "nginx", "redis-server", "rsyslog"]


def test_the_boot_run_is_a_step_of_rc_s(machine: DebianMachine) -> None:
    console = machine.text
    step = console.index("info lofter: executing start plugin: greeting")
    assert console.index("INIT: version") < step < console.index("INIT: Entering runlevel: 2")
    assert "info lofter: executing start plugin: first\n" in console
    assert "\nmy first step\n" in console
    assert machine.run("cat /run/first /run/greeting") == "my first step\n--text=good morning\n"
    assert "unable to create session" not in console


def test_its_messages_reach_rsyslog_and_none_is_an_error(machine: DebianMachine) -> None:
    log = machine.run("grep -h ' lofter: ' /var/log/syslog")
    assert " lofter: executing start plugin: greeting\n" in log
    assert re.findall("krxsyslogd|tssyslogd|execve|unable|[Ff]ailed", log) == []
    machine.run("kill -0 $(cat /run/tessel/tssyslogd.pid) && kill -0 $(cat /run/tessel/hxed.pid)")


def test_the_observation_daemon_records_what_the_kernel_reports(machine: DebianMachine) -> None:
    machine.run("udevadm trigger --action=change --subsystem-match=net")
    machine.run("timeout 100 sh -c 'until grep -q \"^KERNEL.*change.*eth0\" /var/log/hxed.log; do sleep 0.2; done'")


def test_the_daemons_were_started_by_lofter_in_their_order(machine: DebianMachine) -> None:
    for name in SCRIPTS:
        machine.run(f"service {name} status")
    log = machine.run("cat /var/log/sysboot.log")
    boot_section, daemons = log.split("=== Lofter configuration info ===")
    assert re.findall(r"sysboot: (.*)", boot_section) == ["greeting", "first"]
    started = re.findall(r"^\[(.*) - (.*)\] daemon: (.*)$", daemons, re.MULTILINE)
    assert {name for _, _, name in started} >= set(SCRIPTS)
    assert " Parallel: 1\n" in daemons
    rsyslog_ended = next(end for _, end, name in started if name == "rsyslog")
    assert all(begin >= rsyslog_ended for begin, _, name in started if name in ("cron", "nginx"))


def test_lofter_can_be_called_on_the_host_that_has_booted(machine: DebianMachine) -> None:
    machine.run("rm /run/greeting; lofter --invoke --method=start --plugin=greeting.json")
    assert machine.run("cat /run/greeting") == "--text=good morning\n"
    machine.run("rm /run/tessel/lofterExecutor.sock")


def test_a_shutdown_stops_the_daemons_first(machine: DebianMachine) -> None:
    begin = len(machine.text)
    machine.type("poweroff\n")
    machine.wait_for_end(300)
    console = machine.text[begin:]
    stopped = re.findall(r"info lofter: (\S+) stopped\.", console)
    assert set(stopped) >= set(SCRIPTS)
    assert stopped.index("nginx") < stopped.index("rsyslog")
    assert "Lofter failed to stop" not in console
    assert "Power down" in console


def test_purge_leaves_nothing_behind() -> None:
    with boot() as machine:
        machine.log_in()
        # Also what had a file in the last boot.
        assert "daemon: cron" in machine.run("cat /var/log/sysboot.log")
        machine.run("rm -r /usr/libexec/lofter/plugins/greeting.json /usr/lib/tessel/qorcli/greeting.write")
        machine.run("dpkg --purge $(dpkg-query -W -f '${Package} ' 'lofter*')")
        left = machine.run("find / -xdev '(' -ipath '*lofter*' -o -ipath '*tessel*' -o -ipath '*bootbank*' -o -name 'sysboot.log*'"
                           " -o -name 'hxed*' ')' -not -path '/root/*' -not -path '/proc/*'; ls -d /run/tessel 2>&1 || :")
        assert left == "ls: cannot access '/run/tessel': No such file or directory\n"
        assert machine.run("ps -e -o args | grep -c '[u]devadm monitor\\|[t]ssyslogd' || :") == "0\n"
