"""The operator at the console: prompts, answers, the troubleshooting shell, and what the terminal is afterwards."""
import contextlib
import os
import re
import signal
import subprocess
import termios

import pytest

from support.processes import ProcessesBelow
from support.waiting import Eventually

ITEMS = {"c": b"\x1b[35m(c)ontinue\x1b[0m", "e": b"\x1b[32m(e)xecute\x1b[0m",
         "t": b"\x1b[33m(t)roubleshoot\x1b[0m", "s": b"\x1b[31m(s)kip\x1b[0m"}
PROGRESS, NO_PROGRESS = b"\r\x1b[2KActivating Lofter Plugins\r", b"\r\x1b[2K\r"
HIDE, SHOW, ERASE = b"\x1b[?25l", b"\x1b[?25h", b"\x1b[2K"
SYSLOG_DAEMON = "/usr/lib/tessel/tssyslog/bin/tssyslogd"
LOCAL = 3  # index of the local modes


def Question(plugin):
    return b"current plugin: \x1b[36m" + plugin.encode() + b"\r\n" + b"\t".join(ITEMS.values()) + HIDE


def Redrawn(answer):
    white = [item if key == answer else re.sub(rb"\x1b\[3\dm", b"\x1b[37m", item) for key, item in ITEMS.items()]
    return b"\r" + b"\t".join(white) + b"\r\n"


class Boot:
    """A boot of the debug plugins a, b and c, each of which leaves a line in /tmp/ran, with an operator in front of it."""

    def __init__(self, host, *arguments):
        host.DebugConfiguration("a::a:echo a >>/tmp/ran", "b:a:b:echo b >>/tmp/ran", "c:b:c:echo c >>/tmp/ran")
        host.KernelLog()
        self.host, self.terminal, self.position = host, host.Terminal(), 0
        self.before = self.terminal.Modes()
        self.running = host.StartLofter(*arguments, terminal=self.terminal, console=True, grace=10)

    def Expect(self, text):
        start, self.position = self.position, self.terminal.Expect(text, 20, self.position)
        return self.terminal.output[start:self.position]

    def WaitForKeys(self):
        """Until single keys are read; returns the terminal's modes then."""
        return Eventually(lambda: (m := self.terminal.Modes())[LOCAL] & termios.ICANON == 0 and m, "keys are read")

    def Answer(self, plugin, keys, answer=None):
        """Waits for the question, types the keys; returns when the menu is redrawn for the answer."""
        self.Expect(Question(plugin))
        self.terminal.Type(keys)
        return self.Expect(SHOW + Redrawn(answer or keys))

    def Finish(self):
        outcome = self.running.Finish()
        self.rest = self.terminal.Everything()[self.position:]
        assert (outcome.status, outcome.leftovers) == (0, []), self.terminal.Everything()
        return self.host.Read("/tmp/ran").split() if self.host.Exists("/tmp/ran") else []


def test_every_plugin_is_asked_about_and_executed(host):
    boot = Boot(host, "--interactive")
    for plugin in "abc":
        boot.Answer(plugin, "e")
    assert boot.Finish() == ["a", "b", "c"]
    assert boot.terminal.Modes() == boot.before


def test_the_progress_line_makes_way_for_each_question_and_is_back_after_the_answer(host):
    boot = Boot(host, "--interactive")
    assert boot.Expect(Question("a")).endswith(PROGRESS + NO_PROGRESS + Question("a"))
    boot.terminal.Type("s")
    assert boot.Expect(Question("b")).endswith(Redrawn("s") + PROGRESS + PROGRESS + NO_PROGRESS + Question("b"))
    boot.terminal.Type("e")
    assert Redrawn("e") + PROGRESS + PROGRESS in boot.Expect(Question("c"))
    boot.terminal.Type("c")
    assert boot.Finish() == ["b", "c"]
    assert Redrawn("c") + PROGRESS + PROGRESS in boot.rest


def test_the_progress_line_is_back_after_a_shell(host):
    boot = Boot(host, "--interactive")
    boot.Answer("a", "t")
    boot.terminal.Type("exit\n")
    assert ERASE + PROGRESS + PROGRESS in boot.Expect(Question("b"))
    boot.terminal.Type("c")
    assert boot.Finish() == ["a", "b", "c"]
    assert b"info lofter: Activating" not in boot.terminal.output


