"""The ground that the other host tests stand on: entering a root, and what the demo host's services do."""
import os
import pathlib

import pytest

from lofterdev.host import Host
from lofterdev.syslog import INFO
from lofterdev.waiting import eventually


@pytest.fixture(params=[False, True], ids=["namespaces", "plain chroot"])
def plain(request: pytest.FixtureRequest) -> bool:
    if request.param and os.geteuid() != 0:
        request.param = False  # a plain chroot is for root alone; an ordinary user has the one way
    return request.param


def test_exit_status_output_and_errors_come_back(host: Host, plain: bool) -> None:
    outcome = host.run("sh", "-c", "echo out; echo err >&2; exit 7", plain=plain)
    assert (outcome.status, outcome.output, outcome.errors) == (7, "out\n", "err\n")


def test_a_command_killed_by_a_signal_gives_128_and_its_number(host: Host, plain: bool) -> None:
    assert host.run("sh", "-c", "kill -9 $$", plain=plain).status == 137


def test_a_missing_command_gives_127(host: Host, plain: bool) -> None:
    outcome = host.run("/no/such", plain=plain)
    assert (outcome.status, outcome.errors) == (127, "enter: /no/such: No such file or directory\n")


def test_what_a_command_leaves_behind_is_listed_and_ended(host: Host, plain: bool) -> None:
    host.run("mkfifo", "/run/held")
    outcome = host.run("sh", "-c", "sleep 1000 <>/run/held & echo $!", plain=plain)
    left, = outcome.leftovers
    assert "sleep 1000" in left
    # Nobody holds the pipe's other end any more.
    with pytest.raises(OSError):
        os.open(host.path("/run/held"), os.O_WRONLY | os.O_NONBLOCK)


def test_orphans_that_end_within_the_grace_do_not_count(host: Host, plain: bool) -> None:
    assert host.run("sh", "-c", "(sleep 0.1 &)", grace=10, plain=plain).leftovers == []


def test_waiting_lets_daemons_end_by_themselves(host: Host, plain: bool) -> None:
    assert host.run("sh", "-c", "(sleep 0.1; echo late) &", wait=True, plain=plain).output == "late\n"


def test_killing_a_running_command_ends_what_it_started(host: Host) -> None:
    host.run("mkfifo", "/run/held")
    running = host.start("sh", "-c", "setsid sleep 1000 <>/run/held & echo up; wait")
    assert running.process.stdout.readline() == b"up\n"
    running.kill()

    def released() -> bool:
        try:
            os.close(os.open(host.path("/run/held"), os.O_WRONLY | os.O_NONBLOCK))
            return False
        except OSError:
            return True
    eventually(released, "the orphan is gone")


def test_device_nodes_work_for_everybody(host: Host, plain: bool) -> None:
    outcome = host.run("sh", "-c", "echo x >/dev/null && head -c 3 /dev/zero | wc -c && echo x >/dev/full", plain=plain)
    assert (outcome.status, outcome.output) == (1, "3\n")
    assert "No space left on device" in outcome.errors


def test_a_small_file_system_fills_up(host: Host) -> None:
    outcome = host.run("cp", "/usr/bin/busybox", "/var/log/big", tmpfs=[("/var/log", "64k")])
    assert outcome.status != 0
    assert "No space left on device" in outcome.errors
    assert not host.exists("/var/log/big")


def test_a_read_only_part_refuses_writes_even_by_root(host: Host) -> None:
    assert "Read-only file system" in host.run("touch", "/bootbank/x", read_only=["/bootbank"]).errors
    assert not host.exists("/bootbank/x")


def test_file_modes_hold_for_root_where_that_is_asked_for(host: Host, plain: bool) -> None:
    host.write("/run/secret", "x\n", 0)
    assert host.run("cat", "/run/secret", plain=plain).output == "x\n"
    assert "Permission denied" in host.run("cat", "/run/secret", heed_modes=True, plain=plain).errors


def test_syslog_messages_reach_the_test(host: Host) -> None:
    syslog = host.syslog()
    host.run("logger", "-t", "somebody", "-p", "daemon.info", "a line: with a colon")
    record, = syslog.records()
    assert (record.severity, record.facility, record.identifier, record.text) == (INFO, 3, "somebody", "a line: with a colon")


