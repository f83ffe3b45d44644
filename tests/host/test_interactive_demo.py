"""An interactive boot of the demo host in a person's own terminal (a tmux session), end to end.

docs/interactive-boot.txt is the screen's text of such a boot, and the README has that of another; both are compared with
what a boot shows now. To record them anew, run these tests with RECORD=1 in the environment.
"""
import os
import pathlib
import re
import subprocess
import tempfile
from collections.abc import Callable, Iterator

import pytest

from lofterdev.host import BUILD, Host
from lofterdev.repository import HOST, REPOSITORY
from lofterdev.waiting import eventually

# They share one demo host, that of ./dev boot.
pytestmark = pytest.mark.xdist_group("demo")

RECORDING = REPOSITORY / "docs" / "interactive-boot.txt"
README = REPOSITORY / "README.md"
PROMPT = "current plugin: "


class Screen:
    """A terminal of 132 columns with a shell in it, as a person has one."""

    def __init__(self) -> None:
        self.folder = tempfile.TemporaryDirectory()  # the names of sockets are short
        self.socket = f"{self.folder.name}/tmux"

    def open(self, work: pathlib.Path) -> None:
        self.tmux("-f", "/dev/null", "new-session", "-d", "-x", "132", "-y", "200", "env", "-u", "PS1", "-u", "ENV", "sh")
        self.line("PS1='person> '")  # not exported: the shells of a boot have their own
        self.wait(lambda text: text.endswith("person>"), "the person's shell")
        (work / "aliases").write_text(f"alias boot='sh {work}/boot'\n")

    def tmux(self, *words: str) -> str:
        return subprocess.run(["tmux", "-S", self.socket, *words], check=True, capture_output=True, text=True).stdout

    def text(self) -> str:
        """What is written on the screen, with the lines that it had to break in one piece."""
        return "\n".join(line.rstrip() for line in self.tmux("capture-pane", "-p", "-J").rstrip("\n").split("\n"))

    def cursor(self) -> str:
        return self.tmux("display-message", "-p", "#{cursor_flag}").strip()

    def wait(self, fact: Callable[[str], object], what: str) -> None:
        try:
            eventually(lambda: fact(self.text()), what, 30)
        except AssertionError as error:
            raise AssertionError(f"{error}\n{self.text()}") from None

    def line(self, text: str) -> None:
        self.tmux("send-keys", "-l", text)
        self.tmux("send-keys", "Enter")

    def modes(self) -> str:
        """What stty says of the terminal, asked from outside."""
        device = self.tmux("display-message", "-p", "#{pane_tty}").strip()
        return subprocess.run(["stty", "-a", "-F", device], check=True, capture_output=True, text=True).stdout

    def close(self) -> None:
        if os.path.exists(self.socket):
            self.tmux("kill-server")
        self.folder.cleanup()


@pytest.fixture
def screen(demo_host: Host) -> Iterator[Screen]:
    screen = Screen()
    try:
        screen.open(demo_host.work)
        yield screen
    finally:
        screen.close()


def boot(screen: Screen, host: Host, *arguments: str) -> None:
    """The test's own host root."""
    host.kernel_log()
    start(screen, host, f"exec {HOST}/enter --console {host.root} -- /usr/sbin/lofter {' '.join(arguments)}")


def dev_boot(screen: Screen, host: Host, *arguments: str) -> None:
    """What a person types, with the build that is tested."""
    start(screen, host, f"cd {REPOSITORY}; LOFTER_BUILD={BUILD} exec ./dev boot {' '.join(arguments)}")


def start(screen: Screen, host: Host, command: str) -> None:
    """The command is in a file: a long line would leave more than one row on the screen."""
    (host.work / "pid").unlink(missing_ok=True)
    script = host.work / "boot"
    script.write_text(f"echo $$ >{host.work}/pid; {command}\n")
    screen.line(f". {host.work}/aliases; clear")
    screen.wait(lambda text: text == "person>", "an empty screen")
    screen.line("boot")


def asked(screen: Screen, count: int, plugin: str | None = None) -> None:
    """The question is the count-th, and still open: the menu is the last line."""
    screen.wait(lambda text: text.count(PROMPT) == count and text.splitlines()[-1].startswith("(c)ontinue")
                and (plugin is None or f"{PROMPT}{plugin}\n" in text), f"question {count}")


def settled(text: str) -> list[str]:
    """The lines of a boot without what differs from one to the next, or between machines."""
    text = re.sub(r"\d{4}-\d\d-\d\d [\d:.]+", "<time>", text)
    text = re.sub(r"BusyBox v.*", "BusyBox <version>", text)
    return [line.rstrip() for line in text.splitlines()]


