"""The steps of a run in their order, which of them every way of running has, and what becomes of them on a broken host."""
import os
import re

import pytest

from support.syslog import ERROR, INFO, WARNING
from support.waiting import Eventually

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


def TraceEverything(host):
    """Programs of the host and a plugin that report when their turn comes; the syslog daemon stays, for one signal."""
    host.Write("/usr/bin/report", f"#!/bin/sh\n{REPORT}\nreport \"$@\"\n", 0o755)
    host.WriteScript(SYSLOG_DAEMON, f"""
        report syslog daemon "$@"
        ( trap 'report reload; kill $!; exit' USR1; sleep 1000 & echo >{PID_FILE}.ready; wait ) &
        echo $! >{PID_FILE}
        until [ -e {PID_FILE}.ready ]; do sleep 0.01; done""")
    host.WriteScript(OBSERVATION_DAEMON, 'report observation daemon "$@"')
    host.WriteScript(UPGRADE, "report upgrade")
    host.Write("/etc/syslog.conf", "")
    host.Write("/usr/libexec/lofter/plugins/step.debug", "")
    host.DebugConfiguration("step:::report plugin")


def Traced(host):
    return host.Read(TRACE).splitlines() if host.Exists(TRACE) else []


def Lines(outcome):
    """The log without what is said about the executor once it is being launched."""
    return [line for line in outcome.Log() if "xecutor" not in line or "Launching" in line]


def Descriptors(listing):
    """What `ls -l` shows of a process's descriptors, by their numbers."""
    return {int(number): target for number, target in re.findall(r" (\d+) -> (.*)$", listing, re.MULTILINE)}


def Configuration(host):
    return dict(re.findall(r"^ (.+?): (.*)$", host.Read(PROFILE), re.MULTILINE))


def ProfiledNames(host):
    return re.findall(r"^\[[-\d:. ]+ - [-\d:. ]+\] sysboot: (.*)$", host.Read(PROFILE), re.MULTILINE)


LAUNCHES = ["syslog daemon -i:", "observation daemon start:"]


def Plugins(count, *there):
    return [f"plugin: {' '.join(there)}"] * count


# The order of everything.

def test_a_boot_takes_its_steps_in_order(host):
    TraceEverything(host)
    host.KernelLog()
    outcome = host.Lofter("--init")
    assert (outcome.status, outcome.errors, outcome.leftovers) == (0, "", [])
    Eventually(lambda: Traced(host)[-1].startswith("reload"), "the syslog daemon reloads")
    assert Traced(host) == [
        *LAUNCHES,
        "plugin: executor", "plugin: executor",  # by its file, and as one of all entries
        "upgrade: executor record profile", "reload: executor record profile",
    ]
    assert Lines(outcome) == [
        "info Launching Executor",
        "info Activating Lofter Plugins",
        "info executing start plugin: step",
        "info executing start plugin: step",
    ]
    assert [line.split("lofter: ")[1] for line in host.KernelLines()] == [
        "Activating Lofter plugin step.", "Lofter plugin step activated."] * 2
    assert outcome.Log()[-1] == "info Executor has been Successfully Stopped"


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
def test_each_way_of_running_has_its_steps(host, arguments, launches, plugins, record, profile, reload):
    TraceEverything(host)
    outcome = host.Lofter(*arguments)
    assert (outcome.status, outcome.leftovers) == (0, [])
    traced = Traced(host)
    assert traced[:2] == (LAUNCHES if launches else traced[:2])
    assert [line for line in traced if "daemon" in line] == (LAUNCHES if launches else [])
    assert [line for line in traced if line.startswith("plugin")] == Plugins(plugins, "executor")
    assert len([line for line in traced if line.startswith("upgrade")]) == reload
    assert len([line for line in traced if line.startswith("reload")]) == reload
    assert host.Exists(RECORD) == record
    assert host.Exists(PROFILE) == profile
    assert host.Exists("/run/dump") == any("dump" in argument for argument in arguments)
    assert Lines(outcome)[0] == "info Launching Executor"
    assert ("info Activating Lofter Plugins" in Lines(outcome)) == (not host.Exists("/run/dump"))


