"""The command executor seen from outside: its life, its wire, and what commands can do to it."""
import errno
import json
import os
import re
import socket
import struct
import threading

import pytest

from support.host import BUILD
from support.syslog import ERROR, INFO, WARNING
from support.waiting import Eventually

COMMANDS = "/usr/lib/tessel/qorcli"
SOCKET = "/var/run/tessel/lofterExecutor.sock"
LOG = "/var/log/lofter-qorcli-stdout.log"
RESET = "Setting up Executor - Reset Requested"
SERVING = "Executor Reset - polling for commands"
GONE = "Failed to recieve command status from Executor: "
UNSENT = "Failed sending command to executor: "
GAVE_UP = "Could not connect to Executor:"


def Document(start, requires=(), provides=()):
    return json.dumps({"metadata": {"version": 1, "requires": list(requires), "provides": list(provides)},
                       "operations": {"start": list(start)}})


def Notes(host):
    return host.Read("/tmp/notes").splitlines() if host.Exists("/tmp/notes") else []


@pytest.fixture
def commands(host):
    """`note --text=...` adds a line to /tmp/notes. `hold` waits until the test releases it."""
    host.WriteScript(f"{COMMANDS}/note", 'echo "${1#--text=}" >>/tmp/notes')
    host.WriteScript(f"{COMMANDS}/hold", "echo holding >>/tmp/notes; read line </tmp/go")
    host.Run("mkfifo", "/tmp/go")
    return host


class Held:
    """A boot whose executor is kept busy by the command `hold` of the plugin named `hold`."""

    def __init__(self, host, *after, **settings):
        host.Plugin("hold.json", Document(["hold", *after], provides=["held"]))
        self.host = host
        self.syslog = host.Syslog()
        self.running = host.StartLofter(grace=10, **settings)
        Eventually(lambda: "holding" in Notes(host), "the command runs", 30)

    def Connect(self):
        connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        directory = os.open(self.host.Path(SOCKET).parent.resolve(), os.O_PATH)
        try:
            # The path of a test's root may be longer than a socket's name can be.
            connection.connect(f"/proc/self/fd/{directory}/{os.path.basename(SOCKET)}")
        finally:
            os.close(directory)
        connection.settimeout(30)  # not before: a full backlog would refuse the connection instead of making it wait
        return connection

    def Send(self, message):
        """Sends one message; the answer comes when the executor gets to it."""
        connection = self.Connect()
        connection.sendall(message)
        return connection

    def Release(self):
        with open(self.host.Path("/tmp/go"), "w") as stream:
            stream.write("\n")

    def ReleaseIfHeld(self):
        try:
            go = os.open(self.host.Path("/tmp/go"), os.O_WRONLY | os.O_NONBLOCK)
        except OSError as error:
            assert error.errno == errno.ENXIO  # nobody waits right now
            return
        os.write(go, b"\n")
        os.close(go)

    def Finish(self, **settings):
        outcome = self.running.Finish(**settings)
        assert (outcome.status, outcome.leftovers) == (0, [])
        return outcome


def Status(connection):
    """The answer: a status, or None for the end of the connection without one."""
    try:
        data = connection.recv(16)
    except ConnectionResetError:
        data = b""
    return struct.unpack("=i", data)[0] if data else None


def Boot(host, *arguments, **settings):
    settings.setdefault("grace", 10)
    outcome = host.Lofter(*arguments, **settings)
    assert (outcome.status, outcome.leftovers) == (0, [])
    return outcome


# Life.

def test_the_executor_is_started_and_stopped_around_the_run(commands):
    syslog = commands.Syslog()
    Boot(commands)
    lines = syslog.Texts(INFO)
    wanted = ["Launching Executor", RESET, SERVING, "Lofter executor signalled to stop",
              "Executor has been Successfully Stopped"]
    assert sorted(line for line in lines if line in wanted) == sorted(wanted)
    # The process and its client log on their own, so only these are in an order.
    assert lines.index("Launching Executor") < lines.index(RESET) < lines.index(SERVING)
    assert commands.Exists(SOCKET)


def test_a_dump_starts_and_stops_the_executor_too(commands):
    syslog = commands.Syslog()
    Boot(commands, "--dump-dependency-tree")
    assert RESET in syslog.Texts(INFO)
    assert "Executor has been Successfully Stopped" in syslog.Texts(INFO)


