"""The command executor seen from outside: its life, its wire, and what commands can do to it."""
import errno
import json
import os
import re
import socket
import struct
import threading
from collections.abc import Sequence
from typing import Any

import pytest

from lofterdev.host import BUILD, Host, Outcome
from lofterdev.syslog import ERROR, INFO, WARNING
from lofterdev.waiting import eventually

COMMANDS = "/usr/lib/tessel/qorcli"
SOCKET = "/var/run/tessel/lofterExecutor.sock"
LOG = "/var/log/lofter-qorcli-stdout.log"
RESET = "Setting up Executor - Reset Requested"
SERVING = "Executor Reset - polling for commands"
GONE = "Failed to recieve command status from Executor: "
UNSENT = "Failed sending command to executor: "
GAVE_UP = "Could not connect to Executor:"


def document(start: list[str], requires: Sequence[str] = (), provides: Sequence[str] = ()) -> str:
    return json.dumps({"metadata": {"version": 1, "requires": list(requires), "provides": list(provides)},
                       "operations": {"start": list(start)}})


def read_notes(host: Host) -> list[str]:
    return host.read("/tmp/notes").splitlines() if host.exists("/tmp/notes") else []


@pytest.fixture
def commands(host: Host) -> Host:
    """`note --text=...` adds a line to /tmp/notes. `hold` waits until the test releases it."""
    host.write_script(f"{COMMANDS}/note", 'echo "${1#--text=}" >>/tmp/notes')
    host.write_script(f"{COMMANDS}/hold", "echo holding >>/tmp/notes; read line </tmp/go")
    host.run("mkfifo", "/tmp/go")
    return host


class Held:
    """A boot whose executor is kept busy by the command `hold` of the plugin named `hold`."""

    def __init__(self, host: Host, *after: str, **settings: Any) -> None:
        host.plugin("hold.json", document(["hold", *after], provides=["held"]))
        self.host = host
        self.syslog = host.syslog()
        self.running = host.start_lofter(grace=10, **settings)
        eventually(lambda: "holding" in read_notes(host), "the command runs", 30)

    def connect(self) -> socket.socket:
        connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        directory = os.open(self.host.path(SOCKET).parent.resolve(), os.O_PATH)
        try:
            # The path of a test's root may be longer than a socket's name can be.
            connection.connect(f"/proc/self/fd/{directory}/{os.path.basename(SOCKET)}")
        finally:
            os.close(directory)
        connection.settimeout(30)  # not before: a full backlog would refuse the connection instead of making it wait
        return connection

    def send(self, message: bytes) -> socket.socket:
        """Sends one message; the answer comes when the executor gets to it."""
        connection = self.connect()
        connection.sendall(message)
        return connection

    def release(self) -> None:
        with open(self.host.path("/tmp/go"), "w") as stream:
            stream.write("\n")

    def release_until(self, fact: bool) -> bool:
        """Releases whoever is held, as long as the fact is none."""
        try:
            go = os.open(self.host.path("/tmp/go"), os.O_WRONLY | os.O_NONBLOCK)
        except OSError as error:
            assert error.errno == errno.ENXIO  # nobody waits right now
            return fact
        os.write(go, b"\n")
        os.close(go)
        return fact

    def finish(self, **settings: Any) -> Outcome:
        outcome = self.running.finish(**settings)
        assert (outcome.status, outcome.leftovers) == (0, [])
        return outcome


def status(connection: socket.socket) -> int | None:
    """The answer: a status, or None for the end of the connection without one."""
    try:
        data = connection.recv(16)
    except ConnectionResetError:
        data = b""
    return struct.unpack("=i", data)[0] if data else None


def boot(host: Host, *arguments: str, **settings: Any) -> Outcome:
    settings.setdefault("grace", 10)
    outcome = host.lofter(*arguments, **settings)
    assert (outcome.status, outcome.leftovers) == (0, [])
    return outcome


# Life.

def test_the_executor_is_started_and_stopped_around_the_run(commands: Host) -> None:
    syslog = commands.syslog()
    boot(commands)
    lines = syslog.texts(INFO)
    wanted = ["Launching Executor", RESET, SERVING, "Lofter executor signalled to stop",
              "Executor has been Successfully Stopped"]
    assert sorted(line for line in lines if line in wanted) == sorted(wanted)
    # The process and its client log on their own, so only these are in an order.
    assert lines.index("Launching Executor") < lines.index(RESET) < lines.index(SERVING)
    assert commands.exists(SOCKET)


