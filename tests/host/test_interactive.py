"""The operator at the console: prompts, answers, the troubleshooting shell, and what the terminal is afterwards."""
import contextlib
import os
import re
import signal
import subprocess
import termios

import pytest

from lofterdev.host import Host, Running
from lofterdev.processes import processes_below
from lofterdev.terminal import Terminal
from lofterdev.waiting import eventually

ITEMS = {"c": b"\x1b[35m(c)ontinue\x1b[0m", "e": b"\x1b[32m(e)xecute\x1b[0m",
         "t": b"\x1b[33m(t)roubleshoot\x1b[0m", "s": b"\x1b[31m(s)kip\x1b[0m"}
PROGRESS, NO_PROGRESS = b"\r\x1b[2KActivating Lofter Plugins\r", b"\r\x1b[2K\r"
HIDE, SHOW, ERASE = b"\x1b[?25l", b"\x1b[?25h", b"\x1b[2K"
SYSLOG_DAEMON = "/usr/lib/tessel/tssyslog/bin/tssyslogd"
LOCAL = 3  # index of the local modes


def question(plugin: str) -> bytes:
    return b"current plugin: \x1b[36m" + plugin.encode() + b"\r\n" + b"\t".join(ITEMS.values()) + HIDE


def redrawn(answer: str) -> bytes:
    white = [item if key == answer else re.sub(rb"\x1b\[3\dm", b"\x1b[37m", item) for key, item in ITEMS.items()]
    return b"\r" + b"\t".join(white) + b"\r\n"


class Boot:
    """A boot of the debug plugins a, b and c, each of which leaves a line in /tmp/ran, with an operator in front of it."""

    def __init__(self, host: Host, *arguments: str, grace: float = 10) -> None:
        host.debug_configuration("a::a:echo a >>/tmp/ran", "b:a:b:echo b >>/tmp/ran", "c:b:c:echo c >>/tmp/ran")
        host.kernel_log()
        self.host, self.terminal, self.position = host, host.terminal(), 0
        self.before = self.terminal.modes()
        self.running = host.start_lofter(*arguments, terminal=self.terminal, console=True, grace=grace)

    def expect(self, text: bytes | str) -> bytes:
        start, self.position = self.position, self.terminal.expect(text, 20, self.position)
        return self.terminal.output[start:self.position]

    def wait_for_keys(self) -> list[int | list[bytes | int]]:
        """Until single keys are read; returns the terminal's modes then."""
        return eventually(lambda: (m := self.terminal.modes())[LOCAL] & termios.ICANON == 0 and m, "keys are read")

    def answer(self, plugin: str, keys: str, answer: str | None = None) -> bytes:
        """Waits for the question, types the keys; returns when the menu is redrawn for the answer."""
        self.expect(question(plugin))
        self.terminal.type(keys)
        return self.expect(SHOW + redrawn(answer or keys))

    def finish(self) -> list[str]:
        outcome = self.running.finish()
        self.rest = self.terminal.everything()[self.position:]
        assert (outcome.status, outcome.leftovers) == (0, []), self.terminal.everything()
        return self.host.read("/tmp/ran").split() if self.host.exists("/tmp/ran") else []


def test_every_plugin_is_asked_about_and_executed(host: Host) -> None:
    boot = Boot(host, "--interactive")
    for plugin in "abc":
        boot.answer(plugin, "e")
    assert boot.finish() == ["a", "b", "c"]
    assert boot.terminal.modes() == boot.before


def test_the_progress_line_makes_way_for_each_question_and_is_back_after_the_answer(host: Host) -> None:
    boot = Boot(host, "--interactive")
    assert boot.expect(question("a")).endswith(PROGRESS + NO_PROGRESS + question("a"))
    boot.terminal.type("s")
    assert boot.expect(question("b")).endswith(redrawn("s") + PROGRESS + PROGRESS + NO_PROGRESS + question("b"))
    boot.terminal.type("e")
    assert redrawn("e") + PROGRESS + PROGRESS in boot.expect(question("c"))
    boot.terminal.type("c")
    assert boot.finish() == ["b", "c"]
    assert redrawn("c") + PROGRESS + PROGRESS in boot.rest


def test_the_progress_line_is_back_after_a_shell(host: Host) -> None:
    boot = Boot(host, "--interactive")
    boot.answer("a", "t")
    boot.terminal.type("exit\n")
    assert ERASE + PROGRESS + PROGRESS in boot.expect(question("b"))
    boot.terminal.type("c")
    assert boot.finish() == ["a", "b", "c"]
    assert b"info lofter: Activating" not in boot.terminal.output


