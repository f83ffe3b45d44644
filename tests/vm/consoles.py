"""The machine that `./dev vm` has put together, as a test sees it: from its serial line and over its network."""
import pathlib
import re
import socket
import sys

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(REPOSITORY / "host" / "machine"))
from machine import MakeDisk  # noqa: E402

IMAGE = REPOSITORY / "build" / "machine"
# Generous: emulated, and maybe on a busy machine.
BOOT = 240


class Console:
    """Somebody who is logged in on the serial line. `boot` is what the line showed before."""

    def __init__(self, machine):
        self.machine = machine
        self.Login()

    def Login(self):
        self.machine.Expect(r"# $", 60, self.machine.Expect(r"^machine: verdict \d+.*\n", BOOT).end())
        # The kernel writes its records on the line when it finds the time to.
        for plugin in Activations(self.machine.text)[0]:
            self.machine.Expect(rf"lofter: Lofter plugin {re.escape(plugin)} activat", 60)
        self.boot = self.machine.text
        self.Run("dmesg -n 1")  # from now on none between the lines of an answer

    def Run(self, command, seconds=60):
        """Returns what the command wrote and its exit status."""
        start = len(self.machine.text)
        self.machine.Type(f"echo '<<'; {command}; echo \">>$?\"\n")
        answer = self.machine.Expect(r"<<\n((?:.*\n)*?)(.*)>>(\d+)$", seconds, start)
        return answer.group(1) + answer.group(2), int(answer.group(3))

    def Output(self, command, seconds=60):
        output, status = self.Run(command, seconds)
        assert status == 0, f"{command}: {output}"
        return output

    def SwitchOff(self):
        self.machine.Type("sync; poweroff -f\n")
        self.machine.WaitForEnd(60)


def Ask(port, request, expected, seconds=30):
    """What a service on this machine's loopback answers. The first byte may take as long as a daemon needs."""
    answer = b""
    with socket.create_connection(("127.0.0.1", port), timeout=seconds) as connection:
        connection.sendall(request)
        while expected not in answer:
            data = connection.recv(4096)
            assert data, f"{answer!r}, then nothing"
            answer += data
    return answer


def IsOpen(port):
    """Whether a service says something of its own accord. QEMU itself takes every call, and hangs up when there is no service."""
    try:
        with socket.create_connection(("127.0.0.1", port), timeout=5) as connection:
            return connection.recv(1) != b""
    except OSError:
        return False


def Activations(text):
    """The plugins in the order in which the kernel log says that they were activated, and what came of each."""
    begun = re.findall(r"lofter: Activating Lofter plugin (\S+)\.$", text, re.MULTILINE)
    ended = re.findall(r"lofter: Lofter plugin (\S+) activated\.$", text, re.MULTILINE)
    return begun, ended


def MakeDisks(folder):
    disks = [folder / "bootbank.img", folder / "scratch.img"]
    for disk, label in zip(disks, ("bootbank", "scratch")):
        MakeDisk(disk, label, 32)
    return disks