def test_a_recorded_boot_is_what_a_boot_shows(demo_host: Host, screen: Screen) -> None:
    for plugin in demo_host.path("/usr/libexec/lofter/plugins").iterdir():
        plugin.unlink()
    demo_host.debug_configuration("storage::storage:echo disks are there >/tmp/disks",
                                 "network:storage:network:echo lo >/tmp/network",
                                 "license:network:license:test -s /etc/tessel/license",
                                 "management:license::echo up >/tmp/management")
    before = screen.modes()
    boot(screen, demo_host, "--init", "--interactive")
    asked(screen, 1, "storage")
    screen.tmux("send-keys", "e")
    asked(screen, 2, "network")
    screen.tmux("send-keys", "t")
    screen.wait(lambda text: text.endswith("#"), "the troubleshooting shell")
    screen.line("cat /tmp/disks")
    screen.wait(lambda text: "\ndisks are there\n" in text, "the command's output")
    screen.line("exit")
    asked(screen, 3, "license")
    screen.tmux("send-keys", "s")
    asked(screen, 4, "management")
    screen.tmux("send-keys", "c")
    screen.wait(lambda text: text.endswith("person>"), "the end of the boot")

    assert screen.modes() == before
    assert screen.cursor() == "1"
    assert demo_host.read("/tmp/management") == "up\n"
    lines = screen.text().splitlines()
    shown = settled("\n".join(line for line in lines if not line.startswith("person>")))
    if os.environ.get("RECORD"):
        RECORDING.write_text("\n".join(line.rstrip() for line in lines if not line.startswith("person>")) + "\n")
    assert shown == settled(RECORDING.read_text())


def transcript() -> re.Match[str]:
    """The README's interactive boot: all of it, lofter's options, and what is shown."""
    found = re.search(r"    \$ \./dev boot (--init --interactive .*)\n\n((?:    .*\n|\n)*    ==> lofter's exit status: .*\n)",
                      README.read_text())
    assert found
    return found


def test_the_boot_in_the_readme_is_what_a_person_sees(demo_host: Host, screen: Screen) -> None:
    whole, options, _ = transcript().group(0, 1, 2)
    before = screen.modes()
    dev_boot(screen, demo_host, options)
    asked(screen, 1, "identity")
    screen.tmux("send-keys", "e")
    asked(screen, 2, "greeting")
    screen.tmux("send-keys", "t")
    screen.wait(lambda text: text.endswith("#"), "the troubleshooting shell")
    screen.line("hostname")
    screen.wait(lambda text: "hostname\ndemo\n" in text, "the command's output")
    screen.line("exit")
    asked(screen, 3, "hostname")
    screen.tmux("send-keys", "s")
    screen.wait(lambda text: text.endswith("person>"), "the end of the boot")

    assert screen.modes() == before
    assert screen.cursor() == "1"
    seen, = re.findall(r"==> lofter --init (?s:.*)==> lofter's exit status: .*\n", screen.text())
    if os.environ.get("RECORD"):
        shown = "".join(f"    {line}".rstrip() + "\n" for line in seen.splitlines())
        README.write_text(README.read_text().replace(whole, f"    $ ./dev boot {options}\n\n{shown}"))
    unwrapped = transcript()[2].replace(" \\\n        ", " ")
    assert settled(seen) == [line[4:] for line in settled(unwrapped)]


def test_dev_boot_asks_in_front_of_every_step_of_the_demo_host(demo_host: Host, screen: Screen) -> None:
    before = screen.modes()
    dev_boot(screen, demo_host, "--init", "--interactive")
    asked(screen, 1)
    screen.tmux("send-keys", "E")
    asked(screen, 2)
    screen.tmux("send-keys", "c")
    screen.wait(lambda text: text.endswith("person>"), "the end of the boot")
    assert "\n==> lofter's exit status: 0\n" in screen.text()
    log = REPOSITORY / "build" / "host" / "demo" / "var" / "log" / "sysboot.log"
    assert "\n Interactive Mode: 0\n" in log.read_text(), "after continue it is off"
    assert screen.modes() == before
    assert screen.cursor() == "1"


@pytest.mark.parametrize("place", ["prompt", "after a shell"])
def test_an_interrupted_boot_leaves_the_terminal_as_it_was(demo_host: Host, screen: Screen, place: str) -> None:
    before = screen.modes()
    dev_boot(screen, demo_host, "--init", "--interactive")
    asked(screen, 1)
    if place == "after a shell":
        screen.tmux("send-keys", "t")
        screen.wait(lambda text: text.endswith("#"), "the troubleshooting shell")
        screen.line("exit")
        asked(screen, 2)
    screen.tmux("send-keys", "C-c")
    screen.wait(lambda text: text.endswith("person>"), "the person's shell")
    assert "\n==> lofter's exit status: 130\n" in screen.text()
    assert screen.modes() == before
    assert screen.cursor() == "1"
    screen.line("echo still the person''s; tty >/dev/tty && echo status $?")
    screen.wait(lambda text: "still the persons" in text and "status 0" in text, "the shell works")


def test_a_terminated_boot_leaves_the_terminal_as_it_was(demo_host: Host, screen: Screen) -> None:
    before = screen.modes()
    boot(screen, demo_host, "--interactive")
    asked(screen, 1)
    os.kill(int((demo_host.work / "pid").read_text()), 15)
    screen.wait(lambda text: text.endswith("person>"), "the person's shell")
    assert screen.modes() == before
    assert screen.cursor() == "1"