def test_the_progress_text_is_logged_once_where_the_console_is_no_terminal(host):
    host.DebugConfiguration("a::a:true", "b:a::true")
    terminal = host.Terminal()
    running = host.StartLofter("--interactive", terminal=terminal, bind=[(os.devnull, "/dev/console")])
    for plugin in "ab":
        terminal.Expect(Question(plugin), 20)
        terminal.Type("e")
    assert running.Finish().status == 0
    assert terminal.Everything().count(b" info lofter: Activating Lofter Plugins\r\n") == 1


def test_the_progress_line_is_erased_where_it_is_shown(host):
    host.DebugConfiguration("a::a:true")
    terminal, console = host.Terminal(), host.Terminal()
    running = host.StartLofter("--interactive", terminal=terminal, bind=[(console.path, "/dev/console")])
    terminal.Expect(Question("a"))
    assert NO_PROGRESS not in terminal.output
    terminal.Type("c")
    assert running.Finish().status == 0
    assert console.Everything() == PROGRESS + PROGRESS + NO_PROGRESS + PROGRESS + PROGRESS


def test_upper_case_works_and_other_keys_are_ignored_without_an_echo(host):
    boot = Boot(host, "--interactive")
    boot.Expect(Question("a"))
    boot.WaitForKeys()
    boot.terminal.Type("xyz1\r\x04\x7fE")
    assert boot.Expect(Redrawn("e")) == SHOW + Redrawn("e")
    boot.Expect(Question("b"))
    boot.terminal.Type("S")
    boot.Expect(Redrawn("s"))
    boot.Answer("c", "C", "c")
    assert boot.Finish() == ["a", "c"]


def test_the_terminal_gives_single_keys_during_the_prompt_only(host):
    boot = Boot(host, "--interactive")
    boot.Expect(Question("a"))
    during = boot.WaitForKeys()
    assert during[LOCAL] == boot.before[LOCAL] & ~(termios.ICANON | termios.ECHO)
    assert during[:LOCAL] == boot.before[:LOCAL]
    boot.terminal.Type("c")
    boot.Expect(Redrawn("c"))
    assert boot.terminal.Modes() == boot.before
    boot.Finish()


def test_a_skipped_plugin_is_not_called_and_not_reported(host):
    boot = Boot(host, "--interactive")
    boot.Answer("a", "e")
    boot.Expect(Question("b"))
    boot.terminal.Type("s")
    assert b"skipping plugin b (interactive mode request)\r\n" in boot.Expect(Redrawn("s"))
    boot.Answer("c", "e")
    assert boot.Finish() == ["a", "c"]
    assert "plugin b" not in host.Read("/dev/kmsg")
    assert "plugin c activated" in host.Read("/dev/kmsg")
    assert boot.terminal.Modes() == boot.before
    # It keeps its line, with the end that it never had.
    profile = host.Read("/var/log/sysboot.log")
    assert re.findall(r"\] sysboot: (\w+)$", profile, re.MULTILINE) == ["a", "b", "c"]
    assert re.findall(r" - 1970-01-01 00:00:00\.000000\] sysboot: (\w+)$", profile, re.MULTILINE) == ["b"]
    assert "\n Interactive Mode: 1\n" in profile


def test_nobody_is_asked_after_continue(host):
    boot = Boot(host, "--interactive")
    boot.Answer("a", "c")
    assert boot.Finish() == ["a", "b", "c"]
    assert b"current plugin" not in boot.rest
    assert "\n Interactive Mode: 0\n" in host.Read("/var/log/sysboot.log")


def test_answers_may_be_typed_ahead(host):
    boot = Boot(host, "--interactive")
    boot.Expect(Question("a"))
    boot.terminal.Type("ese")
    assert boot.Finish() == ["a", "c"]


@pytest.mark.parametrize("end", ["exit 3\n", "kill -9 $$\n", "\x04"], ids=["exit 3", "killed", "Ctrl-D"])
def test_the_walk_goes_on_after_a_shell_however_it_ends(host, end):
    boot = Boot(host, "--interactive")
    boot.Answer("a", "t")
    boot.terminal.Type("test ! -e /tmp/ran && echo in the she''ll\n")
    boot.Expect("in the shell\r\n")
    boot.Expect("/ # ")  # from here on it takes Ctrl-D; the terminal, which did until then, would lose it
    boot.terminal.Type(end)
    boot.Expect(ERASE)
    boot.Answer("b", "e")
    boot.Answer("c", "e")
    assert boot.Finish() == ["a", "b", "c"]
    assert boot.terminal.Modes() == boot.before


def test_what_was_typed_ahead_for_the_shell_reaches_it(host):
    boot = Boot(host, "--interactive")
    boot.Expect(Question("a"))
    boot.terminal.Type("techo for the she''ll; exit\n")
    boot.Expect("for the shell\r\n")
    boot.Answer("b", "c")
    assert boot.Finish() == ["a", "b", "c"]


