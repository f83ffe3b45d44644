"""The steps of a run in their order, which of them every way of running has, and what becomes of them on a broken host."""
import os
import pathlib
import re
from collections.abc import Callable

import pytest

from lofterdev.host import Host, Outcome
from lofterdev.syslog import ERROR, INFO, WARNING
from lofterdev.waiting import eventually

TRACE = "/run/trace"
RECORD = "/bootbank/loftsave.gz"
PROFILE = "/var/log/sysboot.log"
SOCKET = "/var/run/tessel/lofterExecutor.sock"
SYSLOG_DAEMON = "/usr/lib/tessel/tssyslog/bin/tssyslogd"
UPGRADE = "/usr/lib/tessel/tssyslog/bin/upgrade-syslog.conf.sh"
OBSERVATION_DAEMON = "/etc/init.d/hxed"
PID_FILE = "/var/run/tessel/tssyslogd.pid"

NO_PID_FILE = "unable to open krxsyslogd pid file."
NO_PID = "unable to read tssyslogd pid."

# Says when it runs, and what is there at that moment: the executor's socket (which stays), the record and the profiling log.
REPORT = f"""report() {{
    there=
    [ -S {SOCKET} ] && there="$there executor"
    [ -e {RECORD} ] && there="$there record"
    [ -e {PROFILE} ] && there="$there profile"
    echo "$*:$there" >>{TRACE}
}}"""


def trace_everything(host: Host) -> None:
    """Programs of the host and a plugin that report when their turn comes; the syslog daemon stays, for one signal."""
    host.write("/usr/bin/report", f"#!/bin/sh\n{REPORT}\nreport \"$@\"\n", 0o755)
    host.write_script(SYSLOG_DAEMON, f"""
        report syslog daemon "$@"
        ( trap 'report reload; kill $!; exit' USR1; sleep 1000 & echo >{PID_FILE}.ready; wait ) &
        echo $! >{PID_FILE}
        until [ -e {PID_FILE}.ready ]; do sleep 0.01; done""")
    host.write_script(OBSERVATION_DAEMON, 'report observation daemon "$@"')
    host.write_script(UPGRADE, "report upgrade")
    host.write("/etc/syslog.conf", "")
    host.write("/usr/libexec/lofter/plugins/step.debug", "")
    host.debug_configuration("step:::report plugin")


def traced_steps(host: Host) -> list[str]:
    return host.read(TRACE).splitlines() if host.exists(TRACE) else []


def lines(outcome: Outcome) -> list[str]:
    """The log without what is said about the executor once it is being launched."""
    return [line for line in outcome.log() if "xecutor" not in line or "Launching" in line]


def descriptors_in(listing: str) -> dict[int, str]:
    """What `ls -l` shows of a process's descriptors, by their numbers."""
    return {int(number): target for number, target in re.findall(r" (\d+) -> (.*)$", listing, re.MULTILINE)}


def configuration(host: Host) -> dict[str, str]:
    return dict(re.findall(r"^ (.+?): (.*)$", host.read(PROFILE), re.MULTILINE))


def profiled_names(host: Host) -> list[str]:
    return re.findall(r"^\[[-\d:. ]+ - [-\d:. ]+\] sysboot: (.*)$", host.read(PROFILE), re.MULTILINE)


LAUNCHES = ["syslog daemon -i:", "observation daemon start:"]


def plugin_steps(count: int, *there: str) -> list[str]:
    return [f"plugin: {' '.join(there)}"] * count


# The order of everything.