def test_a_dump_starts_and_stops_the_executor_too(commands: Host) -> None:
    syslog = commands.syslog()
    boot(commands, "--dump-dependency-tree")
    assert RESET in syslog.texts(INFO)
    assert "Executor has been Successfully Stopped" in syslog.texts(INFO)


def test_a_stale_socket_file_makes_the_start_fail(commands: Host) -> None:
    commands.write("/run/tessel/lofterExecutor.sock", "")
    syslog = commands.syslog()
    outcome = commands.lofter(grace=10)
    assert (outcome.status, outcome.leftovers) == (1, [])
    assert syslog.texts(ERROR) == ["Unable to start executor: Failed to bind to executor control socket: Address already in use"]
    assert syslog.texts(WARNING) == ["Failed to start executor Lofter executor failed to start"]


def test_a_missing_run_directory_makes_the_start_fail(commands: Host) -> None:
    commands.path("/run/tessel").rmdir()
    syslog = commands.syslog()
    outcome = commands.lofter(grace=10)
    assert (outcome.status, outcome.leftovers) == (1, [])
    assert syslog.texts(ERROR) == ["Unable to start executor: Failed to bind to executor control socket: No such file or directory"]


def test_the_output_of_commands_is_in_the_log_file(commands: Host) -> None:
    commands.write_script(f"{COMMANDS}/talk", "echo said; echo warned >&2")
    commands.plugin("talk.json", document(["talk"]))
    boot(commands)
    lines = commands.read(LOG).splitlines()
    assert "said" in lines and "warned" in lines
    assert commands.path(LOG).stat().st_mode & 0o777 == 0o644


def test_a_full_disk_under_the_log_file_does_not_matter(commands: Host) -> None:
    commands.write_script(f"{COMMANDS}/talk", "head -c 1000000 /dev/zero; echo done >>/tmp/notes; exit 0")
    commands.plugin("talk.json", document(["talk", "note --text=after"]))
    boot(commands, tmpfs=[("/var/log", "16k")])
    assert read_notes(commands) == ["done", "after"]


def test_a_missing_log_directory_costs_a_warning(commands: Host) -> None:
    commands.path("/var/log").rmdir()
    commands.plugin("note.json", document(["note --text=ran"]))
    syslog = commands.syslog()
    boot(commands)
    assert read_notes(commands) == ["ran"]
    assert f"Failed opening log file {LOG}" in syslog.texts(WARNING)


# Commands.

def test_missing_command_directories_are_logged_and_the_others_serve(commands: Host) -> None:
    for folder in ("int/ext", "int"):
        commands.path(f"{COMMANDS}/{folder}").rmdir()
    commands.write_script(f"{COMMANDS}/ext/last", "echo last >>/tmp/notes")
    commands.plugin("note.json", document(["note --text=ran", "last"]))
    syslog = commands.syslog()
    boot(commands)
    assert read_notes(commands) == ["ran", "last"]
    errors = [line for line in syslog.texts(ERROR) if line.startswith("unable to add external directory to the qorcli dispatcher: ")]
    assert [re.search(r"\[(.*)\]|\"(.*)\"", line).group(1) for line in errors] == [
        f"{COMMANDS}/int", f"{COMMANDS}/int/ext"]


def test_the_first_directory_wins(commands: Host) -> None:
    commands.write_script(f"{COMMANDS}/ext/note", "echo wrong >>/tmp/notes")
    commands.write_script(f"{COMMANDS}/int/ext/other", "echo other >>/tmp/notes")
    commands.plugin("note.json", document(["note --text=right", "other"]))
    boot(commands)
    assert read_notes(commands) == ["right", "other"]


def test_every_error_of_a_failed_command_is_a_line(commands: Host) -> None:
    commands.write_script(f"{COMMANDS}/fail", "echo one >&2; echo two >&2; exit 1")
    commands.plugin("fail.json", document(["fail --x=1"]))
    syslog = commands.syslog()
    boot(commands)
    assert syslog.texts(ERROR)[:3] == [
        "execution of 'fail --x=1' failed : one", "execution of 'fail --x=1' failed : two",
        "Executor failed executing qorcli command: fail --x=1"]