def test_launched_daemons_have_their_streams_on_the_null_device_and_nothing_else_of_lofter(host):
    host.Syslog()  # lofter has a connection by then, to be kept from the daemon
    for name, path in (("one", SYSLOG_DAEMON), ("two", OBSERVATION_DAEMON)):
        host.WriteScript(path, f"(exec >{TRACE}.{name}; exec ls -l /proc/$$/fd); echo $GREETING >>{TRACE}")
    assert host.Lofter("--init", environment={"GREETING": "hello"}).status == 0
    for name, path in (("one", SYSLOG_DAEMON), ("two", OBSERVATION_DAEMON)):
        descriptors = Descriptors(host.Read(f"{TRACE}.{name}"))
        assert [descriptors.pop(number) for number in (0, 1, 2)] == ["/dev/null"] * 3
        assert list(descriptors.values()) == [path]  # which the shell reads
    assert Traced(host) == ["hello", "hello"]


@pytest.mark.parametrize("fate", ["missing", "not executable", "failing"])
def test_the_launch_of_a_daemon_that_goes_wrong_does_not_hold_up_the_boot(host, fate):
    syslog = host.Syslog()
    if fate != "missing":
        for path in (SYSLOG_DAEMON, OBSERVATION_DAEMON):
            host.Write(path, "#!/bin/sh\nexit 9\n", 0o755 if fate == "failing" else 0o644)
    host.DebugConfiguration("a:::true")
    outcome = host.Lofter("--init")
    assert (outcome.status, outcome.leftovers) == (0, [])
    assert ProfiledNames(host) == ["a"]
    reason = {"missing": "No such file or directory", "not executable": "Permission denied"}.get(fate)
    expected = [f"execve({path}) failure: {reason}" for path in (SYSLOG_DAEMON, OBSERVATION_DAEMON)] if reason else []
    # By the child, whose standard streams were the null device by then.
    assert [text for text in syslog.Texts(ERROR)] == expected
    assert "failure" not in outcome.output


def test_the_boot_waits_for_the_daemons_that_it_launches(host):
    for path in (SYSLOG_DAEMON, OBSERVATION_DAEMON):
        host.WriteScript(path, f"echo begin {path} >>{TRACE}; sleep 0.2; echo end {path} >>{TRACE}")
    host.DebugConfiguration(f"a:::echo a >>{TRACE}")
    assert host.Lofter("--init").status == 0
    assert Traced(host) == [f"begin {SYSLOG_DAEMON}", f"end {SYSLOG_DAEMON}", f"begin {OBSERVATION_DAEMON}",
                            f"end {OBSERVATION_DAEMON}", "a"]


def test_plugins_run_in_the_root_and_in_a_session_of_their_own(host):
    host.DebugConfiguration(f"a:::pwd >{TRACE}; set -- $(cat /proc/$PPID/stat); echo $1 $6 >>{TRACE}")
    outcome = host.Run("sh", "-c", "cd /usr/lib && lofter")
    assert outcome.status == 0
    directory, ids = Traced(host)
    assert directory == "/"
    process, session = ids.split()
    assert process == session


def test_a_session_leader_says_that_it_is_one_already(host):
    # As the leader of a terminal's session.
    terminal = host.Terminal()
    running = host.Start("/bin/setsid", "/usr/sbin/lofter", terminal=terminal)
    assert running.Finish().status == 0
    assert b" info lofter: unable to create session: Operation not permitted.\r\n" in terminal.Everything()


def test_the_plugin_directory_is_relative_to_where_lofter_was_called(host):
    host.Write("/usr/lib/here/notes.txt", "")
    outcome = host.Run("sh", "-c", "cd /usr/lib && lofter --plugin-directory=here")
    assert outcome.status == 0
    assert "warning ignoring plugin 'notes.txt' of unknown type (txt)..." in outcome.Log()


# The console.

TERMINAL_OF_SESSION = f"set -- $(cat /proc/$$/stat); echo $7 >>{TRACE}"


def test_progress_is_shown_on_a_console_that_does_not_become_the_runs_terminal(host):
    host.DebugConfiguration(f"a:::{TERMINAL_OF_SESSION}")
    terminal = host.Terminal()
    outcome = host.Lofter(bind=[(terminal.path, "/dev/console")])
    assert (outcome.status, Traced(host)) == (0, ["0"])
    assert b"Activating Lofter Plugins" in terminal.Everything()
    assert "Activating Lofter Plugins" not in outcome.output


