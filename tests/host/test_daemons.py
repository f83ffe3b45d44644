"""Daemon runs: init.d scripts, real ones among them, started and stopped in the order of their priorities."""
import pathlib
import re
import subprocess
import time
from collections.abc import Iterator
from typing import Any

import pytest

from lofterdev.host import Host
from lofterdev.repository import HOST
from lofterdev.syslog import INFO, WARNING
from lofterdev.templates import make_template, provide

START = ("--daemon=wait", "--method=start")
STOP = ("--daemon=wait", "--method=stop")


def list_scripts(host: Host, *lines: str) -> None:
    """Makes chkconfig print these lines."""
    host.write("/etc/chkconfig.list", "".join(f"{line}\n" for line in lines))
    host.write_script("/bin/chkconfig", '[ "$*" = -p ] && cat /etc/chkconfig.list')


def script(host: Host, name: str, body: str, priority: int = 10) -> str:
    """Makes an init.d script; returns its line of the list."""
    host.write_script(f"/etc/init.d/{name}", body)
    return f"/etc/init.d/{name} {priority}"


def logged_texts(host: Host, *arguments: str, timeout: int = 60, **settings: Any) -> list[str]:
    """Runs lofter, which has to end well; returns what it logged."""
    syslog = host.syslog()
    outcome = host.lofter(*arguments, timeout=timeout, **settings)
    assert outcome.status == 0, outcome
    return syslog.texts()


def recorder(name: str) -> str:
    """A script that writes down when which of its calls began and ended, on a clock that all share."""
    return f"""stamp() {{ read up rest < /proc/uptime; echo "$up {name} $1 $2" >> /var/calls; }}
stamp "$1" begin
sleep 0.1
stamp "$1" end"""


def timed_calls(host: Host) -> dict[tuple[str, str], list[float]]:
    """(name, method) -> (begin, end)"""
    calls: dict[tuple[str, str], list[float]] = {}
    for line in host.read("/var/calls").splitlines():
        moment, name, method, _ = line.split()
        calls.setdefault((name, method), []).append(float(moment))
    return calls


# Order.

def group(host: Host) -> dict[int, list[str]]:
    sizes = {30: 1, 10: 3, 20: 2}
    names = {priority: [f"p{priority}n{i}" for i in range(size)] for priority, size in sizes.items()}
    list_scripts(host, *(script(host, name, recorder(name), priority) for priority in names for name in names[priority]))
    return names


@pytest.mark.parametrize("parallel", [(), ("--parallel",)], ids=["serial", "parallel"])
def test_groups_start_one_after_another_in_ascending_order_and_stop_the_other_way(host: Host, parallel: tuple[str]) -> None:
    names = group(host)
    assert host.lofter(*START, *parallel).status == 0
    assert host.lofter(*STOP, *parallel).status == 0
    calls = timed_calls(host)
    assert len(calls) == 12
    for earlier, later in ((10, 20), (20, 30)):
        for a in names[earlier]:
            for b in names[later]:
                assert calls[a, "start"][1] <= calls[b, "start"][0]
                assert calls[b, "stop"][1] <= calls[a, "stop"][0]


def test_daemons_of_one_group_start_at_the_same_time_in_parallel_runs(host: Host) -> None:
    # Each waits for the other to have begun: only together can they end.
    meet = "echo > /var/$0.here; until [ -e /var/{}.here ]; do sleep 0.05; done"
    host.path("/var/etc/init.d").mkdir(parents=True)
    list_scripts(host, script(host, "one", meet.format("/etc/init.d/two")), script(host, "two", meet.format("/etc/init.d/one")))
    texts = logged_texts(host, *START, "--parallel")
    assert {"one started.", "two started."} <= set(texts)


def test_a_serial_run_starts_equal_priorities_in_the_order_of_the_list(host: Host) -> None:
    list_scripts(host, *(script(host, name, f"echo {name} >> /var/calls") for name in ("zeta", "alpha", "mid")))
    assert host.lofter(*START).status == 0
    assert host.read("/var/calls").split() == ["zeta", "alpha", "mid"]


def test_a_negative_priority_comes_last(host: Host) -> None:
    list_scripts(host, *(script(host, name, f"echo {name} >> /var/calls", priority)
                 for name, priority in (("odd", -5), ("huge", 2147483647), ("zero", 0))))
    assert host.lofter(*START).status == 0
    assert host.read("/var/calls").split() == ["zero", "huge", "odd"]