def test_every_parse_error_is_a_line(commands: Host) -> None:
    commands.plugin("bad.json", document(["note --x y -z", "", "no such command"]))
    syslog = commands.syslog()
    boot(commands)
    assert syslog.texts(ERROR)[:7] == [
        "Executor was unable to parse command: word after the first option: y",
        "Executor was unable to parse command: not of the form --name or --name=value: -z",
        "Executor failed executing qorcli command: note --x y -z",
        "Executor was unable to parse command: empty command",
        "Executor failed executing qorcli command: ",
        "execution of 'no such command' failed : unknown command: no such command",
        "Executor failed executing qorcli command: no such command"]


def test_help_lists_the_commands_in_the_log(commands: Host) -> None:
    commands.plugin("help.json", document(["note --text=x", "anything --help"]))
    boot(commands)
    assert "commands:\n  hold\n  note\n" in commands.read(LOG)


def test_the_executor_keeps_its_directory_and_commands_have_no_descriptors_but_their_own(commands: Host) -> None:
    commands.write_script(f"{COMMANDS}/look", "pwd >>/tmp/notes; ls /proc/self/fd | wc -w >>/tmp/notes; cat | wc -c >>/tmp/notes; "
                                             'grep -c "SigIgn:.*[1-9a-f]...$" /proc/self/status >>/tmp/notes')
    commands.plugin("look.json", document(["look"]))
    boot(commands)
    assert read_notes(commands) == ["/", "4", "0", "0"]


def test_a_boot_ends_when_the_executor_has_no_descriptor_left_for_a_connection(commands: Host) -> None:
    """With a descriptor more each time, until all are used up by what the executor needs before its first connection."""
    for number in range(5):
        commands.plugin(f"note{number}.json", document(["note --text=ran"] * 2))
    log = ""
    for limit in range(12, 40):
        commands.restart()
        commands.write(LOG, "")
        outcome = commands.run("sh", "-c", f"ulimit -n {limit}; exec /usr/sbin/lofter", timeout=60, grace=10)
        assert (outcome.status, outcome.leftovers) == (0, []), limit
        log = commands.read(LOG)
        assert len(log) < 50_000, log[:5000]
        if "Error accepting connection on contol socket - Too many open files" in log:
            break
    assert "Error accepting connection" in log
    assert outcome.output.count("->start() failed: error while executing the cli") == 5


# Commands that misbehave.

def await_the_executors_end(host: Host, barrier: str) -> None:
    """A plugin between the barrier and the barrier "gone". The executor is in /tmp/executor; a dying one may still take a connection."""
    host.write_script("/usr/bin/await-end", "while [ -d /proc/$(cat /tmp/executor) ]; do :; done")
    host.debug_configuration(f"waiter:{barrier}:gone:await-end")


def note_once_the_executor_is_gone(host: Host, barrier: str) -> None:
    await_the_executors_end(host, barrier)
    host.plugin("late.json", document(["note --text=after"], requires=["gone"]))


def test_a_command_that_kills_the_executor_fails_and_so_do_all_further_ones(commands: Host) -> None:
    commands.write_script(f"{COMMANDS}/kill", "echo $PPID >/tmp/executor; kill -9 $PPID")
    commands.plugin("kill.json", document(["note --text=before", "kill"], provides=["killed"]))
    note_once_the_executor_is_gone(commands, "killed")
    syslog = commands.syslog()
    boot(commands)
    assert read_notes(commands) == ["before"]
    errors = syslog.texts(ERROR)
    assert errors[0] == GONE + "Connection reset by peer"
    assert errors.count("Resetting Executor failed, retrying: Lofter executor failed to start") == 10
    assert errors.count("Failed connecting to executor Connection refused") == 10
    assert GAVE_UP + "Connection refused" in errors
    assert "Executor already gone." in syslog.texts(INFO)


def test_a_command_that_kills_the_executor_and_removes_its_socket_gets_a_new_one(commands: Host) -> None:
    commands.write_script(f"{COMMANDS}/kill", f"rm {SOCKET}; kill -9 $PPID")
    commands.plugin("kill.json", document(["kill", "note --text=after"]))
    syslog = commands.syslog()
    boot(commands)
    assert read_notes(commands) == ["after"]
    assert syslog.texts(INFO).count(RESET) == 2
    assert "Executor has been Successfully Stopped" in syslog.texts(INFO)


@pytest.fixture
def killer(commands: Host) -> Host:
    """The program end-executor kills the executor, known by its output among the processes of the root, and sees it gone."""
    commands.write_script("/usr/bin/end-executor", f"""
        for process in /proc/[0-9]*; do
            [ "$(readlink $process/fd/1)" = {LOG} ] || continue
            kill -9 ${{process#/proc/}}
            while [ -d $process ]; do :; done
        done""")
    return commands