def test_a_dump_to_the_console_does_not_make_it_the_runs_terminal(host):
    host.Write("/etc/syslog.conf", "")
    host.WriteScript(UPGRADE, TERMINAL_OF_SESSION)
    terminal = host.Terminal()
    outcome = host.Lofter("--init", "--dump-dependency-tree=/dev/console", bind=[(terminal.path, "/dev/console")])
    assert (outcome.status, Traced(host)) == (0, ["0"])
    assert terminal.Everything().endswith(b"digraph g {\r\n}\r\n")


# Threads.

COUNT_THREADS = f"a%d:::ls /proc/$PPID/task | wc -l >>{TRACE}"


def MaximumThreads(host, plugins, *arguments):
    """How many workers a run had, as its plugins count them, more than a serial run's one."""
    host.DebugConfiguration(*(COUNT_THREADS % number for number in range(plugins)))
    counts = []
    for options in ([], arguments):
        host.Write(TRACE, "")
        assert host.Lofter(*options).status == 0
        host.Restart()
        counts.append({int(line) for line in Traced(host)})
        assert len(Traced(host)) == plugins
    (serial,), (other,) = counts
    return other - serial + 1


@pytest.mark.parametrize("plugins, threads", [(3, 3), (40, 16), (16, 16), (17, 16), (1, 1)])
def test_a_parallel_run_has_two_threads_for_each_processor_but_no_more_than_plugins(host, plugins, threads):
    host.Write("/sys/devices/system/cpu/online", "0-7\n")
    assert MaximumThreads(host, plugins, "--parallel") == threads


def test_a_parallel_run_without_plugins_ends(host):
    outcome = host.Lofter("--parallel", timeout=20)
    assert (outcome.status, outcome.leftovers) == (0, [])
    assert Configuration(host)["Parallel"] == "1"
    assert ProfiledNames(host) == []


@pytest.mark.parametrize("marker", ["a file", "a directory", "a link that leads nowhere"])
def test_a_stateless_host_runs_serially_whatever_is_asked_for(host, marker):
    host.Write("/sys/devices/system/cpu/online", "0-7\n")
    {"a file": lambda path: path.touch(), "a directory": lambda path: path.mkdir(),
     "a link that leads nowhere": lambda path: path.symlink_to("/nowhere")}[marker](host.Path("/stateless.tgz"))
    assert MaximumThreads(host, 5, "--parallel") == 1
    assert Configuration(host)["Parallel"] == "0"


# Reload of the syslog daemon.

def Reload(host):
    """What a boot says about the reload; the executor and the launches are not of interest here."""
    syslog = host.Syslog()
    outcome = host.Lofter("--init")
    assert outcome.status == 0
    return [(record.severity, record.text) for record in syslog.Records()
            if record.severity != INFO and "execve" not in record.text and "kmsg" not in record.text]


def test_a_missing_pid_file_is_reported_once_and_nothing_is_signalled(host):
    assert Reload(host) == [(WARNING, NO_PID_FILE)]


@pytest.mark.parametrize("content", ["", "\n", "garbage\n", "0\n", "-1\n", "-5\n", "x12\n", "0x10\n", ".5\n",
                                     "99999999999999999999\n", "4294967297\n", "1" * 100_000, "\0\0"],
                         ids=lambda content: repr(content[:24]))
def test_a_pid_file_without_a_process_id_is_reported_and_nothing_is_signalled(host, content):
    host.Write(PID_FILE, content)
    assert Reload(host) == [(ERROR, NO_PID)]


def test_a_pid_file_that_is_a_directory_is_reported(host):
    host.Path(PID_FILE).mkdir()
    assert Reload(host) == [(ERROR, NO_PID)]


@pytest.mark.parametrize("form", ["{}\n", "  {}", "{} abc", "{}abc", "{}\n\nsecond line", "{} 2\n", "{}.5", "{}\0", "{}\n" + " " * 100_000],
                         ids=lambda form: repr(form[:24]))