@pytest.mark.parametrize("requirements", [["a,b"], ["b,a,b"], ["a", "b"]], ids=str)
def test_no_prompt_before_the_requirements_were_activated(host, requirements):
    boot = Boot(host, "--interactive", *(f"--interactive-mode-requires={names}" for names in requirements))
    assert b"current plugin" not in boot.Expect(Question("c")).replace(Question("c"), b"")
    boot.terminal.Type("e")
    assert boot.Finish() == ["a", "b", "c"]


def test_one_requirement_postpones_the_prompt_to_the_next_plugin(host):
    boot = Boot(host, "--interactive", "--interactive-mode-requires=a")
    assert b"current plugin" not in boot.Expect(Question("b")).replace(Question("b"), b"")
    boot.terminal.Type("c")
    assert boot.Finish() == ["a", "b", "c"]


def test_a_requirement_that_never_runs_keeps_the_prompt_away(host):
    boot = Boot(host, "--interactive", "--interactive-mode-requires=a,never")
    assert boot.Finish() == ["a", "b", "c"]
    assert b"current plugin" not in boot.rest


def test_the_last_of_parallel_and_interactive_is_in_force(host):
    boot = Boot(host, "--parallel", "--interactive")
    boot.Answer("a", "c")
    assert boot.Finish() == ["a", "b", "c"]
    host.Path("/tmp/ran").unlink()
    host.Path("/run/tessel/lofterExecutor.sock").unlink()  # a boot finds the run directory empty
    boot = Boot(host, "--interactive", "--parallel")
    assert boot.Finish() == ["a", "b", "c"]
    assert b"current plugin" not in boot.rest


def test_at_end_of_input_the_prompt_keeps_reading(host):
    host.DebugConfiguration("a::a:echo a >>/tmp/ran")
    running = host.StartLofter("--interactive", stdin=open(os.devnull))
    seen = b""
    while HIDE not in seen or b"unable to set terminal io state." not in seen:
        seen += os.read(running.process.stdout.fileno(), 4096)
    with pytest.raises(AssertionError, match="still running"):
        running.Finish(timeout=2)
    assert not host.Exists("/tmp/ran")


# Hang-ups. The terminal controls no session, as a serial console controls none of a boot's programs.

class Line:
    """A boot of two plugins on a line that can lose its terminal and get another. The first plugin waits for the test."""

    def __init__(self, host, *arguments):
        host.DebugConfiguration("a::a:echo a >>/tmp/ran; read line </tmp/go", "b:a::echo b >>/tmp/ran")
        host.Run("mkfifo", "/tmp/go")
        self.host = host
        self.Connect()
        self.before = self.terminal.Modes()
        slave = self.terminal.slave
        self.running = host.StartLofter("--interactive", *arguments, stdin=slave, stdout=slave, stderr=slave, bind=[("/dev/pts", "/pts")])

    def Connect(self):
        self.terminal = self.host.Terminal()
        self.device = self.host.Path("/dev/console")
        self.device.unlink(missing_ok=True)
        self.device.symlink_to(f"/pts/{os.path.basename(self.terminal.path)}")

    def HangUp(self):
        self.device.unlink()
        self.host.terminals.remove(self.terminal)
        self.terminal.Close()

    def AwaitKeys(self, plugin):
        self.terminal.Expect(Question(plugin), 30)
        Eventually(lambda: self.terminal.Modes()[LOCAL] & termios.ICANON == 0, "keys are read", 30)

    def EndFirstPlugin(self):
        self.LetGo("/tmp/go")

    def LetGo(self, path):
        def Write():
            with contextlib.suppress(OSError):  # while nobody reads
                go = os.open(self.host.Path(path), os.O_WRONLY | os.O_NONBLOCK)
                os.write(go, b"\n")
                os.close(go)
                return True
        Eventually(Write, f"{path} is waited for", 30)

    def Finish(self):
        outcome = self.running.Finish()
        assert (outcome.status, outcome.leftovers) == (0, [])
        assert self.host.Read("/tmp/ran") == "a\nb\n"
        assert self.terminal.Modes() == self.before


def test_the_question_is_asked_again_after_a_hang_up(host):
    line = Line(host)
    for _ in range(3):
        line.AwaitKeys("a")
        line.HangUp()
        line.Connect()
    line.AwaitKeys("a")
    line.terminal.Type("e")
    line.EndFirstPlugin()
    line.AwaitKeys("b")
    line.terminal.Type("c")
    line.Finish()
    assert line.terminal.Everything().count(PROGRESS) == 4  # after both answers