def test_what_the_boot_run_starts_is_left_out_of_a_start_and_part_of_a_stop(host: Host) -> None:
    list_scripts(host, *(script(host, name, f"echo {name} $1 >> /var/calls", priority)
                 for name, priority in (("tssyslogd", 1), ("crond", 2), ("hxed", 3))))
    assert host.lofter(*START).status == 0
    assert host.lofter(*STOP).status == 0
    assert host.read("/var/calls").splitlines() == ["crond start", "hxed stop", "crond stop", "tssyslogd stop"]


# What a run reports.

def test_a_start_is_reported_on_the_log_the_kernel_log_and_the_progress_screen(host: Host) -> None:
    host.kernel_log()
    list_scripts(host, script(host, "crond", "exit 0"))
    syslog = host.syslog()
    assert host.lofter(*START).status == 0
    # The screen falls back to the log where the console is no terminal.
    assert [text for text in syslog.texts(INFO) if "crond" in text] == [
        "Starting service crond", "executing start plugin: crond", "crond started."]
    kernel = host.read("/dev/kmsg")
    assert kernel.index("Activating Lofter plugin crond.") < kernel.index("Lofter plugin crond activated.")


def test_the_progress_screen_counts_the_daemons_that_were_started(host: Host) -> None:
    terminal = host.terminal()
    list_scripts(host, script(host, "crond", "exit 0", 1), script(host, "bad", "exit 3", 2), script(host, "sshd", "exit 0", 3))
    assert host.lofter(*START, bind=[(terminal.path, "/dev/console")]).status == 0
    shown = [line for line in re.split(r"\r(?:\x1b\[2K)?", terminal.everything().decode()) if line]
    # A step follows each start, however it went.
    assert shown == ["Starting service crond", "Starting service crond [1]", "Starting service bad [1]",
                     "Starting service bad [2]", "Starting service sshd [2]", "Starting service sshd [3]"]


def test_a_failed_start_is_reported_everywhere_and_the_next_daemon_starts(host: Host) -> None:
    host.kernel_log()
    list_scripts(host, script(host, "bad", "exit 3", 1), script(host, "good", "exit 0", 2))
    texts = logged_texts(host, *START)
    reason = "Execution of command: /etc/init.d/bad start failed with status: 3"
    assert f"Lofter failed to start: bad reason: {reason}" in texts
    assert f"Method invocation failed: bad->start() failed: {reason}" in texts
    assert texts.index("good started.") > texts.index(f"Lofter failed to start: bad reason: {reason}")
    assert "Lofter plugin bad activation failed: Method invocation failed" in host.read("/dev/kmsg")


def test_a_stop_run_goes_on_after_a_stop_that_fails(host: Host) -> None:
    host.kernel_log()
    list_scripts(host, script(host, "first", "exit 0", 1), script(host, "bad", "exit 3", 2), script(host, "last", "exit 0", 3))
    texts = logged_texts(host, *STOP)
    reason = "Execution of command: /etc/init.d/bad stop failed with status: 3"
    assert [text for text in texts if "stop" in text] == [
        "executing stop for daemon last.", "last stopped.",
        "executing stop for daemon bad.", f"Lofter failed to stop: bad reason: {reason}",
        "executing stop for daemon first.", "first stopped."]
    kernel = host.read("/dev/kmsg")
    for text in ("Deactivating Daemon last.", "Daemon last deactivated.", "Deactivating Daemon bad.",
                 f"Daemon bad deactivation failed: {reason}", "Daemon first deactivated."):
        assert text in kernel


def test_daemon_sections_are_appended_to_the_profiling_log(host: Host) -> None:
    host.write("/var/log/sysboot.log", "what was there\n")
    list_scripts(host, script(host, "crond", "exit 0"))
    assert host.lofter(*START).status == 0
    assert host.lofter(*STOP).status == 0
    log = host.read("/var/log/sysboot.log")
    assert log.startswith("what was there\n[")
    sections = log.split("=== Daemon configuration info ===\n")
    assert len(sections) == 3
    daemon = r"\[(\d{4})-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} - (\d{4})-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6}\] daemon: crond\n"
    assert int(re.search(daemon, sections[0]).group(1)) > 1970
    # A stop takes no times.
    assert re.search(daemon, sections[1]).groups() == ("1970", "1970")
    assert sections[2].startswith(" Start Daemon: ") and "\n End Daemon: " in sections[2]
    assert "Krxkernel" not in log