def test_a_boot_takes_its_steps_in_order(host: Host) -> None:
    trace_everything(host)
    host.kernel_log()
    outcome = host.lofter("--init")
    assert (outcome.status, outcome.errors, outcome.leftovers) == (0, "", [])
    eventually(lambda: traced_steps(host)[-1].startswith("reload"), "the syslog daemon reloads")
    assert traced_steps(host) == [
        *LAUNCHES,
        "plugin: executor", "plugin: executor",  # by its file, and as one of all entries
        "upgrade: executor record profile", "reload: executor record profile",
    ]
    assert lines(outcome) == [
        "info Launching Executor",
        "info Activating Lofter Plugins",
        "info executing start plugin: step",
        "info executing start plugin: step",
    ]
    assert [line.split("lofter: ")[1] for line in host.kernel_lines()] == [
        "Activating Lofter plugin step.", "Lofter plugin step activated."] * 2
    assert outcome.log()[-1] == "info Executor has been Successfully Stopped"


# Every row and column of what a way of running does.

@pytest.mark.parametrize("arguments, launches, plugins, record, profile, reload", [
    (["--init"], True, 2, True, True, True),
    ([], False, 2, True, True, False),
    (["--invoke", "--method=start", "--plugin=step.debug"], False, 1, True, False, False),
    (["--init", "--invoke", "--method=start", "--plugin=step.debug"], True, 1, True, False, True),
    (["--init", "--dump-dependency-tree=/run/dump"], True, 0, False, True, True),
    (["--dump-dependency-tree=/run/dump"], False, 0, False, True, False),
    (["--invoke", "--method=start", "--plugin=step.debug", "--dump-dependency-tree=/run/dump"], False, 0, False, False, False),
], ids=["boot", "plain", "invoke", "boot and invoke", "dump of a boot", "dump", "dump of an invocation"])
def test_each_way_of_running_has_its_steps(host: Host, arguments: list[str], launches: bool, plugins: int, record: bool, profile: bool,
                                             reload: bool) -> None:
    trace_everything(host)
    outcome = host.lofter(*arguments)
    assert (outcome.status, outcome.leftovers) == (0, [])
    traced = traced_steps(host)
    assert traced[:2] == (LAUNCHES if launches else traced[:2])
    assert [line for line in traced if "daemon" in line] == (LAUNCHES if launches else [])
    assert [line for line in traced if line.startswith("plugin")] == plugin_steps(plugins, "executor")
    assert len([line for line in traced if line.startswith("upgrade")]) == reload
    assert len([line for line in traced if line.startswith("reload")]) == reload
    assert host.exists(RECORD) == record
    assert host.exists(PROFILE) == profile
    assert host.exists("/run/dump") == any("dump" in argument for argument in arguments)
    assert lines(outcome)[0] == "info Launching Executor"
    assert ("info Activating Lofter Plugins" in lines(outcome)) == (not host.exists("/run/dump"))


def test_launched_daemons_have_their_streams_on_the_null_device_and_nothing_else_of_lofter(host: Host) -> None:
    host.syslog()  # lofter has a connection by then, to be kept from the daemon
    for name, path in (("one", SYSLOG_DAEMON), ("two", OBSERVATION_DAEMON)):
        host.write_script(path, f"(exec >{TRACE}.{name}; exec ls -l /proc/$$/fd); echo $GREETING >>{TRACE}")
    assert host.lofter("--init", environment={"GREETING": "hello"}).status == 0
    for name, path in (("one", SYSLOG_DAEMON), ("two", OBSERVATION_DAEMON)):
        descriptors = descriptors_in(host.read(f"{TRACE}.{name}"))
        assert [descriptors.pop(number) for number in (0, 1, 2)] == ["/dev/null"] * 3
        assert list(descriptors.values()) == [path]  # which the shell reads
    assert traced_steps(host) == ["hello", "hello"]


