"""An interactive boot of the demo host in a person's own terminal (a tmux session), end to end.

docs/interactive-boot.txt is the screen's text of such a boot, and the README has that of another; both are compared with
what a boot shows now. To record them anew, run these tests with RECORD=1 in the environment.
"""
import os
import re
import subprocess
import tempfile

import pytest

from support.host import BUILD, ENTER, REPOSITORY
from support.waiting import Eventually

# They share one demo host, that of ./dev boot.
pytestmark = pytest.mark.xdist_group("demo")

RECORDING = REPOSITORY / "docs" / "interactive-boot.txt"
README = REPOSITORY / "README.md"
PROMPT = "current plugin: "


class Screen:
    """A terminal of 132 columns with a shell in it, as a person has one."""

    def __init__(self):
        self.folder = tempfile.TemporaryDirectory()  # the names of sockets are short
        self.socket = f"{self.folder.name}/tmux"

    def Open(self, work):
        self.Tmux("-f", "/dev/null", "new-session", "-d", "-x", "132", "-y", "200", "env", "-u", "PS1", "-u", "ENV", "sh")
        self.Line("PS1='person> '")  # not exported: the shells of a boot have their own
        self.Wait(lambda text: text.endswith("person>"), "the person's shell")
        (work / "aliases").write_text(f"alias boot='sh {work}/boot'\n")

    def Tmux(self, *words):
        return subprocess.run(["tmux", "-S", self.socket, *words], check=True, capture_output=True, text=True).stdout

    def Text(self):
        """What is written on the screen, with the lines that it had to break in one piece."""
        return "\n".join(line.rstrip() for line in self.Tmux("capture-pane", "-p", "-J").rstrip("\n").split("\n"))

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
        if os.path.exists(self.socket):
            self.Tmux("kill-server")
        self.folder.cleanup()


@pytest.fixture
def screen(demo_host):
    screen = Screen()
    try:
        screen.Open(demo_host.work)
        yield screen
    finally:
        screen.Close()


def Boot(screen, host, *arguments):
    """The test's own host root."""
    host.KernelLog()
    Start(screen, host, f"exec {ENTER} --console {host.root} -- /usr/sbin/lofter {' '.join(arguments)}")


def DevBoot(screen, host, *arguments):
    """What a person types, with the build that is tested."""
    Start(screen, host, f"cd {REPOSITORY}; LOFTER_BUILD={BUILD} exec ./dev boot {' '.join(arguments)}")


def Start(screen, host, command):
    """The command is in a file: a long line would leave more than one row on the screen."""
    (host.work / "pid").unlink(missing_ok=True)
    script = host.work / "boot"
    script.write_text(f"echo $$ >{host.work}/pid; {command}\n")
    screen.Line(f". {host.work}/aliases; clear")
    screen.Wait(lambda text: text == "person>", "an empty screen")
    screen.Line("boot")


def Asked(screen, count, plugin=None):
    """The question is the count-th, and still open: the menu is the last line."""
    screen.Wait(lambda text: text.count(PROMPT) == count and text.splitlines()[-1].startswith("(c)ontinue")
                and (plugin is None or f"{PROMPT}{plugin}\n" in text), f"question {count}")


def Settled(text):
    """The lines of a boot without what differs from one to the next, or between machines."""
    text = re.sub(r"\d{4}-\d\d-\d\d [\d:.]+", "<time>", text)
    text = re.sub(r"BusyBox v.*", "BusyBox <version>", text)
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


def Transcript():
    """The README's interactive boot: all of it, lofter's options, and what is shown."""
    return re.search(r"    \$ \./dev boot (--init --interactive .*)\n\n((?:    .*\n|\n)*    ==> lofter's exit status: .*\n)",
                     README.read_text())


def test_the_boot_in_the_readme_is_what_a_person_sees(demo_host, screen):
    whole, options, _ = Transcript().group(0, 1, 2)
    before = screen.Modes()
    DevBoot(screen, demo_host, options)
    Asked(screen, 1, "identity")
    screen.Tmux("send-keys", "e")
    Asked(screen, 2, "greeting")
    screen.Tmux("send-keys", "t")
    screen.Wait(lambda text: text.endswith("#"), "the troubleshooting shell")
    screen.Line("hostname")
    screen.Wait(lambda text: "hostname\ndemo\n" in text, "the command's output")
    screen.Line("exit")
    Asked(screen, 3, "hostname")
    screen.Tmux("send-keys", "s")
    screen.Wait(lambda text: text.endswith("person>"), "the end of the boot")

    assert screen.Modes() == before
    assert screen.Cursor() == "1"
    seen = re.search(r"==> lofter --init (?s:.*)==> lofter's exit status: .*\n", screen.Text())[0]
    if os.environ.get("RECORD"):
        shown = "".join(f"    {line}".rstrip() + "\n" for line in seen.splitlines())
        README.write_text(README.read_text().replace(whole, f"    $ ./dev boot {options}\n\n{shown}"))
    assert Settled(seen) == [line[4:] for line in Settled(Transcript()[2])]


def test_dev_boot_asks_in_front_of_every_step_of_the_demo_host(demo_host, screen):
    before = screen.Modes()
    DevBoot(screen, demo_host, "--init", "--interactive")
    Asked(screen, 1)
    screen.Tmux("send-keys", "E")
    Asked(screen, 2)
    screen.Tmux("send-keys", "c")
    screen.Wait(lambda text: text.endswith("person>"), "the end of the boot")
    assert "\n==> lofter's exit status: 0\n" in screen.Text()
    assert "\n Interactive Mode: 0\n" in screen.Text(), "after continue it is off"
    assert screen.Modes() == before
    assert screen.Cursor() == "1"


@pytest.mark.parametrize("place", ["prompt", "after a shell"])
def test_an_interrupted_boot_leaves_the_terminal_as_it_was(demo_host, screen, place):
    before = screen.Modes()
    DevBoot(screen, demo_host, "--init", "--interactive")
    Asked(screen, 1)
    if place == "after a shell":
        screen.Tmux("send-keys", "t")
        screen.Wait(lambda text: text.endswith("#"), "the troubleshooting shell")
        screen.Line("exit")
        Asked(screen, 2)
    screen.Tmux("send-keys", "C-c")
    screen.Wait(lambda text: text.endswith("person>"), "the person's shell")
    assert "\n==> lofter's exit status: 130\n" in screen.Text()
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
