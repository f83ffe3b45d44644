"""What stands where a run reads and writes: modes, links and pipes that somebody left there gain nothing and stop nothing."""
import contextlib
import json
import os
import re
import stat

import pytest

from support.syslog import ALERT, WARNING

PROFILE = "/var/log/sysboot.log"
RECORD = "/bootbank/loftsave.gz"
EXECUTOR_LOG = "/var/log/lofter-qorcli-stdout.log"
SOCKET = "/run/tessel/lofterExecutor.sock"
PID_FILE = "/run/tessel/tssyslogd.pid"
ALERT_FILE = "/run/issue.d/50-lofter.issue"
NO_PARTNER = "No such device or address"


def Mode(host, path):
    return stat.S_IMODE(os.lstat(host.Path(path)).st_mode)


def Files(host):
    return {path for path in host.root.rglob("*") if not str(path.relative_to(host.root)).startswith(("proc/", "var/sanitizer"))}


def Command(host, name, body):
    """A host command, and a plugin that runs it."""
    host.WriteScript(f"/usr/lib/tessel/qorcli/{name}", body)
    host.Plugin(f"{name}.json", json.dumps(
        {"metadata": {"version": 1, "requires": [], "provides": []}, "operations": {"start": [name]}}))


def Daemon(host):
    host.WriteScript("/etc/init.d/one", "echo ran >>/tmp/daemon")
    host.WriteScript("/bin/chkconfig", "echo /etc/init.d/one 10")


# Modes.

@pytest.mark.parametrize("umask, shared, folder", [("0", 0o644, 0o755), ("022", 0o644, 0o755), ("077", 0o600, 0o700)])
def test_nobody_else_can_write_what_a_run_makes(host, umask, shared, folder):
    host.DebugConfiguration("a:missing::true")
    Command(host, "note", "true")
    before = Files(host)
    assert host.Run("sh", "-c", f"umask {umask}; exec lofter --init", grace=10).status == 0
    assert Mode(host, SOCKET) == 0o600
    host.Restart()
    assert host.Run("sh", "-c", f"umask {umask}; exec lofter --dump-dependency-tree=/run/dump", grace=10).status == 0
    assert {path: Mode(host, path) for path in (SOCKET, PROFILE, RECORD, EXECUTOR_LOG, "/run/dump", "/run/issue.d", ALERT_FILE)} == {
        SOCKET: 0o600, PROFILE: 0o600, RECORD: shared, EXECUTOR_LOG: shared, "/run/dump": shared, "/run/issue.d": folder,
        ALERT_FILE: 0o644}
    assert [str(path) for path in Files(host) - before if os.lstat(path).st_mode & 0o022] == []


def test_what_a_run_starts_has_the_callers_umask(host):
    Command(host, "note", "umask >>/tmp/umask")
    host.DebugConfiguration("a:::umask >>/tmp/umask")
    assert host.Run("sh", "-c", "umask 027; exec lofter --init", grace=10).status == 0
    assert host.Read("/tmp/umask") == "0027\n0027\n"


@pytest.mark.parametrize("old, new", [(0o4755, 0o755), (0o2711, 0o711), (0o7777, 0o777), (0o640, 0o640)], ids=oct)
def test_a_profiling_log_keeps_permissions_but_never_the_right_to_be_somebody_else(host, old, new):
    host.Write(PROFILE, "old\n", old)
    assert Mode(host, PROFILE) == old
    assert host.Lofter().status == 0
    assert host.Read(PROFILE).startswith("Krxkernel")
    assert Mode(host, PROFILE) == new


# Links.

@pytest.mark.parametrize("target", ["/etc/victim", "/etc/nothing"])
def test_a_link_in_the_place_of_the_executors_log_costs_the_log_only(host, target):
    host.Write("/etc/victim", "untouched\n")
    host.Path(EXECUTOR_LOG).symlink_to(target)
    Command(host, "note", "echo printed; echo ran >>/tmp/notes")
    syslog = host.Syslog()
    outcome = host.Lofter("--init")
    assert (outcome.status, outcome.leftovers) == (0, [])
    assert host.Read("/tmp/notes") == "ran\n"
    assert syslog.Texts(WARNING).count(f"Failed opening log file {EXECUTOR_LOG}") == 1
    assert host.Read("/etc/victim") == "untouched\n"
    assert not host.Exists("/etc/nothing")
    assert host.Path(EXECUTOR_LOG).is_symlink()