def test_a_daemon_run_has_no_command_executor_and_keeps_no_run_once_record(host: Host) -> None:
    list_scripts(host, script(host, "crond", "exit 0"))
    texts = logged_texts(host, *START)
    assert "Launching Executor" not in texts
    assert not host.exists("/bootbank/loftsave.gz")
    assert not host.exists("/var/run/tessel/lofterExecutor.sock")


def test_the_graph_of_the_daemons_can_be_dumped_without_running_them(host: Host) -> None:
    list_scripts(host, script(host, "one", "echo > /var/ran", 10), script(host, "two", "echo > /var/ran", 20))
    outcome = host.lofter(*START, "--dump-dependency-tree=/tmp/graph")
    assert outcome.status == 0
    assert not host.exists("/var/ran")
    graph = host.read("/tmp/graph")
    for name in ("one", "two", "_<->_priority_<->_10", "_<->_priority_<->_20"):
        assert name in graph
    assert graph.startswith("digraph g {\n") and graph.endswith("}\n")


@pytest.mark.parametrize("arguments", [
    ("--daemon",), ("--daemon", "--method=restart"), ("--daemon", "--method=start", "--plugin=a"),
    ("--daemon", "--method=start", "--init"), ("--daemon", "--method=start", "--invoke"),
    ("--daemon", "--method=start", "--interactive")])
def test_other_combinations_of_options_are_refused(host: Host, arguments: tuple[Any, ...]) -> None:
    list_scripts(host, script(host, "crond", "echo > /var/ran"))
    syslog = host.syslog()
    assert host.lofter(*arguments).status == 1
    assert syslog.texts()[-1] == "Invalid combination of options passed. Exiting"
    assert not host.exists("/var/ran")


# What scripts may be like.

@pytest.mark.parametrize("content, mode, reason", [
    (None, 0, "failed to ForkExec '/etc/init.d/odd start' : No such file or directory"),
    ("#!/bin/sh\nexit 0\n", 0o644, "failed to ForkExec '/etc/init.d/odd start' : Permission denied"),
    ("#!/no/such/shell\n", 0o755, "failed to ForkExec '/etc/init.d/odd start' : No such file or directory"),
    ("exit 0\n", 0o755, "failed to ForkExec '/etc/init.d/odd start' : Exec format error"),
    ("", 0o755, "failed to ForkExec '/etc/init.d/odd start' : Exec format error"),
    ("#!/bin/sh\nexit 3\n", 0o755, "Execution of command: /etc/init.d/odd start failed with status: 3"),
    ("#!/bin/sh\nkill -9 $$\n", 0o755, "Execution of command: /etc/init.d/odd start failed with signal: 9"),
], ids=["missing", "not-executable", "no-such-interpreter", "no-interpreter", "empty", "exits-3", "signal-9"])
def test_a_script_that_does_not_start_is_reported_with_the_reason(host: Host, content: str | None, mode: int, reason: str) -> None:
    if content is not None:
        host.write("/etc/init.d/odd", content, mode)
    list_scripts(host, "/etc/init.d/odd 10", script(host, "next", "exit 0", 20))
    texts = logged_texts(host, *START)
    assert f"Lofter failed to start: odd reason: {reason}" in texts
    assert "next started." in texts


STUBBORN = "trap '' HUP INT QUIT TERM; echo $$ > /var/stubborn; while :; do sleep 1; done"


def test_a_script_that_is_not_waited_for_is_left_running_after_ten_seconds(host: Host) -> None:
    list_scripts(host, script(host, "stubborn", STUBBORN))
    syslog = host.syslog()
    begin = time.monotonic()
    outcome = host.lofter("--daemon", "--method=start", grace=0)
    assert outcome.status == 0
    assert 10 <= time.monotonic() - begin < 20
    assert "stubborn started." in syslog.texts()
    pid = host.read("/var/stubborn").strip()
    assert any(line.startswith(f"{pid} ") for line in outcome.leftovers), outcome.leftovers


def test_a_script_that_is_waited_for_in_vain_is_left_running_after_the_time_out(host: Host) -> None:
    list_scripts(host, script(host, "stubborn", STUBBORN, 1), script(host, "next", "exit 0", 2))
    syslog = host.syslog()
    outcome = host.lofter(*START, "--daemon-wait-timeout=1", grace=0)
    assert outcome.status == 0
    texts = syslog.texts()
    assert ("Lofter failed to start: stubborn reason: "
            "Execution of command: '/etc/init.d/stubborn start' timed out.") in texts
    assert "next started." in texts
    pid = host.read("/var/stubborn").strip()
    assert any(line.startswith(f"{pid} ") for line in outcome.leftovers), outcome.leftovers