def test_a_hang_up_between_two_questions_costs_none_of_them(host):
    line = Line(host)
    line.AwaitKeys("a")
    line.terminal.Type("e")
    Eventually(lambda: host.Exists("/tmp/ran"), "the first plugin runs", 30)
    line.HangUp()
    line.Connect()
    line.EndFirstPlugin()
    line.AwaitKeys("b")
    line.terminal.Type("c")
    line.Finish()
    assert b"unable to" not in line.terminal.output


def test_a_hang_up_before_the_first_question_costs_none_of_them(host):
    """The launch of the syslog daemon, which comes before any question, waits for the test."""
    host.Run("mkfifo", "/tmp/launch")
    host.WriteScript(SYSLOG_DAEMON, "echo >/tmp/launching; read line </tmp/launch")
    line = Line(host, "--init")
    Eventually(lambda: host.Exists("/tmp/launching"), "the syslog daemon is launched", 30)
    line.HangUp()
    line.Connect()
    line.LetGo("/tmp/launch")
    line.AwaitKeys("a")
    line.terminal.Type("c")
    line.EndFirstPlugin()
    line.Finish()


def test_a_line_that_has_no_terminal_yet_is_waited_for_without_a_flood(host):
    syslog = host.Syslog()
    line = Line(host)
    line.AwaitKeys("a")
    line.HangUp()
    complaint = "unable to open terminal '/dev/console' again: No such file or directory"
    syslog.WaitFor(complaint, 30)
    with pytest.raises(subprocess.TimeoutExpired):  # time for many attempts
        line.running.process.wait(1)
    line.Connect()
    line.AwaitKeys("a")
    line.terminal.Type("c")
    line.EndFirstPlugin()
    line.Finish()
    assert syslog.Texts().count(complaint) == 3  # one a stream


# Signals at the prompt.

def Process(running, terminal):
    """The program's process id: of all that run in the root, the one that reads the terminal."""
    for process, words in ProcessesBelow(running.process.pid):
        with contextlib.suppress(OSError):
            if words[0] == "/usr/sbin/lofter" and os.readlink(f"/proc/{process}/fd/0") == terminal.path:
                return process
    raise AssertionError("not running")


ending_signals = pytest.mark.parametrize("ending", [signal.SIGTERM, signal.SIGINT, signal.SIGHUP], ids=lambda number: number.name)


@ending_signals
@pytest.mark.parametrize("prompt", ["first", "after a shell"])
def test_a_signal_that_ends_a_prompt_leaves_a_usable_terminal(host, ending, prompt):
    boot = Boot(host, "--interactive")
    boot.Expect(Question("a"))
    boot.WaitForKeys()
    if prompt == "after a shell":
        boot.terminal.Type("t")
        boot.Expect(Redrawn("t"))
        boot.terminal.Type("exit\n")
        boot.Expect(Question("b"))
        boot.WaitForKeys()
    os.kill(Process(boot.running, boot.terminal), ending)
    assert boot.running.Finish().status == 128 + ending
    assert boot.terminal.Modes() == boot.before
    assert boot.terminal.Everything()[boot.position:] == SHOW


@ending_signals
def test_a_signal_that_is_ignored_stays_so_at_a_prompt(host, ending):
    host.DebugConfiguration("a::a:true")
    terminal = host.Terminal()
    running = host.Start("sh", "-c", f"trap '' {int(ending)}; exec /usr/sbin/lofter --interactive", terminal=terminal, grace=10)
    terminal.Expect(Question("a"), 20)
    Eventually(lambda: terminal.Modes()[LOCAL] & termios.ICANON == 0, "keys are read", 20)
    os.kill(Process(running, terminal), ending)
    terminal.Type("c")
    assert running.Finish().status == 0


@pytest.mark.parametrize("console", [None, os.devnull], ids=["missing", "no terminal"])
def test_a_console_that_cannot_be_switched_is_silent(host, console):
    host.DebugConfiguration("a::a:echo a >>/tmp/ran")
    host.Path("/dev/console").unlink(missing_ok=True)
    terminal = host.Terminal()
    bind = [(console, "/dev/console")] if console else []
    running = host.StartLofter("--interactive", terminal=terminal, bind=bind)
    terminal.Expect(Question("a"))
    terminal.Type("c")
    assert running.Finish().status == 0
    assert b"onsole" not in terminal.Everything()
    assert host.Read("/tmp/ran") == "a\n"