def test_a_stale_socket_file_makes_the_start_fail(commands):
    commands.Write("/run/tessel/lofterExecutor.sock", "")
    syslog = commands.Syslog()
    outcome = commands.Lofter(grace=10)
    assert (outcome.status, outcome.leftovers) == (1, [])
    assert syslog.Texts(ERROR) == ["Unable to start executor: Failed to bind to executor control socket: Address already in use"]
    assert syslog.Texts(WARNING) == ["Failed to start executor Lofter executor failed to start"]


def test_a_missing_run_directory_makes_the_start_fail(commands):
    commands.Path("/run/tessel").rmdir()
    syslog = commands.Syslog()
    outcome = commands.Lofter(grace=10)
    assert (outcome.status, outcome.leftovers) == (1, [])
    assert syslog.Texts(ERROR) == ["Unable to start executor: Failed to bind to executor control socket: No such file or directory"]


def test_the_output_of_commands_is_in_the_log_file(commands):
    commands.WriteScript(f"{COMMANDS}/talk", "echo said; echo warned >&2")
    commands.Plugin("talk.json", Document(["talk"]))
    Boot(commands)
    lines = commands.Read(LOG).splitlines()
    assert "said" in lines and "warned" in lines
    assert commands.Path(LOG).stat().st_mode & 0o777 == 0o644


def test_a_full_disk_under_the_log_file_does_not_matter(commands):
    commands.WriteScript(f"{COMMANDS}/talk", "head -c 1000000 /dev/zero; echo done >>/tmp/notes; exit 0")
    commands.Plugin("talk.json", Document(["talk", "note --text=after"]))
    Boot(commands, tmpfs=[("/var/log", "16k")])
    assert Notes(commands) == ["done", "after"]


def test_a_missing_log_directory_costs_a_warning(commands):
    commands.Path("/var/log").rmdir()
    commands.Plugin("note.json", Document(["note --text=ran"]))
    syslog = commands.Syslog()
    Boot(commands)
    assert Notes(commands) == ["ran"]
    assert f"Failed opening log file {LOG}" in syslog.Texts(WARNING)


# Commands.

def test_missing_command_directories_are_logged_and_the_others_serve(commands):
    for folder in ("int/ext", "int"):
        commands.Path(f"{COMMANDS}/{folder}").rmdir()
    commands.WriteScript(f"{COMMANDS}/ext/last", "echo last >>/tmp/notes")
    commands.Plugin("note.json", Document(["note --text=ran", "last"]))
    syslog = commands.Syslog()
    Boot(commands)
    assert Notes(commands) == ["ran", "last"]
    errors = [line for line in syslog.Texts(ERROR) if line.startswith("unable to add external directory to the qorcli dispatcher: ")]
    assert [re.search(r"\[(.*)\]|\"(.*)\"", line).group(1) for line in errors] == [
        f"{COMMANDS}/int", f"{COMMANDS}/int/ext"]


def test_the_first_directory_wins(commands):
    commands.WriteScript(f"{COMMANDS}/ext/note", "echo wrong >>/tmp/notes")
    commands.WriteScript(f"{COMMANDS}/int/ext/other", "echo other >>/tmp/notes")
    commands.Plugin("note.json", Document(["note --text=right", "other"]))
    Boot(commands)
    assert Notes(commands) == ["right", "other"]


def test_every_error_of_a_failed_command_is_a_line(commands):
    commands.WriteScript(f"{COMMANDS}/fail", "echo one >&2; echo two >&2; exit 1")
    commands.Plugin("fail.json", Document(["fail --x=1"]))
    syslog = commands.Syslog()
    Boot(commands)
    assert syslog.Texts(ERROR)[:3] == [
        "execution of 'fail --x=1' failed : one", "execution of 'fail --x=1' failed : two",
        "Executor failed executing qorcli command: fail --x=1"]


def test_every_parse_error_is_a_line(commands):
    commands.Plugin("bad.json", Document(["note --x y -z", "", "no such command"]))
    syslog = commands.Syslog()
    Boot(commands)
    assert syslog.Texts(ERROR)[:7] == [
        "Executor was unable to parse command: word after the first option: y",
        "Executor was unable to parse command: not of the form --name or --name=value: -z",
        "Executor failed executing qorcli command: note --x y -z",
        "Executor was unable to parse command: empty command",
        "Executor failed executing qorcli command: ",
        "execution of 'no such command' failed : unknown command: no such command",
        "Executor failed executing qorcli command: no such command"]