@pytest.mark.parametrize("seconds", ["0", "-1"])
def test_a_time_out_of_no_length_waits_until_the_script_ends(host: Host, seconds: str) -> None:
    list_scripts(host, script(host, "slow", "sleep 0.5"))
    assert "slow started." in logged_texts(host, *START, f"--daemon-wait-timeout={seconds}")


def test_nothing_of_lofter_stays_attached_to_a_script_that_runs_on(host: Host) -> None:
    list_scripts(host, script(host, "stubborn", f"ls -l /proc/$$/fd > /var/descriptors; readlink /proc/$$/cwd > /var/cwd; {STUBBORN}"))
    # Finish() reads the standard streams of lofter to their end: a script that held them would make this time out.
    outcome = host.lofter(*START, "--daemon-wait-timeout=1", timeout=20, grace=0)
    assert outcome.status == 0
    descriptors = {}
    for line in host.read("/var/descriptors").splitlines()[1:]:
        number, target = re.search(r"(\d+) -> (.*)$", line).groups()
        descriptors[int(number)] = target
    # The listing itself stands in for standard output; the shell has the script open.
    assert descriptors[0] == descriptors[2] == "/dev/null"
    assert set(descriptors.values()) <= {"/dev/null", "/var/descriptors", "/etc/init.d/stubborn"}
    assert host.read("/var/cwd") == "/\n"


def test_a_daemon_that_keeps_its_descriptors_does_not_hold_up_the_run(host: Host) -> None:
    list_scripts(host, script(host, "forks", "sleep 1000 & echo $! > /var/forked; exit 0"))
    syslog = host.syslog()
    outcome = host.lofter(*START, timeout=20, grace=0)
    assert outcome.status == 0
    assert "forks started." in syslog.texts()
    assert any(line.startswith(host.read("/var/forked").strip() + " ") for line in outcome.leftovers)


def test_a_script_may_print_a_megabyte(host: Host) -> None:
    list_scripts(host, script(host, "loud", "head -c 1000000 /dev/zero; head -c 1000000 /dev/zero >&2; exit 0"))
    outcome = host.lofter(*START)
    assert outcome.status == 0
    assert "loud started." in outcome.output
    assert "\0" not in outcome.output + outcome.errors


def test_a_script_writes_its_errors_to_a_log_that_can_be_opened(host: Host) -> None:
    host.write("/dev/log", "")
    list_scripts(host, script(host, "says", "echo to nobody; echo to the log >&2"))
    outcome = host.lofter(*START)
    assert "says started." in outcome.output
    assert host.read("/dev/log") == "to the log\n"


def test_a_host_without_a_log_socket_starts_its_daemons(host: Host) -> None:
    list_scripts(host, script(host, "crond", "readlink /proc/$$/fd/2 > /var/errors"))
    assert not host.exists("/dev/log")
    outcome = host.lofter(*START)
    assert outcome.status == 0
    assert "crond started." in outcome.output
    assert host.read("/var/errors") == "/dev/null\n"


# What chkconfig may do.

def test_a_host_without_chkconfig_has_no_daemons(host: Host) -> None:
    host.path("/bin/chkconfig").unlink(missing_ok=True)
    syslog = host.syslog()
    assert host.lofter(*START).status == 0
    assert syslog.texts(WARNING).count("/bin/chkconfig -p exited with status 127") == 1


def test_a_failing_chkconfig_counts_for_what_it_printed(host: Host) -> None:
    line = script(host, "crond", "exit 0")
    host.write_script("/bin/chkconfig", f"echo {line}; exit 5")
    syslog = host.syslog()
    assert host.lofter(*START).status == 0
    assert "crond started." in syslog.texts()
    assert syslog.texts(WARNING).count("/bin/chkconfig -p exited with status 5") == 1


def test_an_empty_list_means_no_daemons_and_no_complaint(host: Host) -> None:
    host.kernel_log()
    host.write("/var/log/sysboot.log", "what was there\n")
    list_scripts(host)
    syslog = host.syslog()
    assert host.lofter(*START).status == 0
    assert syslog.texts() == []
    assert host.read("/var/log/sysboot.log").startswith("what was there\n=== Daemon configuration info ===\n")


def test_a_host_that_never_booted_has_no_profiling_log_to_extend(host: Host) -> None:
    list_scripts(host, script(host, "crond", "exit 0"))
    texts = logged_texts(host, *START)
    assert texts[-1] == "unable to reopen profiling log (/var/log/sysboot.log): No such file or directory."
    assert not host.exists("/var/log/sysboot.log")