def test_the_progress_text_is_logged_once_where_the_console_is_no_terminal(host: Host) -> None:
    host.debug_configuration("a::a:true", "b:a::true")
    terminal = host.terminal()
    running = host.start_lofter("--interactive", terminal=terminal, bind=[(os.devnull, "/dev/console")])
    for plugin in "ab":
        terminal.expect(question(plugin), 20)
        terminal.type("e")
    assert running.finish().status == 0
    assert terminal.everything().count(b" info lofter: Activating Lofter Plugins\r\n") == 1


def test_the_progress_line_is_erased_where_it_is_shown(host: Host) -> None:
    host.debug_configuration("a::a:true")
    terminal, console = host.terminal(), host.terminal()
    running = host.start_lofter("--interactive", terminal=terminal, bind=[(console.path, "/dev/console")])
    terminal.expect(question("a"))
    assert NO_PROGRESS not in terminal.output
    terminal.type("c")
    assert running.finish().status == 0
    assert console.everything() == PROGRESS + PROGRESS + NO_PROGRESS + PROGRESS + PROGRESS


def test_upper_case_works_and_other_keys_are_ignored_without_an_echo(host: Host) -> None:
    boot = Boot(host, "--interactive")
    boot.expect(question("a"))
    boot.wait_for_keys()
    boot.terminal.type("xyz1\r\x04\x7fE")
    assert boot.expect(redrawn("e")) == SHOW + redrawn("e")
    boot.expect(question("b"))
    boot.terminal.type("S")
    boot.expect(redrawn("s"))
    boot.answer("c", "C", "c")
    assert boot.finish() == ["a", "c"]


def test_the_terminal_gives_single_keys_during_the_prompt_only(host: Host) -> None:
    boot = Boot(host, "--interactive")
    boot.expect(question("a"))
    during = boot.wait_for_keys()
    assert during[LOCAL] == boot.before[LOCAL] & ~(termios.ICANON | termios.ECHO)
    assert during[:LOCAL] == boot.before[:LOCAL]
    boot.terminal.type("c")
    boot.expect(redrawn("c"))
    assert boot.terminal.modes() == boot.before
    boot.finish()


def test_a_skipped_plugin_is_not_called_and_not_reported(host: Host) -> None:
    boot = Boot(host, "--interactive")
    boot.answer("a", "e")
    boot.expect(question("b"))
    boot.terminal.type("s")
    assert b"skipping plugin b (interactive mode request)\r\n" in boot.expect(redrawn("s"))
    boot.answer("c", "e")
    assert boot.finish() == ["a", "c"]
    assert "plugin b" not in host.read("/dev/kmsg")
    assert "plugin c activated" in host.read("/dev/kmsg")
    assert boot.terminal.modes() == boot.before
    # It keeps its line, with the end that it never had.
    profile = host.read("/var/log/sysboot.log")
    assert re.findall(r"\] sysboot: (\w+)$", profile, re.MULTILINE) == ["a", "b", "c"]
    assert re.findall(r" - 1970-01-01 00:00:00\.000000\] sysboot: (\w+)$", profile, re.MULTILINE) == ["b"]
    assert "\n Interactive Mode: 1\n" in profile


def test_nobody_is_asked_after_continue(host: Host) -> None:
    boot = Boot(host, "--interactive")
    boot.answer("a", "c")
    assert boot.finish() == ["a", "b", "c"]
    assert b"current plugin" not in boot.rest
    assert "\n Interactive Mode: 0\n" in host.read("/var/log/sysboot.log")


def test_answers_may_be_typed_ahead(host: Host) -> None:
    boot = Boot(host, "--interactive")
    boot.expect(question("a"))
    boot.terminal.type("ese")
    assert boot.finish() == ["a", "c"]


@pytest.mark.parametrize("end", ["exit 3\n", "kill -9 $$\n", "\x04"], ids=["exit 3", "killed", "Ctrl-D"])
def test_the_walk_goes_on_after_a_shell_however_it_ends(host: Host, end: str) -> None:
    boot = Boot(host, "--interactive")
    boot.answer("a", "t")
    boot.terminal.type("test ! -e /tmp/ran && echo in the she''ll\n")
    boot.expect("in the shell\r\n")
    boot.expect("/ # ")  # from here on it takes Ctrl-D; the terminal, which did until then, would lose it
    boot.terminal.type(end)
    boot.expect(ERASE)
    boot.answer("b", "e")
    boot.answer("c", "e")
    assert boot.finish() == ["a", "b", "c"]
    assert boot.terminal.modes() == boot.before