def test_help_lists_the_commands_in_the_log(commands):
    commands.Plugin("help.json", Document(["note --text=x", "anything --help"]))
    Boot(commands)
    assert "commands:\n  hold\n  note\n" in commands.Read(LOG)


def test_the_executor_keeps_its_directory_and_commands_have_no_descriptors_but_their_own(commands):
    commands.WriteScript(f"{COMMANDS}/look", "pwd >>/tmp/notes; ls /proc/self/fd | wc -w >>/tmp/notes; cat | wc -c >>/tmp/notes; "
                                             'grep -c "SigIgn:.*[1-9a-f]...$" /proc/self/status >>/tmp/notes')
    commands.Plugin("look.json", Document(["look"]))
    Boot(commands)
    assert Notes(commands) == ["/", "4", "0", "0"]


def test_a_boot_ends_when_the_executor_has_no_descriptor_left_for_a_connection(commands):
    """With a descriptor more each time, until all are used up by what the executor needs before its first connection."""
    for number in range(5):
        commands.Plugin(f"note{number}.json", Document(["note --text=ran"] * 2))
    log = ""
    for limit in range(12, 40):
        commands.Restart()
        commands.Write(LOG, "")
        outcome = commands.Run("sh", "-c", f"ulimit -n {limit}; exec /usr/sbin/lofter", timeout=60, grace=10)
        assert (outcome.status, outcome.leftovers) == (0, []), limit
        log = commands.Read(LOG)
        assert len(log) < 50_000, log[:5000]
        if "Error accepting connection on contol socket - Too many open files" in log:
            break
    assert "Error accepting connection" in log
    assert outcome.output.count("->start() failed: error while executing the cli") == 5


# Commands that misbehave.

def AwaitTheExecutorsEnd(host, barrier):
    """A plugin between the barrier and the barrier "gone". The executor is in /tmp/executor; a dying one may still take a connection."""
    host.WriteScript("/usr/bin/await-end", "while [ -d /proc/$(cat /tmp/executor) ]; do :; done")
    host.DebugConfiguration(f"waiter:{barrier}:gone:await-end")


def NoteOnceTheExecutorIsGone(host, barrier):
    AwaitTheExecutorsEnd(host, barrier)
    host.Plugin("late.json", Document(["note --text=after"], requires=["gone"]))


def test_a_command_that_kills_the_executor_fails_and_so_do_all_further_ones(commands):
    commands.WriteScript(f"{COMMANDS}/kill", "echo $PPID >/tmp/executor; kill -9 $PPID")
    commands.Plugin("kill.json", Document(["note --text=before", "kill"], provides=["killed"]))
    NoteOnceTheExecutorIsGone(commands, "killed")
    syslog = commands.Syslog()
    Boot(commands)
    assert Notes(commands) == ["before"]
    errors = syslog.Texts(ERROR)
    assert errors[0] == GONE + "Connection reset by peer"
    assert errors.count("Resetting Executor failed, retrying: Lofter executor failed to start") == 10
    assert errors.count("Failed connecting to executor Connection refused") == 10
    assert GAVE_UP + "Connection refused" in errors
    assert "Executor already gone." in syslog.Texts(INFO)


def test_a_command_that_kills_the_executor_and_removes_its_socket_gets_a_new_one(commands):
    commands.WriteScript(f"{COMMANDS}/kill", f"rm {SOCKET}; kill -9 $PPID")
    commands.Plugin("kill.json", Document(["kill", "note --text=after"]))
    syslog = commands.Syslog()
    Boot(commands)
    assert Notes(commands) == ["after"]
    assert syslog.Texts(INFO).count(RESET) == 2
    assert "Executor has been Successfully Stopped" in syslog.Texts(INFO)


@pytest.fixture
def killer(commands):
    """The program end-executor kills the executor, known by its output among the processes of the root, and sees it gone."""
    commands.WriteScript("/usr/bin/end-executor", f"""
        for process in /proc/[0-9]*; do
            [ "$(readlink $process/fd/1)" = {LOG} ] || continue
            kill -9 ${{process#/proc/}}
            while [ -d $process ]; do :; done
        done""")
    return commands