@pytest.mark.parametrize("fate", ["missing", "not executable", "failing"])
def test_the_launch_of_a_daemon_that_goes_wrong_does_not_hold_up_the_boot(host: Host, fate: str) -> None:
    syslog = host.syslog()
    if fate != "missing":
        for path in (SYSLOG_DAEMON, OBSERVATION_DAEMON):
            host.write(path, "#!/bin/sh\nexit 9\n", 0o755 if fate == "failing" else 0o644)
    host.debug_configuration("a:::true")
    outcome = host.lofter("--init")
    assert (outcome.status, outcome.leftovers) == (0, [])
    assert profiled_names(host) == ["a"]
    reason = {"missing": "No such file or directory", "not executable": "Permission denied"}.get(fate)
    expected = [f"execve({path}) failure: {reason}" for path in (SYSLOG_DAEMON, OBSERVATION_DAEMON)] if reason else []
    # By the child, whose standard streams were the null device by then.
    assert [text for text in syslog.texts(ERROR)] == expected
    assert "failure" not in outcome.output


def test_the_boot_waits_for_the_daemons_that_it_launches(host: Host) -> None:
    for path in (SYSLOG_DAEMON, OBSERVATION_DAEMON):
        host.write_script(path, f"echo begin {path} >>{TRACE}; sleep 0.2; echo end {path} >>{TRACE}")
    host.debug_configuration(f"a:::echo a >>{TRACE}")
    assert host.lofter("--init").status == 0
    assert traced_steps(host) == [f"begin {SYSLOG_DAEMON}", f"end {SYSLOG_DAEMON}", f"begin {OBSERVATION_DAEMON}",
                            f"end {OBSERVATION_DAEMON}", "a"]


def test_plugins_run_in_the_root_and_in_a_session_of_their_own(host: Host) -> None:
    host.debug_configuration(f"a:::pwd >{TRACE}; set -- $(cat /proc/$PPID/stat); echo $1 $6 >>{TRACE}")
    outcome = host.run("sh", "-c", "cd /usr/lib && lofter")
    assert outcome.status == 0
    directory, ids = traced_steps(host)
    assert directory == "/"
    process, session = ids.split()
    assert process == session


def test_a_session_leader_says_that_it_is_one_already(host: Host) -> None:
    # As the leader of a terminal's session.
    terminal = host.terminal()
    running = host.start("/bin/setsid", "/usr/sbin/lofter", terminal=terminal)
    assert running.finish().status == 0
    assert b" info lofter: unable to create session: Operation not permitted.\r\n" in terminal.everything()


def test_the_plugin_directory_is_relative_to_where_lofter_was_called(host: Host) -> None:
    host.write("/usr/lib/here/notes.txt", "")
    outcome = host.run("sh", "-c", "cd /usr/lib && lofter --plugin-directory=here")
    assert outcome.status == 0
    assert "warning ignoring plugin 'notes.txt' of unknown type (txt)..." in outcome.log()


# The console.

TERMINAL_OF_SESSION = f"set -- $(cat /proc/$$/stat); echo $7 >>{TRACE}"


def test_progress_is_shown_on_a_console_that_does_not_become_the_runs_terminal(host: Host) -> None:
    host.debug_configuration(f"a:::{TERMINAL_OF_SESSION}")
    terminal = host.terminal()
    outcome = host.lofter(bind=[(terminal.path, "/dev/console")])
    assert (outcome.status, traced_steps(host)) == (0, ["0"])
    assert b"Activating Lofter Plugins" in terminal.everything()
    assert "Activating Lofter Plugins" not in outcome.output


def test_a_dump_to_the_console_does_not_make_it_the_runs_terminal(host: Host) -> None:
    host.write("/etc/syslog.conf", "")
    host.write_script(UPGRADE, TERMINAL_OF_SESSION)
    terminal = host.terminal()
    outcome = host.lofter("--init", "--dump-dependency-tree=/dev/console", bind=[(terminal.path, "/dev/console")])
    assert (outcome.status, traced_steps(host)) == (0, ["0"])
    assert terminal.everything().endswith(b"digraph g {\r\n}\r\n")


# Threads.

COUNT_THREADS = f"a%d:::ls /proc/$PPID/task | wc -l >>{TRACE}"


