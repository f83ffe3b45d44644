"""The machine that `./dev vm` has put together, as a test sees it: from its serial line and over its network."""
import pathlib
import re
import socket

from lofterdev.machine import Machine, make_disk
from lofterdev.repository import REPOSITORY

IMAGE = REPOSITORY / "build" / "machine"
# Generous: emulated, and maybe on a busy machine.
BOOT = 240


class Console:
    """Somebody who is logged in on the serial line. `boot` is what the line showed before."""

    def __init__(self, machine: Machine) -> None:
        self.machine = machine
        self.login()

    def login(self) -> None:
        self.machine.expect(r"# $", 60, self.machine.expect(r"^machine: verdict \d+.*\n", BOOT).end())
        # The kernel writes its records on the line when it finds the time to.
        for plugin in activations(self.machine.text)[0]:
            self.machine.expect(rf"lofter: Lofter plugin {re.escape(plugin)} activat", 60)
        self.boot = self.machine.text
        self.run("dmesg -n 1")  # from now on none between the lines of an answer

    def run(self, command: str, seconds: float = 60) -> tuple[str, int]:
        """Returns what the command wrote and its exit status."""
        start = len(self.machine.text)
        self.machine.type(f"echo '<<'; {command}; echo \">>$?\"\n")
        answer = self.machine.expect(r"<<\n((?:.*\n)*?)(.*)>>(\d+)$", seconds, start)
        return answer.group(1) + answer.group(2), int(answer.group(3))

    def output(self, command: str, seconds: float = 60) -> str:
        output, status = self.run(command, seconds)
        assert status == 0, f"{command}: {output}"
        return output

    def switch_off(self) -> None:
        self.machine.type("sync; poweroff -f\n")
        self.machine.wait_for_end(60)


def ask(port: int, request: bytes, expected: bytes, seconds: float = 30) -> bytes:
    """What a service on this machine's loopback answers. The first byte may take as long as a daemon needs."""
    answer = b""
    with socket.create_connection(("127.0.0.1", port), timeout=seconds) as connection:
        connection.sendall(request)
        while expected not in answer:
            data = connection.recv(4096)
            assert data, f"{answer!r}, then nothing"
            answer += data
    return answer


def is_open(port: int) -> bool:
    """Whether a service says something of its own accord. QEMU itself takes every call, and hangs up when there is no service."""
    try:
        with socket.create_connection(("127.0.0.1", port), timeout=5) as connection:
            return connection.recv(1) != b""
    except OSError:
        return False


def activations(text: str) -> tuple[list[str], list[str]]:
    """The plugins in the order in which the kernel log says that they were activated, and what came of each."""
    begun = re.findall(r"lofter: Activating Lofter plugin (\S+)\.$", text, re.MULTILINE)
    ended = re.findall(r"lofter: Lofter plugin (\S+) activated\.$", text, re.MULTILINE)
    return begun, ended


def make_disks(folder: pathlib.Path) -> list[pathlib.Path]:
    disks = [folder / "bootbank.img", folder / "scratch.img"]
    for disk, label in zip(disks, ("bootbank", "scratch")):
        make_disk(disk, label, 32)
    return disks