def test_lines_that_do_not_fit_are_quoted_and_skipped(host: Host) -> None:
    bad = ["nonsense", "/etc/init.d/crond ten", "/etc/init.d/crond 99999999999", "%s%n \x1b[2J"]
    list_scripts(host, *bad, script(host, "crond", "exit 0"))
    syslog = host.syslog()
    assert host.lofter(*START).status == 0
    skipped = [text for text in syslog.texts(WARNING) if text.startswith("Skipping a line")]
    assert skipped == [f"Skipping a line that is not an init.d script and its priority: '{line}'"
                       for line in (*bad[:3], r"%s%n \x1b[2J")]
    assert syslog.texts().count("crond started.") == 1


@pytest.mark.parametrize("arguments", [START, STOP, (*START, "--parallel"), (*STOP, "--parallel")], ids=" ".join)
def test_two_thousand_scripts_are_no_burden(host: Host, arguments: tuple[Any, ...]) -> None:
    list_scripts(host, *(f"/etc/init.d/missing{i} {i % 500}" for i in range(1000)), *(f"/etc/init.d/equal{i} 7" for i in range(1000)))
    host.kernel_log()
    begin = time.monotonic()
    outcome = host.lofter(*arguments)
    assert outcome.status == 0
    assert len(re.findall("failed to ForkExec", outcome.output)) >= 2000
    assert time.monotonic() - begin < 30


# chkconfig for Linux.

@pytest.fixture(scope="session")
def daemons_template(testrun_uid: str) -> pathlib.Path:
    return make_template(testrun_uid, "daemons-template", bare=True, daemons=True)


@pytest.fixture
def daemons_host(request: pytest.FixtureRequest, daemons_template: pathlib.Path) -> Iterator[Host]:
    yield from provide(request.node.name, daemons_template)


def listed_scripts(host: Host) -> list[str]:
    outcome = host.run("/bin/chkconfig", "-p")
    assert (outcome.status, outcome.errors) == (0, "")
    return outcome.output.splitlines()


def test_chkconfig_lists_the_links_of_the_default_run_level(daemons_host: Host) -> None:
    assert listed_scripts(daemons_host) == ["/etc/init.d/haveged 1", "/etc/init.d/cron 2", "/etc/init.d/dropbear 3",
                                    "/etc/init.d/redis-server 3", "/etc/init.d/nginx 4"]
    daemons_host.write("/etc/inittab", "# comment\nid:3:initdefault:\n")
    links = daemons_host.path("/etc/rc3.d")
    links.mkdir()
    (links / "S08nginx").symlink_to("../init.d/nginx")
    (links / "S40gone").symlink_to("../init.d/gone")
    (links / "K01cron").symlink_to("../init.d/cron")
    listed = listed_scripts(daemons_host)
    assert "/etc/init.d/nginx 8" in listed
    # Switched off by the operator, and without a script.
    assert not any("cron" in line or "gone" in line for line in listed)


def header(host: Host, name: str, *lines: str) -> None:
    host.write_script(f"/etc/init.d/{name}", "\n".join(["### BEGIN INIT INFO", *(f"# {line}" for line in lines), "### END INIT INFO"]))


def host_of_headers(host: Host) -> dict[str, int]:
    """Stock scripts and some that need each other, none of which was ever given a link."""
    for link in host.path("/etc/rc2.d").iterdir():
        link.unlink()
    header(host, "sysklogd", "Provides: sysklogd", "Required-Start: $remote_fs", "Default-Start: 2 3 4 5")
    header(host, "last", "Provides: last", "Required-Start: $all", "Default-Start: 2 3 4 5")
    header(host, "early", "Provides: early", "X-Start-Before: sysklogd", "Default-Start: 2 3 4 5")
    header(host, "alias", "Provides: the-name", "Should-Start: cron", "Default-Start: 2")
    header(host, "user", "Provides: user", "Required-Start: the-name", "Default-Start: 2")
    header(host, "reboot", "Provides: reboot", "Default-Start:", "Default-Stop: 6")
    header(host, "networking", "Provides: networking", "Default-Start: S")
    host.write_script("/etc/init.d/no-header", "exit 0")
    host.write("/etc/init.d/README", "no script\n")
    return {"early": 1, "sysklogd": 2, "cron": 3, "dropbear": 3, "haveged": 3, "nginx": 3, "redis-server": 3, "alias": 4,
            "user": 5, "last": 6}