# Pipes.

class Pipe:
    """A pipe in a file's place, with somebody at its other end or not."""

    def __init__(self, host, path, hasPartner):
        self.path = host.Path(path)
        self.path.unlink(missing_ok=True)
        os.mkfifo(self.path)
        self.partner = os.open(self.path, os.O_RDWR | os.O_NONBLOCK) if hasPartner else None

    def Close(self):
        """It is still there, and nobody has written into it."""
        assert self.path.is_fifo()
        if self.partner is not None:
            with contextlib.suppress(BlockingIOError):
                assert os.read(self.partner, 1) is None
            os.close(self.partner)


@pytest.fixture
def pipes(host, request):
    """Makes pipes; `lonely` and `held` say whether they have somebody at their other end."""
    made = []

    def Make(path):
        made.append(Pipe(host, path, request.param == "held"))
    yield Make
    for pipe in made:
        pipe.Close()


lonely_and_held = pytest.mark.parametrize("pipes", ["lonely", "held"], indirect=True)


def Boot(host, *arguments):
    outcome = host.Lofter(*arguments, timeout=40)
    assert (outcome.status, outcome.leftovers) == (0, [])
    return outcome


@lonely_and_held
def test_a_pipe_in_the_place_of_the_profiling_log_cannot_be_extended(host, pipes):
    pipes(PROFILE)
    Daemon(host)
    outcome = Boot(host, "--daemon=wait", "--method=start")
    assert f"error unable to reopen profiling log ({PROFILE}): {NO_PARTNER}." in outcome.Log()
    assert host.Read("/tmp/daemon") == "ran\n"


@lonely_and_held
def test_a_pipe_in_the_place_of_the_run_once_record_has_none_and_takes_none(host, pipes):
    pipes(RECORD)
    host.DebugConfiguration("a:::echo ran >>/tmp/plugin")
    outcome = Boot(host, "--invoke", "--method=start", "--plugin=a.debug")
    assert f"error unable to save run-once record: unable to write '{RECORD}': {NO_PARTNER}" in outcome.Log()
    assert host.Read("/tmp/plugin") == "ran\n"


@lonely_and_held
def test_a_pipe_in_the_place_of_the_executors_log_costs_the_log(host, pipes):
    pipes(EXECUTOR_LOG)
    Command(host, "note", "echo printed; echo ran >>/tmp/notes")
    syslog = host.Syslog()
    Boot(host)
    assert host.Read("/tmp/notes") == "ran\n"
    assert f"Failed opening log file {EXECUTOR_LOG}" in syslog.Texts(WARNING)


@lonely_and_held
def test_a_pipe_in_the_place_of_the_pid_file_names_no_daemon(host, pipes):
    pipes(PID_FILE)
    assert "error unable to read tssyslogd pid." in Boot(host, "--init").Log()


@lonely_and_held
def test_a_pipe_in_the_place_of_the_release_file_names_no_product(host, pipes):
    pipes("/etc/os-release")
    host.DebugConfiguration("a:::true")
    assert "info executing start plugin: a" in Boot(host).Log()


@lonely_and_held
def test_a_pipe_in_the_place_of_the_kernel_log_takes_no_record(host, pipes):
    pipes("/dev/kmsg")
    host.DebugConfiguration("a:::true")
    syslog = host.Syslog()
    Boot(host)
    assert syslog.Texts(WARNING) == [f"Exception occurred while logging msg: /dev/kmsg: {NO_PARTNER}"] * 2


@lonely_and_held
def test_a_pipe_in_the_place_of_the_debug_configuration_has_no_entries(host, pipes):
    pipes("/etc/tessel/lofter/debug.conf")
    outcome = Boot(host)
    assert [line for line in outcome.Log() if not line.startswith("info ")] == []


def test_a_pipe_in_the_place_of_the_log_socket_takes_scripts_errors_if_somebody_reads(host):
    lonely = Pipe(host, "/dev/log", hasPartner=False)
    Daemon(host)
    host.WriteScript("/etc/init.d/one", "echo ran >>/tmp/daemon; echo error >&2")
    Boot(host, "--daemon=wait", "--method=start")
    lonely.Close()
    held = Pipe(host, "/dev/log", hasPartner=True)
    Boot(host, "--daemon=wait", "--method=start")
    assert os.read(held.partner, 100) == b"error\n"
    held.Close()
    assert host.Read("/tmp/daemon") == "ran\nran\n"