def test_a_process_that_is_gone_is_reported_by_the_first_number_of_the_pid_file(host, form):
    host.Write(PID_FILE, form.format(2**31 - 1))
    assert Reload(host) == [(WARNING, "failed to reload tssyslogd: No such process.")]


@pytest.mark.parametrize("text", ["%s", " %s \n\n", "+%s\n"])
def test_the_process_named_in_the_pid_file_gets_one_signal(host, text):
    script = f"""
        trap 'echo reloaded >>{TRACE}' USR1
        printf '{text}' $$ >{PID_FILE}
        lofter --init
        echo status $? >>{TRACE}"""
    assert host.Run("sh", "-c", script).status == 0
    assert sorted(Traced(host)) == ["reloaded", "status 0"]


@pytest.mark.parametrize("make, upgrades", [
    (lambda path: None, []), (lambda path: path.touch(), ["upgraded"]), (lambda path: path.mkdir(), ["upgraded"])],
    ids=["none", "a file", "a directory"])
def test_the_configuration_is_upgraded_only_where_there_is_one(host, make, upgrades):
    make(host.Path("/etc/syslog.conf"))
    host.WriteScript(UPGRADE, f"echo upgraded >>{TRACE}; exit 3")
    assert Reload(host) == [(WARNING, NO_PID_FILE)]
    assert Traced(host) == upgrades


# A host that lacks what a run needs.

def test_plugins_that_cannot_be_enumerated_cost_their_run_but_nothing_else(host):
    TraceEverything(host)
    outcome = host.Lofter("--init", "--plugin-directory=/no/such")
    assert (outcome.status, outcome.leftovers) == (1, [])
    assert [line.split(":")[0] for line in Traced(host)] == ["syslog daemon -i", "observation daemon start", "upgrade", "reload"]
    assert "Activating" not in outcome.output
    assert ProfiledNames(host) == []
    assert "Start" in Configuration(host)
    assert not host.Exists(RECORD)
    assert outcome.Log()[-1] == "info Executor has been Successfully Stopped"


def test_an_executor_that_cannot_start_ends_the_run_at_once(host):
    TraceEverything(host)
    host.Path("/run/tessel").rmdir()
    host.Write("/run/tessel", "not a directory")
    syslog = host.Syslog()
    outcome = host.Lofter("--dump-dependency-tree=/run/dump")
    assert (outcome.status, outcome.leftovers) == (1, [])
    assert outcome.Log()[-1] == "warning Failed to start executor Lofter executor failed to start"
    assert (WARNING, "Failed to start executor Lofter executor failed to start") in [
        (record.severity, record.text) for record in syslog.Records()]
    assert not host.Exists("/run/dump") and not host.Exists(PROFILE) and not host.Exists(RECORD)


def test_every_line_goes_to_syslog_and_to_standard_output(host):
    host.DebugConfiguration("a:::false")
    host.KernelLog()
    syslog = host.Syslog()
    outcome = host.Lofter("--init")
    names = {ERROR: "error", WARNING: "warning", INFO: "info"}
    # The launches have no standard output of the run's, nor has the executor.
    sent = [f"{names[record.severity]} {record.text}" for record in syslog.Records()
            if "execve" not in record.text and "xecutor" not in record.text]
    assert sent == [line for line in Lines(outcome) if "Launching" not in line]
    assert "info debug injection 'a' returned 0x000100" in outcome.Log()
    assert {record.identifier for record in syslog.Records()} == {"lofter"}
    assert {record.facility for record in syslog.Records()} == {3}


def test_nothing_is_copied_to_standard_error(host):
    host.DebugConfiguration("a:::false", "bad")
    assert host.Lofter("--init").errors == ""


def test_a_host_without_a_kernel_log_says_so_for_each_line_and_runs(host):
    host.DebugConfiguration("a:::true")
    syslog = host.Syslog()
    outcome = host.Lofter()
    assert outcome.status == 0
    lines = [text for text in syslog.Texts(WARNING)]
    assert len(lines) == 2 and len(set(lines)) == 1
    assert re.fullmatch(r"Exception occurred while logging msg: .*No such file or directory.*", lines[0])
    assert not host.Exists("/dev/kmsg")