def test_what_was_typed_ahead_for_the_shell_reaches_it(host: Host) -> None:
    boot = Boot(host, "--interactive")
    boot.expect(question("a"))
    boot.terminal.type("techo for the she''ll; exit\n")
    boot.expect("for the shell\r\n")
    boot.answer("b", "c")
    assert boot.finish() == ["a", "b", "c"]


@pytest.mark.parametrize("requirements", [["a,b"], ["b,a,b"], ["a", "b"]], ids=str)
def test_no_prompt_before_the_requirements_were_activated(host: Host, requirements: list[str]) -> None:
    boot = Boot(host, "--interactive", *(f"--interactive-mode-requires={names}" for names in requirements))
    assert b"current plugin" not in boot.expect(question("c")).replace(question("c"), b"")
    boot.terminal.type("e")
    assert boot.finish() == ["a", "b", "c"]


def test_one_requirement_postpones_the_prompt_to_the_next_plugin(host: Host) -> None:
    boot = Boot(host, "--interactive", "--interactive-mode-requires=a")
    assert b"current plugin" not in boot.expect(question("b")).replace(question("b"), b"")
    boot.terminal.type("c")
    assert boot.finish() == ["a", "b", "c"]


def test_a_requirement_that_never_runs_keeps_the_prompt_away(host: Host) -> None:
    boot = Boot(host, "--interactive", "--interactive-mode-requires=a,never")
    assert boot.finish() == ["a", "b", "c"]
    assert b"current plugin" not in boot.rest


def test_the_last_of_parallel_and_interactive_is_in_force(host: Host) -> None:
    boot = Boot(host, "--parallel", "--interactive")
    boot.answer("a", "c")
    assert boot.finish() == ["a", "b", "c"]
    host.path("/tmp/ran").unlink()
    host.path("/run/tessel/lofterExecutor.sock").unlink()  # a boot finds the run directory empty
    boot = Boot(host, "--interactive", "--parallel")
    assert boot.finish() == ["a", "b", "c"]
    assert b"current plugin" not in boot.rest


def test_at_end_of_input_the_prompt_keeps_reading(host: Host) -> None:
    host.debug_configuration("a::a:echo a >>/tmp/ran")
    running = host.start_lofter("--interactive", stdin=open(os.devnull))
    seen = b""
    while HIDE not in seen or b"unable to set terminal io state." not in seen:
        seen += os.read(running.process.stdout.fileno(), 4096)
    with pytest.raises(AssertionError, match="still running"):
        running.finish(timeout=2)
    assert not host.exists("/tmp/ran")


# Hang-ups. The terminal controls no session, as a serial console controls none of a boot's programs.

class Line:
    """A boot of two plugins on a line that can lose its terminal and get another. The first plugin waits for the test."""

    def __init__(self, host: Host, *arguments: str) -> None:
        host.debug_configuration("a::a:echo a >>/tmp/ran; read line </tmp/go", "b:a::echo b >>/tmp/ran")
        host.run("mkfifo", "/tmp/go")
        self.host = host
        self.connect()
        self.before = self.terminal.modes()
        slave = self.terminal.slave
        self.running = host.start_lofter("--interactive", *arguments, stdin=slave, stdout=slave, stderr=slave, bind=[("/dev/pts", "/pts")])

    def connect(self) -> None:
        self.terminal = self.host.terminal()
        self.device = self.host.path("/dev/console")
        self.device.unlink(missing_ok=True)
        self.device.symlink_to(f"/pts/{os.path.basename(self.terminal.path)}")

    def hang_up(self) -> None:
        self.device.unlink()
        self.host.terminals.remove(self.terminal)
        self.terminal.close()

    def await_keys(self, plugin: str) -> None:
        self.terminal.expect(question(plugin), 30)
        eventually(lambda: self.terminal.modes()[LOCAL] & termios.ICANON == 0, "keys are read", 30)

    def end_first_plugin(self) -> None:
        self.let_go("/tmp/go")

    def let_go(self, path: str) -> None:
        def write() -> bool:
            with contextlib.suppress(OSError):  # while nobody reads
                go = os.open(self.host.path(path), os.O_WRONLY | os.O_NONBLOCK)
                os.write(go, b"\n")
                os.close(go)
                return True
            return False
        eventually(write, f"{path} is waited for", 30)

    def finish(self) -> None:
        outcome = self.running.finish()
        assert (outcome.status, outcome.leftovers) == (0, [])
        assert self.host.read("/tmp/ran") == "a\nb\n"
        assert self.terminal.modes() == self.before


def test_the_question_is_asked_again_after_a_hang_up(host: Host) -> None:
    line = Line(host)
    for _ in range(3):
        line.await_keys("a")
        line.hang_up()
        line.connect()
    line.await_keys("a")
    line.terminal.type("e")
    line.end_first_plugin()
    line.await_keys("b")
    line.terminal.type("c")
    line.finish()
    assert line.terminal.everything().count(PROGRESS) == 4  # after both answers


