"""The operator at the console: prompts, answers, the troubleshooting shell, and what the terminal is afterwards."""
import os
import re
import termios

import pytest

from support.waiting import Eventually

ITEMS = {"c": b"\x1b[35m(c)ontinue\x1b[0m", "e": b"\x1b[32m(e)xecute\x1b[0m",
         "t": b"\x1b[33m(t)roubleshoot\x1b[0m", "s": b"\x1b[31m(s)kip\x1b[0m"}
PROGRESS, NO_PROGRESS = b"\r\x1b[2KActivating Lofter Plugins\r", b"\r\x1b[2K\r"
HIDE, SHOW, ERASE = b"\x1b[?25l", b"\x1b[?25h", b"\x1b[2K"
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


def test_the_progress_line_is_erased_before_the_first_question(host):
    boot = Boot(host, "--interactive")
    assert boot.Expect(Question("a")).endswith(PROGRESS + NO_PROGRESS + Question("a"))
    boot.terminal.Type("s")
    assert NO_PROGRESS not in boot.Expect(Question("b"))
    boot.terminal.Type("c")
    assert boot.Finish() == ["b", "c"]


def test_the_progress_line_is_erased_where_it_is_shown(host):
    host.DebugConfiguration("a::a:true")
    terminal, console = host.Terminal(), host.Terminal()
    running = host.StartLofter("--interactive", terminal=terminal, bind=[(console.path, "/dev/console")])
    terminal.Expect(Question("a"))
    assert NO_PROGRESS not in terminal.output
    terminal.Type("c")
    assert running.Finish().status == 0
    assert console.Everything() == PROGRESS + PROGRESS + NO_PROGRESS


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
