"""An interactive boot of the demo host in a person's own terminal (a tmux session), end to end.

docs/interactive-boot.txt is the screen's text of such a boot; it is compared with what a boot shows now. To record it
anew, run this test with RECORD=1 in the environment.
"""
import os
import re
import subprocess
import tempfile

import pytest

from support.host import ENTER, REPOSITORY
from support.waiting import Eventually

RECORDING = REPOSITORY / "docs" / "interactive-boot.txt"
PROMPT = "current plugin: "


class Screen:
    """A terminal of 132 columns with a shell in it, as a person has one."""

    def __init__(self, work):
        self.folder = tempfile.TemporaryDirectory()  # the names of sockets are short
        self.socket = f"{self.folder.name}/tmux"
        self.Tmux("-f", "/dev/null", "new-session", "-d", "-x", "132", "-y", "200", "env", "-u", "PS1", "-u", "ENV", "sh")
        self.Line("PS1='person> '")  # not exported: the shells of a boot have their own
        self.Wait(lambda text: text.endswith("person>"), "the person's shell")
        (work / "aliases").write_text(f"alias boot='sh {work}/boot'\n")

    def Tmux(self, *words):
        return subprocess.run(["tmux", "-S", self.socket, *words], check=True, capture_output=True, text=True).stdout

    def Text(self):
        return self.Tmux("capture-pane", "-p").rstrip("\n")

    def Cursor(self):
        return self.Tmux("display-message", "-p", "#{cursor_flag}").strip()

    def Wait(self, fact, what):
        try:
            Eventually(lambda: fact(self.Text()), what, 30)
        except AssertionError as error:
            raise AssertionError(f"{error}\n{self.Text()}") from None

    def Line(self, text):
        self.Tmux("send-keys", "-l", text)
        self.Tmux("send-keys", "Enter")

    def Modes(self):
        """What stty says of the terminal, asked from outside."""
        device = self.Tmux("display-message", "-p", "#{pane_tty}").strip()
        return subprocess.run(["stty", "-a", "-F", device], check=True, capture_output=True, text=True).stdout

    def Close(self):
        self.Tmux("kill-server")
        self.folder.cleanup()


@pytest.fixture
def screen(demo_host):
    screen = Screen(demo_host.work)
    yield screen
    screen.Close()


def Boot(screen, host, *arguments):
    """The command is in a file: a long line would leave more than one row on the screen."""
    host.KernelLog()
    (host.work / "pid").unlink(missing_ok=True)
    script = host.work / "boot"
    script.write_text(f"echo $$ >{host.work}/pid; exec {ENTER} --console {host.root} -- /usr/sbin/lofter {' '.join(arguments)}\n")
    screen.Line(f". {host.work}/aliases; clear")
    screen.Wait(lambda text: text == "person>", "an empty screen")
    screen.Line("boot")


def Asked(screen, count, plugin=None):
    """The question is the count-th, and still open: the menu is the last line."""
    screen.Wait(lambda text: text.count(PROMPT) == count and text.splitlines()[-1].startswith("(c)ontinue")
                and (plugin is None or f"{PROMPT}{plugin}" in text), f"question {count}")


def Settled(text):
    """The lines of a boot without what differs from one to the next: the time stamps."""
    text = re.sub(r"\d{4}-\d\d-\d\d [\d:.]+", "<time>", text)
    return [line.rstrip() for line in text.splitlines()]


def test_a_recorded_boot_is_what_a_boot_shows(demo_host, screen):
    for plugin in demo_host.Path("/usr/libexec/lofter/plugins").iterdir():
        plugin.unlink()
    demo_host.DebugConfiguration("storage::storage:echo disks are there >/tmp/disks",
                                 "network:storage:network:echo lo >/tmp/network",
                                 "license:network:license:test -s /etc/tessel/license",
                                 "management:license::echo up >/tmp/management")
    before = screen.Modes()
    Boot(screen, demo_host, "--init", "--interactive")
    Asked(screen, 1, "storage")
    screen.Tmux("send-keys", "e")
    Asked(screen, 2, "network")
    screen.Tmux("send-keys", "t")
    screen.Wait(lambda text: text.endswith("#"), "the troubleshooting shell")
    screen.Line("cat /tmp/disks")
    screen.Wait(lambda text: "\ndisks are there\n" in text, "the command's output")
    screen.Line("exit")
    Asked(screen, 3, "license")
    screen.Tmux("send-keys", "s")
    Asked(screen, 4, "management")
    screen.Tmux("send-keys", "c")
    screen.Wait(lambda text: text.endswith("person>"), "the end of the boot")

    assert screen.Modes() == before
    assert screen.Cursor() == "1"
    assert demo_host.Read("/tmp/management") == "up\n"
    lines = screen.Text().splitlines()
    shown = Settled("\n".join(line for line in lines if not line.startswith("person>")))
    if os.environ.get("RECORD"):
        RECORDING.write_text("\n".join(line.rstrip() for line in lines if not line.startswith("person>")) + "\n")
    assert shown == Settled(RECORDING.read_text())


@pytest.mark.parametrize("place", ["prompt", "after a shell"])
def test_an_interrupted_boot_leaves_the_terminal_as_it_was(demo_host, screen, place):
    before = screen.Modes()
    Boot(screen, demo_host, "--init", "--interactive")
    Asked(screen, 1)
    if place == "after a shell":
        screen.Tmux("send-keys", "t")
        screen.Wait(lambda text: text.endswith("#"), "the troubleshooting shell")
        screen.Line("exit")
        Asked(screen, 2)
    screen.Tmux("send-keys", "C-c")
    screen.Wait(lambda text: text.endswith("person>"), "the person's shell")
    assert screen.Modes() == before
    assert screen.Cursor() == "1"
    screen.Line("echo still the person''s; tty >/dev/tty && echo status $?")
    screen.Wait(lambda text: "still the persons" in text and "status 0" in text, "the shell works")


def test_a_terminated_boot_leaves_the_terminal_as_it_was(demo_host, screen):
    before = screen.Modes()
    Boot(screen, demo_host, "--interactive")
    Asked(screen, 1)
    os.kill(int((demo_host.work / "pid").read_text()), 15)
    screen.Wait(lambda text: text.endswith("person>"), "the person's shell")
    assert screen.Modes() == before
    assert screen.Cursor() == "1"