def test_a_kernel_log_that_takes_no_more_says_so_for_each_line(host):
    host.DebugConfiguration("a:::true")
    syslog = host.Syslog()
    outcome = host.Lofter(bind=[("/dev/full", "/dev/kmsg")])
    assert outcome.status == 0
    full = [text for text in syslog.Texts(WARNING) if text.startswith("Exception occurred while logging msg: ")]
    assert len(full) == 2 and all("No space left on device" in text for text in full)
    assert "while logging msg" not in outcome.output


def test_a_host_without_a_log_socket_has_standard_output(host):
    host.DebugConfiguration("a:::true")
    outcome = host.Lofter("--init")
    assert outcome.status == 0
    assert "info executing start plugin: a" in outcome.Log()


def test_the_log_socket_is_found_once_it_is_there(host):
    host.WriteScript(SYSLOG_DAEMON, f"mkfifo {TRACE}.go; echo up >{TRACE}; read line <{TRACE}.go")
    host.DebugConfiguration("a:::true")
    running = host.StartLofter("--init")
    Eventually(lambda: host.Exists(TRACE), "the syslog daemon's launch")
    syslog = host.Syslog()
    with open(host.Path(f"{TRACE}.go"), "w") as go:
        go.write("on\n")
    outcome = running.Finish()
    assert outcome.status == 0
    assert "executing start plugin: a" in [text for text in syslog.Texts(INFO)]


@pytest.mark.parametrize("closed", [">&-", "<&- >&- 2>&-", "<&-", "2>&-", ">/dev/full"])
def test_a_run_survives_standard_streams_that_are_closed_or_full(host, closed):
    host.DebugConfiguration(f"a:::ls -l /proc/self/fd >{TRACE} 2>&1", "b:::echo text")
    syslog = host.Syslog()
    outcome = host.Run("sh", "-c", f"exec lofter --init --plugin-flags=x {closed}", grace=10)
    assert (outcome.status, outcome.leftovers) == (0, [])
    assert "executing start plugin: b" in [text for text in syslog.Texts(INFO)]
    # What was opened in the place of a stream would get the plugins' output.
    assert ProfiledNames(host) == ["a", "b"]
    assert re.fullmatch(r"Krxkernel.*\n(\[.*\n){2}=== .*\n( .*\n){7}", host.Read(PROFILE))
    assert host.ReadGzip(RECORD) == "lofter.run-once=\n"


def test_a_run_survives_a_reader_of_its_output_that_is_gone(host):
    host.DebugConfiguration("a:::true", "b:::true")
    host.WriteScript("/bin/chkconfig", "true")
    for arguments in (["--init"], ["--daemon", "--method=start"]):
        reader, writer = os.pipe()
        os.close(reader)
        assert host.Lofter(*arguments, stdout=writer).status == 0
        os.close(writer)
    assert ProfiledNames(host) == ["a", "b"]
    assert " End Daemon: " in host.Read(PROFILE)


def test_a_plugins_command_has_nothing_of_lofter_but_the_standard_streams(host):
    host.Syslog()
    host.KernelLog()
    host.DebugConfiguration(f"a:::(exec >{TRACE}; exec ls -l /proc/$$/fd); true", "b:::true")
    for arguments in (["--init"], ["--parallel"]):
        assert host.Lofter(*arguments).status == 0
        host.Restart()
        assert sorted(Descriptors(host.Read(TRACE))) == [0, 1, 2]


def test_runs_leave_no_temporary_file_behind(host):
    def Files():
        return sorted(str(path.relative_to(host.root)) for path in host.root.rglob("*")
                      if not str(path.relative_to(host.root)).startswith(("proc/", "var/sanitizer/")))
    before = Files()
    host.DebugConfiguration("a:missing::true")
    assert host.Lofter("--init").leftovers == []
    host.Restart()
    assert host.Lofter("--plugin-directory=/no/such").status == 1
    host.Restart()
    assert sorted(set(Files()) - set(before)) == [
        "bootbank/loftsave.gz", "etc/tessel/lofter/debug.conf", "run/issue.d", "run/issue.d/50-lofter.issue",
        "var/log/lofter-qorcli-stdout.log", "var/log/sysboot.log"]