def maximum_threads(host: Host, plugins: int, *arguments: str) -> int:
    """How many workers a run had, as its plugins count them, more than a serial run's one."""
    host.debug_configuration(*(COUNT_THREADS % number for number in range(plugins)))
    counts = []
    for options in ([], arguments):
        host.write(TRACE, "")
        assert host.lofter(*options).status == 0
        host.restart()
        counts.append({int(line) for line in traced_steps(host)})
        assert len(traced_steps(host)) == plugins
    (serial,), (other,) = counts
    return other - serial + 1


@pytest.mark.parametrize("plugins, threads", [(3, 3), (40, 16), (16, 16), (17, 16), (1, 1)])
def test_a_parallel_run_has_two_threads_for_each_processor_but_no_more_than_plugins(host: Host, plugins: int, threads: int) -> None:
    host.write("/sys/devices/system/cpu/online", "0-7\n")
    assert maximum_threads(host, plugins, "--parallel") == threads


def test_a_parallel_run_without_plugins_ends(host: Host) -> None:
    outcome = host.lofter("--parallel", timeout=20)
    assert (outcome.status, outcome.leftovers) == (0, [])
    assert configuration(host)["Parallel"] == "1"
    assert profiled_names(host) == []


@pytest.mark.parametrize("marker", ["a file", "a directory", "a link that leads nowhere"])
def test_a_stateless_host_runs_serially_whatever_is_asked_for(host: Host, marker: str) -> None:
    host.write("/sys/devices/system/cpu/online", "0-7\n")
    path = host.path("/stateless.tgz")
    if marker == "a file":
        path.touch()
    elif marker == "a directory":
        path.mkdir()
    else:
        path.symlink_to("/nowhere")
    assert maximum_threads(host, 5, "--parallel") == 1
    assert configuration(host)["Parallel"] == "0"


# Reload of the syslog daemon.

def reload(host: Host) -> list[tuple[int, str]]:
    """What a boot says about the reload; the executor and the launches are not of interest here."""
    syslog = host.syslog()
    outcome = host.lofter("--init")
    assert outcome.status == 0
    return [(record.severity, record.text) for record in syslog.records()
            if record.severity != INFO and "execve" not in record.text and "kmsg" not in record.text]


def test_a_missing_pid_file_is_reported_once_and_nothing_is_signalled(host: Host) -> None:
    assert reload(host) == [(WARNING, NO_PID_FILE)]


@pytest.mark.parametrize("content", ["", "\n", "garbage\n", "0\n", "-1\n", "-5\n", "x12\n", "0x10\n", ".5\n",
                                     "99999999999999999999\n", "4294967297\n", "1" * 100_000, "\0\0"],
                         ids=lambda content: repr(content[:24]))
def test_a_pid_file_without_a_process_id_is_reported_and_nothing_is_signalled(host: Host, content: str) -> None:
    host.write(PID_FILE, content)
    assert reload(host) == [(ERROR, NO_PID)]


def test_a_pid_file_that_is_a_directory_is_reported(host: Host) -> None:
    host.path(PID_FILE).mkdir()
    assert reload(host) == [(ERROR, NO_PID)]


@pytest.mark.parametrize("form", ["{}\n", "  {}", "{} abc", "{}abc", "{}\n\nsecond line", "{} 2\n", "{}.5", "{}\0", "{}\n" + " " * 100_000],
                         ids=lambda form: repr(form[:24]))
def test_a_process_that_is_gone_is_reported_by_the_first_number_of_the_pid_file(host: Host, form: str) -> None:
    host.write(PID_FILE, form.format(2**31 - 1))
    assert reload(host) == [(WARNING, "failed to reload tssyslogd: No such process.")]


@pytest.mark.parametrize("text", ["%s", " %s \n\n", "+%s\n"])
def test_the_process_named_in_the_pid_file_gets_one_signal(host: Host, text: str) -> None:
    script = f"""
        trap 'echo reloaded >>{TRACE}' USR1
        printf '{text}' $$ >{PID_FILE}
        lofter --init
        echo status $? >>{TRACE}"""
    assert host.run("sh", "-c", script).status == 0
    assert sorted(traced_steps(host)) == ["reloaded", "status 0"]