def test_chkconfig_orders_scripts_without_links_by_their_headers(daemons_host: Host) -> None:
    expected = host_of_headers(daemons_host)
    assert listed_scripts(daemons_host) == [f"/etc/init.d/{name} {priority}" for name, priority in expected.items()]


def test_chkconfig_agrees_with_insserv_where_that_is_installed(daemons_host: Host) -> None:
    expected = host_of_headers(daemons_host)
    fetch = subprocess.run([HOST / "fetch", "insserv"], check=True, stdout=subprocess.PIPE, text=True)
    package = fetch.stdout.strip()
    with open(f"{package}/sbin/insserv", "rb") as program, open(f"{package}/etc/insserv.conf", "rb") as settings:
        daemons_host.write("/sbin/insserv", program.read(), 0o755)
        daemons_host.write("/etc/insserv.conf", settings.read())
    for level in "0123456S":
        daemons_host.path(f"/etc/rc{level}.d").mkdir(exist_ok=True)
    assert listed_scripts(daemons_host) == [f"/etc/init.d/{name} {priority}" for name, priority in expected.items()]


def test_chkconfig_ends_and_complains_when_headers_ask_for_a_loop(daemons_host: Host) -> None:
    host_of_headers(daemons_host)
    header(daemons_host, "a", "Provides: a", "Required-Start: b", "Default-Start: 2")
    header(daemons_host, "b", "Provides: b", "Required-Start: a", "Default-Start: 2")
    outcome = daemons_host.run("/bin/chkconfig", "-p")
    assert outcome.status == 0
    assert outcome.errors == "chkconfig: the headers of the init.d scripts ask for a loop\n"
    assert "/etc/init.d/cron 3" in outcome.output.splitlines()


@pytest.mark.parametrize("arguments", [(), ("-l",), ("-p", "x")])
def test_chkconfig_knows_one_option(daemons_host: Host, arguments: tuple[Any, ...]) -> None:
    outcome = daemons_host.run("/bin/chkconfig", *arguments)
    assert (outcome.status, outcome.output, outcome.errors) == (2, "", "usage: chkconfig -p\n")


# Real daemons, with the scripts that Debian ships.

DAEMONS = ["haveged", "cron", "dropbear", "redis-server", "nginx"]

# Runs in the root, in a network of its own. Each answer is awaited for as long as a daemon may need to open its port.
SESSION = r"""
ifconfig lo 127.0.0.1 up
answer() { timeout 20 sh -c 'until '"$1"' 2>/dev/null | grep "'"$2"'"; do usleep 20000; done'; }
lofter --daemon=wait --method=start || echo "start failed: $?"
echo "== up"
answer "wget -qO- http://127.0.0.1:8080/" "own page"
answer "printf 'PING\r\n' | timeout 2 nc 127.0.0.1 6379" PONG
answer "timeout 2 nc 127.0.0.1 2222 < /dev/null" SSH-2.0
for name in haveged cron dropbear redis-server nginx; do pidof $name > /dev/null && echo "$name runs"; done
echo "== down"
lofter --daemon=wait --method=stop || echo "stop failed: $?"
for name in haveged cron dropbear redis-server nginx; do pidof $name && echo "$name still runs"; done
netstat -lnt | grep LISTEN
echo "== end"
"""


def test_real_daemons_start_answer_and_stop_in_order(daemons_host: Host) -> None:
    syslog = daemons_host.syslog()
    outcome = daemons_host.run("/bin/sh", "-c", SESSION, net=network_granted(), timeout=120)
    up, down = outcome.output.index("== up"), outcome.output.index("== down")
    answers = outcome.output[up:down]
    for answer in ("the demo host's own page", "+PONG", "SSH-2.0-dropbear", *(f"{name} runs" for name in DAEMONS)):
        assert answer in answers
    assert outcome.output.endswith("== end\n")
    assert "failed" not in outcome.output and "still runs" not in outcome.output and "LISTEN" not in outcome.output[down:]
    assert outcome.leftovers == []

    texts = syslog.texts(INFO)
    assert [text for text in texts if text.endswith(" started.")] == [f"{name} started." for name in DAEMONS]
    stopped = [text.split()[0] for text in texts if text.endswith(" stopped.")]
    # Within a group the order is the list's; the groups go the other way.
    assert stopped == ["nginx", "dropbear", "redis-server", "cron", "haveged"]


def network_granted() -> bool:
    return subprocess.run(["unshare", "--user", "--map-root-user", "--net", "true"], stderr=subprocess.DEVNULL).returncode == 0