def test_an_executor_that_is_killed_before_the_first_command(killer: Host) -> None:
    killer.debug_configuration(f"killer::killed:end-executor; rm {SOCKET}")
    killer.plugin("note.json", document(["note --text=ran"], requires=["killed"]))
    syslog = killer.syslog()
    boot(killer)
    assert read_notes(killer) == ["ran"]
    assert syslog.texts(INFO).count(RESET) == 2


def test_an_executor_that_is_killed_after_a_command(killer: Host) -> None:
    killer.debug_configuration("killer:first:killed:end-executor")
    killer.plugin("first.json", document(["note --text=first"], provides=["first"]))
    killer.plugin("second.json", document(["note --text=second"], requires=["killed"]))
    syslog = killer.syslog()
    boot(killer)
    # Its socket file is still there, so there is no other executor.
    assert read_notes(killer) == ["first"]
    errors = syslog.texts(ERROR)
    assert errors.count("Unable to start executor: Failed to bind to executor control socket: Address already in use") == 10
    assert GAVE_UP + "Connection refused" in errors
    assert "Executor already gone." in syslog.texts(INFO)


def test_a_command_that_closes_its_output_is_waited_for(commands: Host) -> None:
    commands.write_script(f"{COMMANDS}/mute", "exec >&- 2>&-; sleep 0.2; echo done >>/tmp/notes; exit 5")
    commands.plugin("mute.json", document(["mute"]))
    syslog = commands.syslog()
    boot(commands)
    assert read_notes(commands) == ["done"]
    assert "execution of 'mute' failed : exited with status 5" in syslog.texts(ERROR)


def test_a_command_that_writes_100_megabytes_to_standard_error(commands: Host) -> None:
    commands.write_script(f"{COMMANDS}/flood", "yes this is a line of the flood | head -c 100000000 >&2; exit 1")
    commands.plugin("flood.json", document(["flood", "note --text=after"]))
    syslog = commands.syslog()
    boot(commands, timeout=120)
    assert read_notes(commands) == ["after"]
    lines = [line for line in syslog.texts(ERROR) if line.startswith("execution of 'flood' failed : ")]
    assert 1000 < len(lines) < 5000
    assert lines[-1].endswith(" more bytes of standard error dropped)")


def test_a_background_child_does_not_hold_up_the_answer_and_its_words_are_kept(commands: Host) -> None:
    commands.write_script(f"{COMMANDS}/daemon", "(read line </tmp/go; echo late words >&2; echo end >>/tmp/notes) & exit 0")
    commands.plugin("daemon.json", document(["daemon", "note --text=meanwhile"]))
    running = commands.start_lofter(grace=0, wait=True)
    eventually(lambda: "meanwhile" in read_notes(commands), "the next command runs", 30)
    assert "end" not in read_notes(commands)
    with open(commands.path("/tmp/go"), "w") as stream:
        stream.write("\n")
    outcome = running.finish()
    assert (outcome.status, outcome.leftovers) == (0, [])
    assert read_notes(commands) == ["meanwhile", "end"]
    assert "late words" in commands.read(LOG).splitlines()


def test_a_command_killed_by_a_signal(commands: Host) -> None:
    commands.write_script(f"{COMMANDS}/die", "kill -TERM $$")
    commands.plugin("die.json", document(["die"]))
    syslog = commands.syslog()
    boot(commands)
    assert "execution of 'die' failed : killed by signal 15" in syslog.texts(ERROR)


# The wire.

@pytest.mark.parametrize("length", [1023, 1024, 2000])
def test_a_message_is_read_up_to_1023_bytes(commands: Host, length: int) -> None:
    head = "note --text="
    held = Held(commands)
    connection = held.send((head + "x" * (length - len(head))).encode())
    held.release()
    assert status(connection) == 0
    held.finish()
    assert read_notes(commands)[1:] == ["x" * (1023 - len(head))]


