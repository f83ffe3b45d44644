"""What stands where a run reads and writes: modes, links and pipes that somebody left there gain nothing and stop nothing."""
import contextlib
import json
import os
import pathlib
import re
import stat
from collections.abc import Callable, Iterator

import pytest

from lofterdev.host import Host, Outcome
from lofterdev.syslog import ALERT, WARNING

PROFILE = "/var/log/sysboot.log"
RECORD = "/bootbank/loftsave.gz"
EXECUTOR_LOG = "/var/log/lofter-qorcli-stdout.log"
SOCKET = "/run/tessel/lofterExecutor.sock"
PID_FILE = "/run/tessel/tssyslogd.pid"
ALERT_FILE = "/run/issue.d/50-lofter.issue"
NO_PARTNER = "No such device or address"


def mode(host: Host, path: str) -> int:
    return stat.S_IMODE(os.lstat(host.path(path)).st_mode)


def files(host: Host) -> set[pathlib.Path]:
    return {path for path in host.root.rglob("*") if not str(path.relative_to(host.root)).startswith(("proc/", "var/sanitizer"))}


def command(host: Host, name: str, body: str) -> None:
    """A host command, and a plugin that runs it."""
    host.write_script(f"/usr/lib/tessel/qorcli/{name}", body)
    host.plugin(f"{name}.json", json.dumps(
        {"metadata": {"version": 1, "requires": [], "provides": []}, "operations": {"start": [name]}}))


def daemon(host: Host) -> None:
    host.write_script("/etc/init.d/one", "echo ran >>/tmp/daemon")
    host.write_script("/bin/chkconfig", "echo /etc/init.d/one 10")


# Modes.

@pytest.mark.parametrize("umask, shared, folder", [("0", 0o644, 0o755), ("022", 0o644, 0o755), ("077", 0o600, 0o700)])
def test_nobody_else_can_write_what_a_run_makes(host: Host, umask: str, shared: int, folder: int) -> None:
    host.debug_configuration("a:missing::true")
    command(host, "note", "true")
    before = files(host)
    assert host.run("sh", "-c", f"umask {umask}; exec lofter --init", grace=10).status == 0
    assert mode(host, SOCKET) == 0o600
    host.restart()
    assert host.run("sh", "-c", f"umask {umask}; exec lofter --dump-dependency-tree=/run/dump", grace=10).status == 0
    assert {path: mode(host, path) for path in (SOCKET, PROFILE, RECORD, EXECUTOR_LOG, "/run/dump", "/run/issue.d", ALERT_FILE)} == {
        SOCKET: 0o600, PROFILE: 0o600, RECORD: shared, EXECUTOR_LOG: shared, "/run/dump": shared, "/run/issue.d": folder,
        ALERT_FILE: 0o644}
    assert [str(path) for path in files(host) - before if os.lstat(path).st_mode & 0o022] == []


def test_what_a_run_starts_has_the_callers_umask(host: Host) -> None:
    command(host, "note", "umask >>/tmp/umask")
    host.debug_configuration("a:::umask >>/tmp/umask")
    assert host.run("sh", "-c", "umask 027; exec lofter --init", grace=10).status == 0
    assert host.read("/tmp/umask") == "0027\n0027\n"


@pytest.mark.parametrize("old, new", [(0o4755, 0o755), (0o2711, 0o711), (0o7777, 0o777), (0o640, 0o640)], ids=oct)
def test_a_profiling_log_keeps_permissions_but_never_the_right_to_be_somebody_else(host: Host, old: int, new: int) -> None:
    host.write(PROFILE, "old\n", old)
    assert mode(host, PROFILE) == old
    assert host.lofter().status == 0
    assert host.read(PROFILE).startswith("Krxkernel")
    assert mode(host, PROFILE) == new


# Links.

@pytest.mark.parametrize("target", ["/etc/victim", "/etc/nothing"])
def test_a_link_in_the_place_of_the_executors_log_costs_the_log_only(host: Host, target: str) -> None:
    host.write("/etc/victim", "untouched\n")
    host.path(EXECUTOR_LOG).symlink_to(target)
    command(host, "note", "echo printed; echo ran >>/tmp/notes")
    syslog = host.syslog()
    outcome = host.lofter("--init")
    assert (outcome.status, outcome.leftovers) == (0, [])
    assert host.read("/tmp/notes") == "ran\n"
    assert syslog.texts(WARNING).count(f"Failed opening log file {EXECUTOR_LOG}") == 1
    assert host.read("/etc/victim") == "untouched\n"
    assert not host.exists("/etc/nothing")
    assert host.path(EXECUTOR_LOG).is_symlink()