def test_an_executor_that_is_killed_before_the_first_command(killer):
    killer.DebugConfiguration(f"killer::killed:end-executor; rm {SOCKET}")
    killer.Plugin("note.json", Document(["note --text=ran"], requires=["killed"]))
    syslog = killer.Syslog()
    Boot(killer)
    assert Notes(killer) == ["ran"]
    assert syslog.Texts(INFO).count(RESET) == 2


def test_an_executor_that_is_killed_after_a_command(killer):
    killer.DebugConfiguration("killer:first:killed:end-executor")
    killer.Plugin("first.json", Document(["note --text=first"], provides=["first"]))
    killer.Plugin("second.json", Document(["note --text=second"], requires=["killed"]))
    syslog = killer.Syslog()
    Boot(killer)
    # Its socket file is still there, so there is no other executor.
    assert Notes(killer) == ["first"]
    errors = syslog.Texts(ERROR)
    assert errors.count("Unable to start executor: Failed to bind to executor control socket: Address already in use") == 10
    assert GAVE_UP + "Connection refused" in errors
    assert "Executor already gone." in syslog.Texts(INFO)


def test_a_command_that_closes_its_output_is_waited_for(commands):
    commands.WriteScript(f"{COMMANDS}/mute", "exec >&- 2>&-; sleep 0.2; echo done >>/tmp/notes; exit 5")
    commands.Plugin("mute.json", Document(["mute"]))
    syslog = commands.Syslog()
    Boot(commands)
    assert Notes(commands) == ["done"]
    assert "execution of 'mute' failed : exited with status 5" in syslog.Texts(ERROR)


def test_a_command_that_writes_100_megabytes_to_standard_error(commands):
    commands.WriteScript(f"{COMMANDS}/flood", "yes this is a line of the flood | head -c 100000000 >&2; exit 1")
    commands.Plugin("flood.json", Document(["flood", "note --text=after"]))
    syslog = commands.Syslog()
    Boot(commands, timeout=120)
    assert Notes(commands) == ["after"]
    lines = [line for line in syslog.Texts(ERROR) if line.startswith("execution of 'flood' failed : ")]
    assert 1000 < len(lines) < 5000
    assert lines[-1].endswith(" more bytes of standard error dropped)")


def test_a_background_child_does_not_hold_up_the_answer_and_its_words_are_kept(commands):
    commands.WriteScript(f"{COMMANDS}/daemon", "(read line </tmp/go; echo late words >&2; echo end >>/tmp/notes) & exit 0")
    commands.Plugin("daemon.json", Document(["daemon", "note --text=meanwhile"]))
    running = commands.StartLofter(grace=0, wait=True)
    Eventually(lambda: "meanwhile" in Notes(commands), "the next command runs", 30)
    assert "end" not in Notes(commands)
    with open(commands.Path("/tmp/go"), "w") as stream:
        stream.write("\n")
    outcome = running.Finish()
    assert (outcome.status, outcome.leftovers) == (0, [])
    assert Notes(commands) == ["meanwhile", "end"]
    assert "late words" in commands.Read(LOG).splitlines()


def test_a_command_killed_by_a_signal(commands):
    commands.WriteScript(f"{COMMANDS}/die", "kill -TERM $$")
    commands.Plugin("die.json", Document(["die"]))
    syslog = commands.Syslog()
    Boot(commands)
    assert "execution of 'die' failed : killed by signal 15" in syslog.Texts(ERROR)


# The wire.

@pytest.mark.parametrize("length", [1023, 1024, 2000])
def test_a_message_is_read_up_to_1023_bytes(commands, length):
    head = "note --text="
    held = Held(commands)
    connection = held.Send((head + "x" * (length - len(head))).encode())
    held.Release()
    assert Status(connection) == 0
    held.Finish()
    assert Notes(commands)[1:] == ["x" * (1023 - len(head))]


def test_twenty_connections_wait_while_a_command_runs(commands):
    held = Held(commands, *["hold"] * 8)
    statuses = []
    # The backlog takes most of them at once; the others get in when the command has ended.
    clients = [threading.Thread(target=lambda number=number: statuses.append(
        Status(held.Send(f"note --text={number}".encode()))), daemon=True) for number in range(20)]
    for client in clients:
        client.start()
    assert (len(statuses), Notes(commands)) == (0, ["holding"])
    Eventually(lambda: held.ReleaseIfHeld() or len(statuses) == 20, "all are answered", 60)
    for client in clients:
        client.join()
    Eventually(lambda: held.ReleaseIfHeld() or not held.running.IsRunning(), "the boot ends", 60)
    held.Finish()
    assert statuses == [0] * 20
    assert sorted(int(note) for note in Notes(commands) if note != "holding") == list(range(20))