def test_the_kernel_log_is_a_file_to_append_to(host: Host) -> None:
    host.kernel_log()
    host.run("sh", "-c", "echo '<6>one' >>/dev/kmsg; printf '<4>two <b>' >>/dev/kmsg")
    assert host.kernel_lines() == ["<6>one", "<4>two <b>"]


def test_a_root_has_a_host_name_of_its_own(host: Host) -> None:
    before = os.uname().nodename
    assert host.run("hostname").output == "demo\n"
    assert host.run("sh", "-c", "hostname other; hostname").output == "other\n"
    assert os.uname().nodename == before


def test_a_terminal_carries_keys_and_text_and_is_the_console(host: Host) -> None:
    terminal = host.terminal()
    running = host.start("sh", "-c", "read word </dev/console; echo got $word >/dev/tty; exit 3", terminal=terminal, console=True)
    terminal.type("hello\n")
    terminal.expect("got hello\r\n")
    assert running.finish().status == 3


def test_templates_are_never_written_to(host: Host, template: pathlib.Path) -> None:
    host.write("/etc/passwd", "changed\n")
    assert (template / "etc/passwd").read_text().startswith("root:")


def test_the_demo_syslog_daemon_takes_messages_when_its_launch_returns(demo_host: Host) -> None:
    script = """
        /usr/lib/tessel/tssyslog/bin/tssyslogd -i || exit 1
        kill -0 $(cat /var/run/tessel/tssyslogd.pid) || exit 2
        logger -t test before
        timeout 10 sh -c 'until grep -q before /var/log/syslog.log; do sleep 0.01; done' || exit 5
        mv /var/log/syslog.log /var/log/syslog.old
        kill -USR1 $(cat /var/run/tessel/tssyslogd.pid)
        timeout 10 sh -c 'until [ -e /var/log/syslog.log ]; do sleep 0.01; done' || exit 3
        logger -t test after
        timeout 10 sh -c 'until grep -q after /var/log/syslog.log; do sleep 0.01; done' || exit 4
    """
    outcome = demo_host.run("sh", "-c", script)
    assert (outcome.status, outcome.errors) == (0, "")
    assert "test: before" in demo_host.read("/var/log/syslog.old")
    assert "before" not in demo_host.read("/var/log/syslog.log")
    assert len([line for line in outcome.leftovers if "syslogd" in line]) == 2


def test_the_demo_syslog_daemon_is_started_once(demo_host: Host) -> None:
    launch = "/usr/lib/tessel/tssyslog/bin/tssyslogd -i"
    outcome = demo_host.run("sh", "-c", f"{launch} && {launch}")
    assert outcome.status == 0
    assert len([line for line in outcome.leftovers if "syslogd" in line]) == 2


def test_the_syslog_configuration_is_upgraded_once(demo_host: Host) -> None:
    upgrade = "/usr/lib/tessel/tssyslog/bin/upgrade-syslog.conf.sh"
    assert demo_host.run("sh", "-c", f"{upgrade} && {upgrade}").status == 0
    assert demo_host.read("/etc/syslog.conf") == "*.*\t/var/log/syslog.log\ndaemon.*\t/var/log/boot.log\n"


def test_the_observation_daemon_starts_and_stops(demo_host: Host) -> None:
    # The script does not wait until its child has become the daemon; the test does.
    ready = "until grep -q uevent /proc/$(cat /var/run/tessel/hxed.pid)/cmdline; do usleep 20000; done"
    outcome = demo_host.run("sh", "-c", f"/etc/init.d/hxed start && /etc/init.d/hxed status && {ready}", timeout=20)
    assert outcome.status == 0
    left, = outcome.leftovers
    assert left.endswith("uevent env")
    outcome = demo_host.run("sh", "-c", "/etc/init.d/hxed start && /etc/init.d/hxed stop && ! /etc/init.d/hxed status", grace=10)
    assert (outcome.status, outcome.leftovers) == (0, [])