# Pipes.

class Pipe:
    """A pipe in a file's place, with somebody at its other end or not."""

    def __init__(self, host: Host, path: str, has_partner: bool) -> None:
        self.path = host.path(path)
        self.path.unlink(missing_ok=True)
        os.mkfifo(self.path)
        self.partner = os.open(self.path, os.O_RDWR | os.O_NONBLOCK) if has_partner else None

    def close(self) -> None:
        """It is still there, and nobody has written into it."""
        assert self.path.is_fifo()
        if self.partner is not None:
            with contextlib.suppress(BlockingIOError):
                assert os.read(self.partner, 1) is None
            os.close(self.partner)


@pytest.fixture
def pipes(host: Host, request: pytest.FixtureRequest) -> Iterator[Callable[[str], None]]:
    """Makes pipes; `lonely` and `held` say whether they have somebody at their other end."""
    made = []

    def make(path: str) -> None:
        made.append(Pipe(host, path, request.param == "held"))
    yield make
    for pipe in made:
        pipe.close()


lonely_and_held = pytest.mark.parametrize("pipes", ["lonely", "held"], indirect=True)


def boot(host: Host, *arguments: str) -> Outcome:
    outcome = host.lofter(*arguments, timeout=40)
    assert (outcome.status, outcome.leftovers) == (0, [])
    return outcome


@lonely_and_held
def test_a_pipe_in_the_place_of_the_profiling_log_cannot_be_extended(host: Host, pipes: Callable[[str], None]) -> None:
    pipes(PROFILE)
    daemon(host)
    outcome = boot(host, "--daemon=wait", "--method=start")
    assert f"error unable to reopen profiling log ({PROFILE}): {NO_PARTNER}." in outcome.log()
    assert host.read("/tmp/daemon") == "ran\n"


@lonely_and_held
def test_a_pipe_in_the_place_of_the_run_once_record_has_none_and_takes_none(host: Host, pipes: Callable[[str], None]) -> None:
    pipes(RECORD)
    host.debug_configuration("a:::echo ran >>/tmp/plugin")
    outcome = boot(host, "--invoke", "--method=start", "--plugin=a.debug")
    assert f"error unable to save run-once record: unable to write '{RECORD}': {NO_PARTNER}" in outcome.log()
    assert host.read("/tmp/plugin") == "ran\n"


@lonely_and_held
def test_a_pipe_in_the_place_of_the_executors_log_costs_the_log(host: Host, pipes: Callable[[str], None]) -> None:
    pipes(EXECUTOR_LOG)
    command(host, "note", "echo printed; echo ran >>/tmp/notes")
    syslog = host.syslog()
    boot(host)
    assert host.read("/tmp/notes") == "ran\n"
    assert f"Failed opening log file {EXECUTOR_LOG}" in syslog.texts(WARNING)


@lonely_and_held
def test_a_pipe_in_the_place_of_the_pid_file_names_no_daemon(host: Host, pipes: Callable[[str], None]) -> None:
    pipes(PID_FILE)
    assert "error unable to read tssyslogd pid." in boot(host, "--init").log()


@lonely_and_held
def test_a_pipe_in_the_place_of_the_release_file_names_no_product(host: Host, pipes: Callable[[str], None]) -> None:
    pipes("/etc/os-release")
    host.debug_configuration("a:::true")
    assert "info executing start plugin: a" in boot(host).log()


@lonely_and_held
def test_a_pipe_in_the_place_of_the_kernel_log_takes_no_record(host: Host, pipes: Callable[[str], None]) -> None:
    pipes("/dev/kmsg")
    host.debug_configuration("a:::true")
    syslog = host.syslog()
    boot(host)
    assert syslog.texts(WARNING) == [f"Exception occurred while logging msg: /dev/kmsg: {NO_PARTNER}"] * 2


@lonely_and_held
def test_a_pipe_in_the_place_of_the_debug_configuration_has_no_entries(host: Host, pipes: Callable[[str], None]) -> None:
    pipes("/etc/tessel/lofter/debug.conf")
    outcome = boot(host)
    assert [line for line in outcome.log() if not line.startswith("info ")] == []


def test_a_pipe_in_the_place_of_the_log_socket_takes_scripts_errors_if_somebody_reads(host: Host) -> None:
    lonely = Pipe(host, "/dev/log", has_partner=False)
    daemon(host)
    host.write_script("/etc/init.d/one", "echo ran >>/tmp/daemon; echo error >&2")
    boot(host, "--daemon=wait", "--method=start")
    lonely.close()
    held = Pipe(host, "/dev/log", has_partner=True)
    boot(host, "--daemon=wait", "--method=start")
    assert held.partner is not None
    assert os.read(held.partner, 100) == b"error\n"
    held.close()
    assert host.read("/tmp/daemon") == "ran\nran\n"