def test_twenty_connections_wait_while_a_command_runs(commands: Host) -> None:
    held = Held(commands, *["hold"] * 8)
    statuses = []
    # The backlog takes most of them at once; the others get in when the command has ended.
    clients = [threading.Thread(target=lambda number=number: statuses.append(
        status(held.send(f"note --text={number}".encode()))), daemon=True) for number in range(20)]
    for client in clients:
        client.start()
    assert (len(statuses), read_notes(commands)) == (0, ["holding"])
    eventually(lambda: held.release_until(len(statuses) == 20), "all are answered", 60)
    for client in clients:
        client.join()
    eventually(lambda: held.release_until(not held.running.is_running()), "the boot ends", 60)
    held.finish()
    assert statuses == [0] * 20
    assert sorted(int(note) for note in read_notes(commands) if note != "holding") == list(range(20))


def test_a_client_that_connects_and_says_nothing_is_an_empty_command_once_it_goes(commands: Host) -> None:
    held = Held(commands, "note --text=after")
    silent = held.connect()
    held.release()
    assert not read_notes(commands)[1:]
    silent.close()
    held.finish()
    assert read_notes(commands) == ["holding", "after"]
    assert "Executor was unable to parse command: empty command" in held.syslog.texts(ERROR)
    assert "Sending command status to lofter failed" in held.syslog.texts(WARNING)


def test_a_client_that_shuts_its_sending_side_is_answered(commands: Host) -> None:
    held = Held(commands)
    connection = held.connect()
    connection.shutdown(socket.SHUT_WR)
    held.release()
    assert status(connection) == 1
    held.finish()


def test_a_client_that_sends_one_byte_at_a_time_is_heard_once(commands: Host) -> None:
    held = Held(commands)
    connection = held.connect()
    held.release()
    connection.sendall(b"n")
    assert status(connection) == 1
    held.finish()
    assert "execution of 'n' failed : unknown command: n" in held.syslog.texts(ERROR)


@pytest.mark.parametrize("word", [b"stop", b"STOP", b"Stop", b"sToP", b"stopwatch start --now"])
def test_stop_in_any_case_and_as_a_prefix_ends_the_executor(commands: Host, word: bytes) -> None:
    commands.write_script(f"{COMMANDS}/hold", "echo $PPID >/tmp/executor; echo holding >>/tmp/notes; read line </tmp/go")
    await_the_executors_end(commands, "held")
    held = Held(commands)
    connection = held.send(word)
    held.release()
    assert status(connection) is None
    outcome = held.finish()
    assert "Lofter executor signalled to stop" in held.syslog.texts(INFO)
    assert "Executor already gone." in held.syslog.texts(INFO)
    assert outcome.status == 0


def test_a_json_command_that_begins_with_stop_ends_the_executor(commands: Host) -> None:
    commands.plugin("stop.json", document(["stopwatch start", "note --text=after"]))
    syslog = commands.syslog()
    boot(commands)
    assert read_notes(commands) == []
    errors = syslog.texts(ERROR)
    # The next command meets the executor's socket closed, or still open with nobody to serve it, or sees it closed on it.
    assert errors[0] == GONE + "Connection reset by peer"
    assert errors[-2] in (GONE + "Connection reset by peer", GAVE_UP + "Connection refused", UNSENT + "Broken pipe")
    assert "Method invocation failed: stop->start() failed: error while executing the cli" in errors


def test_the_executor_killed_while_a_command_runs(commands: Host) -> None:
    commands.run("mkfifo", "/tmp/kill")
    commands.write_script(f"{COMMANDS}/hold", """
        parent=$PPID
        echo $parent >/tmp/executor
        (read line </tmp/kill; kill -9 $parent) &
        echo holding >>/tmp/notes; read line </tmp/go""")
    note_once_the_executor_is_gone(commands, "held")
    held = Held(commands)
    with open(commands.path("/tmp/kill"), "w") as stream:
        stream.write("\n")
    # The client learns of it while the command is still running.
    held.syslog.wait_for(GAVE_UP + "Connection refused", 30)
    assert held.syslog.texts(ERROR)[0] == GONE + "Connection reset by peer"
    eventually(lambda: held.release_until(not held.running.is_running()), "the command and the boot end", 30)
    held.finish()
    assert read_notes(commands) == ["holding"]


def test_the_replay_of_the_control_sockets_corpus_runs_no_command_of_the_host(commands: Host) -> None:
    """Whoever tests lofter on a machine that boots with it."""
    commands.write("/corpus/patient", "\0note --text=run")
    outcome = commands.run("/replay", "/corpus", bind=[(BUILD / "tests/fuzz/control-socket", "/replay")])
    assert (outcome.status, outcome.errors) == (0, "")
    assert outcome.output.endswith("1 files\n")
    assert read_notes(commands) == []