def test_a_hang_up_between_two_questions_costs_none_of_them(host: Host) -> None:
    line = Line(host)
    line.await_keys("a")
    line.terminal.type("e")
    eventually(lambda: host.exists("/tmp/ran"), "the first plugin runs", 30)
    line.hang_up()
    line.connect()
    line.end_first_plugin()
    line.await_keys("b")
    line.terminal.type("c")
    line.finish()
    assert b"unable to" not in line.terminal.output


def test_a_hang_up_before_the_first_question_costs_none_of_them(host: Host) -> None:
    """The launch of the syslog daemon, which comes before any question, waits for the test."""
    host.run("mkfifo", "/tmp/launch")
    host.write_script(SYSLOG_DAEMON, "echo >/tmp/launching; read line </tmp/launch")
    line = Line(host, "--init")
    eventually(lambda: host.exists("/tmp/launching"), "the syslog daemon is launched", 30)
    line.hang_up()
    line.connect()
    line.let_go("/tmp/launch")
    line.await_keys("a")
    line.terminal.type("c")
    line.end_first_plugin()
    line.finish()


def test_a_line_that_has_no_terminal_yet_is_waited_for_without_a_flood(host: Host) -> None:
    syslog = host.syslog()
    line = Line(host)
    line.await_keys("a")
    line.hang_up()
    complaint = "unable to open terminal '/dev/console' again: No such file or directory"
    syslog.wait_for(complaint, 30)
    with pytest.raises(subprocess.TimeoutExpired):  # time for many attempts
        line.running.process.wait(1)
    line.connect()
    line.await_keys("a")
    line.terminal.type("c")
    line.end_first_plugin()
    line.finish()
    assert syslog.texts().count(complaint) == 3  # one a stream


# Signals at the prompt.

def process(running: Running, terminal: Terminal) -> int:
    """The program's process id: of all that run in the root, the one that reads the terminal."""
    for process, words in processes_below(running.process.pid):
        with contextlib.suppress(OSError):
            if words[0] == "/usr/sbin/lofter" and os.readlink(f"/proc/{process}/fd/0") == terminal.path:
                return process
    raise AssertionError("not running")


ending_signals = pytest.mark.parametrize("ending", [signal.SIGTERM, signal.SIGINT, signal.SIGHUP], ids=lambda number: number.name)


@ending_signals
@pytest.mark.parametrize("prompt", ["first", "after a shell"])
def test_a_signal_that_ends_a_prompt_leaves_a_usable_terminal(host: Host, ending: int, prompt: str) -> None:
    boot = Boot(host, "--interactive", grace=0)  # the executor outlives a program that is killed: it is not waited for
    boot.expect(question("a"))
    boot.wait_for_keys()
    if prompt == "after a shell":
        boot.terminal.type("t")
        boot.expect(redrawn("t"))
        boot.terminal.type("exit\n")
        boot.expect(question("b"))
        boot.wait_for_keys()
    os.kill(process(boot.running, boot.terminal), ending)
    assert boot.running.finish().status == 128 + ending
    assert boot.terminal.modes() == boot.before
    assert boot.terminal.everything()[boot.position:] == SHOW


@ending_signals
def test_a_signal_that_is_ignored_stays_so_at_a_prompt(host: Host, ending: int) -> None:
    host.debug_configuration("a::a:true")
    terminal = host.terminal()
    running = host.start("sh", "-c", f"trap '' {int(ending)}; exec /usr/sbin/lofter --interactive", terminal=terminal, grace=10)
    terminal.expect(question("a"), 20)
    eventually(lambda: terminal.modes()[LOCAL] & termios.ICANON == 0, "keys are read", 20)
    os.kill(process(running, terminal), ending)
    terminal.type("c")
    assert running.finish().status == 0


@pytest.mark.parametrize("console", [None, os.devnull], ids=["missing", "no terminal"])
def test_a_console_that_cannot_be_switched_is_silent(host: Host, console: str | None) -> None:
    host.debug_configuration("a::a:echo a >>/tmp/ran")
    host.path("/dev/console").unlink(missing_ok=True)
    terminal = host.terminal()
    bind = [(console, "/dev/console")] if console else []
    running = host.start_lofter("--interactive", terminal=terminal, bind=bind)
    terminal.expect(question("a"))
    terminal.type("c")
    assert running.finish().status == 0
    assert b"onsole" not in terminal.everything()
    assert host.read("/tmp/ran") == "a\n"