# What is missing altogether.

closed_streams = pytest.mark.parametrize("closed", ["<&-", "<&- 2>&-", "<&- >&- 2>&-"])


@closed_streams
@pytest.mark.parametrize("mode", [[], ["--init"]], ids=["plain", "boot"])
def test_a_run_without_standard_streams_and_null_device_ends(host: Host, closed: str, mode: list[str]) -> None:
    host.path("/dev/null").unlink()
    command(host, "note", "true")
    outcome = host.run("sh", "-c", f"exec lofter {' '.join(mode)} {closed}", timeout=40, grace=10)
    assert (outcome.status, outcome.leftovers) == (0, [])
    assert " sysboot: note\n" in host.read(PROFILE)


@closed_streams
def test_nothing_that_a_run_opens_becomes_a_standard_stream(host: Host, closed: str) -> None:
    host.path("/dev/null").unlink()
    host.debug_configuration("a:::ls -l /proc/$$/fd >/tmp/descriptors")
    assert host.run("sh", "-c", f"exec lofter {closed}", timeout=40, grace=10).status == 0
    assert re.search(" 0 -> /\n", host.read("/tmp/descriptors"))


@pytest.mark.parametrize("mode", [["--plugin-directory=rel"], ["--init", "--plugin-directory=rel"],
                                  ["--plugin-directory=rel", "--plugin=notes.txt"]], ids=["plain", "boot", "listed"])
def test_a_relative_plugin_directory_without_a_current_one_cannot_be_enumerated(host: Host, mode: list[str]) -> None:
    host.write("/rel/notes.txt", "")
    outcome = host.run("sh", "-c", f"mkdir /gone; cd /gone; rmdir /gone; exec lofter {' '.join(mode)}", grace=10)
    assert (outcome.status, outcome.leftovers) == (1, [])
    assert re.search(r" error lofter: unhandled exception whilst enumerating plugins\.\nDetails:\n .*No such file or directory.*rel.* \n",
                     outcome.output)
    assert "notes.txt" not in outcome.output
    assert "=== Lofter configuration info ===" in host.read(PROFILE)
    assert "info Executor has been Successfully Stopped" in outcome.log()


def test_an_absolute_plugin_directory_needs_no_current_one(host: Host) -> None:
    host.write("/rel/notes.txt", "")
    outcome = host.run("sh", "-c", "mkdir /gone; cd /gone; rmdir /gone; exec lofter --plugin-directory=/rel", grace=10)
    assert outcome.status == 0
    assert "warning ignoring plugin 'notes.txt' of unknown type (txt)..." in outcome.log()


@pytest.mark.parametrize("mode, section", [
    (["--daemon", "--method=start"], " End Daemon: "), (["--init"], " End: "), ([], " End: ")], ids=["daemons", "boot", "plain"])
def test_a_dump_whose_reader_is_gone_ends_as_any_other(host: Host, mode: list[str], section: str) -> None:
    daemon(host)
    host.write(PROFILE, "old\n")
    reader, writer = os.pipe()
    os.close(reader)
    with os.fdopen(writer, "wb") as output:
        outcome = host.lofter(*mode, "--dump-dependency-tree", stdout=output)
    assert (outcome.status, outcome.leftovers) == (0, [])
    assert section in host.read(PROFILE)


# The alert.

@pytest.mark.parametrize("parallel", [[], ["--parallel"]], ids=["serial", "parallel"])
def test_the_alert_names_every_missing_barrier_of_the_last_run(host: Host, parallel: list[str]) -> None:
    host.debug_configuration("a:one::true", "b:two:out:true", "c:out,three::true")
    syslog = host.syslog()
    assert host.lofter(*parallel).status == 0
    raised = syslog.texts(ALERT)
    assert sorted(re.findall(r'barrier "(\w+)" is', "\n".join(raised))) == ["one", "three", "two"]
    assert host.read(ALERT_FILE).splitlines() == raised
    host.restart()
    host.debug_configuration("a:four::true")
    assert host.lofter(*parallel).status == 0
    assert host.read(ALERT_FILE).splitlines() == syslog.texts(ALERT)[3:]
    host.restart()
    host.debug_configuration("a:::true")
    assert host.lofter(*parallel).status == 0
    assert host.read(ALERT_FILE).splitlines() == syslog.texts(ALERT)[3:]