@pytest.mark.parametrize("make, upgrades", [
    (lambda path: None, []), (lambda path: path.touch(), ["upgraded"]), (lambda path: path.mkdir(), ["upgraded"])],
    ids=["none", "a file", "a directory"])
def test_the_configuration_is_upgraded_only_where_there_is_one(host: Host, make: Callable[[pathlib.Path], object],
                                                                   upgrades: list[str]) -> None:
    make(host.path("/etc/syslog.conf"))
    host.write_script(UPGRADE, f"echo upgraded >>{TRACE}; exit 3")
    assert reload(host) == [(WARNING, NO_PID_FILE)]
    assert traced_steps(host) == upgrades


# A host that lacks what a run needs.

def test_plugins_that_cannot_be_enumerated_cost_their_run_but_nothing_else(host: Host) -> None:
    trace_everything(host)
    outcome = host.lofter("--init", "--plugin-directory=/no/such")
    assert (outcome.status, outcome.leftovers) == (1, [])
    assert [line.split(":")[0] for line in traced_steps(host)] == ["syslog daemon -i", "observation daemon start", "upgrade", "reload"]
    assert "Activating" not in outcome.output
    assert profiled_names(host) == []
    assert "Start" in configuration(host)
    assert not host.exists(RECORD)
    assert outcome.log()[-1] == "info Executor has been Successfully Stopped"


def test_an_executor_that_cannot_start_ends_the_run_at_once(host: Host) -> None:
    trace_everything(host)
    host.path("/run/tessel").rmdir()
    host.write("/run/tessel", "not a directory")
    syslog = host.syslog()
    outcome = host.lofter("--dump-dependency-tree=/run/dump")
    assert (outcome.status, outcome.leftovers) == (1, [])
    assert outcome.log()[-1] == "warning Failed to start executor Lofter executor failed to start"
    assert (WARNING, "Failed to start executor Lofter executor failed to start") in [
        (record.severity, record.text) for record in syslog.records()]
    assert not host.exists("/run/dump") and not host.exists(PROFILE) and not host.exists(RECORD)


def test_every_line_goes_to_syslog_and_to_standard_output(host: Host) -> None:
    host.debug_configuration("a:::false")
    host.kernel_log()
    syslog = host.syslog()
    outcome = host.lofter("--init")
    names = {ERROR: "error", WARNING: "warning", INFO: "info"}
    # The launches have no standard output of the run's, nor has the executor.
    sent = [f"{names[record.severity]} {record.text}" for record in syslog.records()
            if "execve" not in record.text and "xecutor" not in record.text]
    assert sent == [line for line in lines(outcome) if "Launching" not in line]
    assert "info debug injection 'a' returned 0x000100" in outcome.log()
    assert {record.identifier for record in syslog.records()} == {"lofter"}
    assert {record.facility for record in syslog.records()} == {3}


def test_nothing_is_copied_to_standard_error(host: Host) -> None:
    host.debug_configuration("a:::false", "bad")
    assert host.lofter("--init").errors == ""


def test_a_host_without_a_kernel_log_says_so_for_each_line_and_runs(host: Host) -> None:
    host.debug_configuration("a:::true")
    syslog = host.syslog()
    outcome = host.lofter()
    assert outcome.status == 0
    lines = [text for text in syslog.texts(WARNING)]
    assert len(lines) == 2 and len(set(lines)) == 1
    assert re.fullmatch(r"Exception occurred while logging msg: .*No such file or directory.*", lines[0])
    assert not host.exists("/dev/kmsg")


def test_a_kernel_log_that_takes_no_more_says_so_for_each_line(host: Host) -> None:
    host.debug_configuration("a:::true")
    syslog = host.syslog()
    outcome = host.lofter(bind=[("/dev/full", "/dev/kmsg")])
    assert outcome.status == 0
    full = [text for text in syslog.texts(WARNING) if text.startswith("Exception occurred while logging msg: ")]
    assert len(full) == 2 and all("No space left on device" in text for text in full)
    assert "while logging msg" not in outcome.output