# What is missing altogether.

closed_streams = pytest.mark.parametrize("closed", ["<&-", "<&- 2>&-", "<&- >&- 2>&-"])


@closed_streams
@pytest.mark.parametrize("mode", [[], ["--init"]], ids=["plain", "boot"])
def test_a_run_without_standard_streams_and_null_device_ends(host, closed, mode):
    host.Path("/dev/null").unlink()
    Command(host, "note", "true")
    outcome = host.Run("sh", "-c", f"exec lofter {' '.join(mode)} {closed}", timeout=40, grace=10)
    assert (outcome.status, outcome.leftovers) == (0, [])
    assert " sysboot: note\n" in host.Read(PROFILE)


@closed_streams
def test_nothing_that_a_run_opens_becomes_a_standard_stream(host, closed):
    host.Path("/dev/null").unlink()
    host.DebugConfiguration("a:::ls -l /proc/$$/fd >/tmp/descriptors")
    assert host.Run("sh", "-c", f"exec lofter {closed}", timeout=40, grace=10).status == 0
    assert re.search(" 0 -> /\n", host.Read("/tmp/descriptors"))


@pytest.mark.parametrize("mode", [["--plugin-directory=rel"], ["--init", "--plugin-directory=rel"],
                                  ["--plugin-directory=rel", "--plugin=notes.txt"]], ids=["plain", "boot", "listed"])
def test_a_relative_plugin_directory_without_a_current_one_cannot_be_enumerated(host, mode):
    host.Write("/rel/notes.txt", "")
    outcome = host.Run("sh", "-c", f"mkdir /gone; cd /gone; rmdir /gone; exec lofter {' '.join(mode)}", grace=10)
    assert (outcome.status, outcome.leftovers) == (1, [])
    assert re.search(r" error lofter: unhandled exception whilst enumerating plugins\.\nDetails:\n .*No such file or directory.*rel.* \n",
                     outcome.output)
    assert "notes.txt" not in outcome.output
    assert "=== Lofter configuration info ===" in host.Read(PROFILE)
    assert "info Executor has been Successfully Stopped" in outcome.Log()


def test_an_absolute_plugin_directory_needs_no_current_one(host):
    host.Write("/rel/notes.txt", "")
    outcome = host.Run("sh", "-c", "mkdir /gone; cd /gone; rmdir /gone; exec lofter --plugin-directory=/rel", grace=10)
    assert outcome.status == 0
    assert "warning ignoring plugin 'notes.txt' of unknown type (txt)..." in outcome.Log()


@pytest.mark.parametrize("mode, section", [
    (["--daemon", "--method=start"], " End Daemon: "), (["--init"], " End: "), ([], " End: ")], ids=["daemons", "boot", "plain"])
def test_a_dump_whose_reader_is_gone_ends_as_any_other(host, mode, section):
    Daemon(host)
    host.Write(PROFILE, "old\n")
    reader, writer = os.pipe()
    os.close(reader)
    with os.fdopen(writer, "wb") as output:
        outcome = host.Lofter(*mode, "--dump-dependency-tree", stdout=output)
    assert (outcome.status, outcome.leftovers) == (0, [])
    assert section in host.Read(PROFILE)


# The alert.

@pytest.mark.parametrize("parallel", [[], ["--parallel"]], ids=["serial", "parallel"])
def test_the_alert_names_every_missing_barrier_of_the_last_run(host, parallel):
    host.DebugConfiguration("a:one::true", "b:two:out:true", "c:out,three::true")
    syslog = host.Syslog()
    assert host.Lofter(*parallel).status == 0
    raised = syslog.Texts(ALERT)
    assert sorted(re.findall(r'barrier "(\w+)" is', "\n".join(raised))) == ["one", "three", "two"]
    assert host.Read(ALERT_FILE).splitlines() == raised
    host.Restart()
    host.DebugConfiguration("a:four::true")
    assert host.Lofter(*parallel).status == 0
    assert host.Read(ALERT_FILE).splitlines() == syslog.Texts(ALERT)[3:]
    host.Restart()
    host.DebugConfiguration("a:::true")
    assert host.Lofter(*parallel).status == 0
    assert host.Read(ALERT_FILE).splitlines() == syslog.Texts(ALERT)[3:]