def test_a_client_that_connects_and_says_nothing_is_an_empty_command_once_it_goes(commands):
    held = Held(commands, "note --text=after")
    silent = held.Connect()
    held.Release()
    assert not Notes(commands)[1:]
    silent.close()
    held.Finish()
    assert Notes(commands) == ["holding", "after"]
    assert "Executor was unable to parse command: empty command" in held.syslog.Texts(ERROR)
    assert "Sending command status to lofter failed" in held.syslog.Texts(WARNING)


def test_a_client_that_shuts_its_sending_side_is_answered(commands):
    held = Held(commands)
    connection = held.Connect()
    connection.shutdown(socket.SHUT_WR)
    held.Release()
    assert Status(connection) == 1
    held.Finish()


def test_a_client_that_sends_one_byte_at_a_time_is_heard_once(commands):
    held = Held(commands)
    connection = held.Connect()
    held.Release()
    connection.sendall(b"n")
    assert Status(connection) == 1
    held.Finish()
    assert "execution of 'n' failed : unknown command: n" in held.syslog.Texts(ERROR)


@pytest.mark.parametrize("word", [b"stop", b"STOP", b"Stop", b"sToP", b"stopwatch start --now"])
def test_stop_in_any_case_and_as_a_prefix_ends_the_executor(commands, word):
    commands.WriteScript(f"{COMMANDS}/hold", "echo $PPID >/tmp/executor; echo holding >>/tmp/notes; read line </tmp/go")
    AwaitTheExecutorsEnd(commands, "held")
    held = Held(commands)
    connection = held.Send(word)
    held.Release()
    assert Status(connection) is None
    outcome = held.Finish()
    assert "Lofter executor signalled to stop" in held.syslog.Texts(INFO)
    assert "Executor already gone." in held.syslog.Texts(INFO)
    assert outcome.status == 0


def test_a_json_command_that_begins_with_stop_ends_the_executor(commands):
    commands.Plugin("stop.json", Document(["stopwatch start", "note --text=after"]))
    syslog = commands.Syslog()
    Boot(commands)
    assert Notes(commands) == []
    errors = syslog.Texts(ERROR)
    # The next command meets the executor's socket closed, or still open with nobody to serve it, or sees it closed on it.
    assert errors[0] == GONE + "Connection reset by peer"
    assert errors[-2] in (GONE + "Connection reset by peer", GAVE_UP + "Connection refused", UNSENT + "Broken pipe")
    assert "Method invocation failed: stop->start() failed: error while executing the cli" in errors


def test_the_executor_killed_while_a_command_runs(commands):
    commands.Run("mkfifo", "/tmp/kill")
    commands.WriteScript(f"{COMMANDS}/hold", """
        parent=$PPID
        echo $parent >/tmp/executor
        (read line </tmp/kill; kill -9 $parent) &
        echo holding >>/tmp/notes; read line </tmp/go""")
    NoteOnceTheExecutorIsGone(commands, "held")
    held = Held(commands)
    with open(commands.Path("/tmp/kill"), "w") as stream:
        stream.write("\n")
    # The client learns of it while the command is still running.
    held.syslog.WaitFor(GAVE_UP + "Connection refused", 30)
    assert held.syslog.Texts(ERROR)[0] == GONE + "Connection reset by peer"
    Eventually(lambda: held.ReleaseIfHeld() or not held.running.IsRunning(), "the command and the boot end", 30)
    held.Finish()
    assert Notes(commands) == ["holding"]


def test_the_replay_of_the_control_sockets_corpus_runs_no_command_of_the_host(commands):
    """Whoever tests lofter on a machine that boots with it."""
    commands.Write("/corpus/patient", "\0note --text=run")
    outcome = commands.Run("/replay", "/corpus", bind=[(BUILD / "tests/fuzz/control-socket", "/replay")])
    assert (outcome.status, outcome.errors) == (0, "")
    assert outcome.output.endswith("1 files\n")
    assert Notes(commands) == []