def test_a_host_without_a_log_socket_has_standard_output(host: Host) -> None:
    host.debug_configuration("a:::true")
    outcome = host.lofter("--init")
    assert outcome.status == 0
    assert "info executing start plugin: a" in outcome.log()


def test_the_log_socket_is_found_once_it_is_there(host: Host) -> None:
    host.write_script(SYSLOG_DAEMON, f"mkfifo {TRACE}.go; echo up >{TRACE}; read line <{TRACE}.go")
    host.debug_configuration("a:::true")
    running = host.start_lofter("--init")
    eventually(lambda: host.exists(TRACE), "the syslog daemon's launch")
    syslog = host.syslog()
    with open(host.path(f"{TRACE}.go"), "w") as go:
        go.write("on\n")
    outcome = running.finish()
    assert outcome.status == 0
    assert "executing start plugin: a" in [text for text in syslog.texts(INFO)]


@pytest.mark.parametrize("closed", [">&-", "<&- >&- 2>&-", "<&-", "2>&-", ">/dev/full"])
def test_a_run_survives_standard_streams_that_are_closed_or_full(host: Host, closed: str) -> None:
    host.debug_configuration(f"a:::ls -l /proc/self/fd >{TRACE} 2>&1", "b:::echo text")
    syslog = host.syslog()
    outcome = host.run("sh", "-c", f"exec lofter --init --plugin-flags=x {closed}", grace=10)
    assert (outcome.status, outcome.leftovers) == (0, [])
    assert "executing start plugin: b" in [text for text in syslog.texts(INFO)]
    # What was opened in the place of a stream would get the plugins' output.
    assert profiled_names(host) == ["a", "b"]
    assert re.fullmatch(r"Krxkernel.*\n(\[.*\n){2}=== .*\n( .*\n){7}", host.read(PROFILE))
    assert host.read_gzip(RECORD) == "lofter.run-once=\n"


def test_a_run_survives_a_reader_of_its_output_that_is_gone(host: Host) -> None:
    host.debug_configuration("a:::true", "b:::true")
    host.write_script("/bin/chkconfig", "true")
    for arguments in (["--init"], ["--daemon", "--method=start"]):
        reader, writer = os.pipe()
        os.close(reader)
        assert host.lofter(*arguments, stdout=writer).status == 0
        os.close(writer)
    assert profiled_names(host) == ["a", "b"]
    assert " End Daemon: " in host.read(PROFILE)


def test_a_plugins_command_has_nothing_of_lofter_but_the_standard_streams(host: Host) -> None:
    host.syslog()
    host.kernel_log()
    host.debug_configuration(f"a:::(exec >{TRACE}; exec ls -l /proc/$$/fd); true", "b:::true")
    for arguments in (["--init"], ["--parallel"]):
        assert host.lofter(*arguments).status == 0
        host.restart()
        assert sorted(descriptors_in(host.read(TRACE))) == [0, 1, 2]


def test_runs_leave_no_temporary_file_behind(host: Host) -> None:
    def files() -> list[str]:
        return sorted(str(path.relative_to(host.root)) for path in host.root.rglob("*")
                      if not str(path.relative_to(host.root)).startswith(("proc/", "var/sanitizer/")))
    before = files()
    host.debug_configuration("a:missing::true")
    assert host.lofter("--init").leftovers == []
    host.restart()
    assert host.lofter("--plugin-directory=/no/such").status == 1
    host.restart()
    assert sorted(set(files()) - set(before)) == [
        "bootbank/loftsave.gz", "etc/tessel/lofter/debug.conf", "run/issue.d", "run/issue.d/50-lofter.issue",
        "var/log/lofter-qorcli-stdout.log", "var/log/sysboot.log"]
