"""A virtual machine with the disk of a stock Debian, of this machine's own architecture: its serial line, its ports."""
import os
import pathlib
import platform
import subprocess
import tempfile
import time
from collections.abc import Callable

from lofterdev.machine import free_ports, Machine

SERVICES = {"http": 80, "ssh": 22, "redis": 6379}
# Emulated on purpose: where machines are virtual themselves, their /dev/kvm may be there and not work.
MACHINES = {
    "x86_64": ["qemu-system-x86_64", "-M", "q35", "-cpu", "qemu64"],
    "aarch64": ["qemu-system-aarch64", "-M", "virt", "-cpu", "cortex-a57"],
}
SERIAL = {"x86_64": "ttyS0", "aarch64": "ttyAMA0"}


class DebianMachine(Machine):
    """One machine, switched on. `directory` holds disk, kernel and initrd. What it writes on its disk is kept."""

    def __init__(self, directory: pathlib.Path, options: str = "", watch: Callable[[str], object] | None = None) -> None:
        architecture = platform.machine()
        self.ports = dict(zip(SERVICES, free_ports(len(SERVICES))))
        self.text = ""
        self.pending = b""
        self.watch = watch
        self.folder = tempfile.TemporaryDirectory()
        forwards = "".join(f",hostfwd=tcp:127.0.0.1:{self.ports[name]}-:{port}" for name, port in SERVICES.items())
        kernel = f"root=/dev/vda rw net.ifnames=0 panic=-1 console={SERIAL[architecture]} {options}"
        command = [*MACHINES[architecture], "-accel", "tcg", "-smp", "2", "-m", "768", "-nodefaults", "-no-reboot",
                   "-display", "none", "-kernel", directory / "kernel", "-initrd", directory / "initrd", "-append", kernel,
                   "-chardev", "stdio,id=line,signal=off", "-serial", "chardev:line",
                   "-netdev", f"user,id=net,restrict=on{forwards}", "-device", "virtio-net-pci,netdev=net,romfile=",
                   "-device", "virtio-rng-pci",
                   "-drive", f"file={directory / 'disk'},format=raw,if=none,id=disk,cache=unsafe", "-device", "virtio-blk-pci,drive=disk"]
        self.begun = time.monotonic()
        self.process = subprocess.Popen([str(word) for word in command], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.line_in, self.line_out = (stream.fileno() if stream else -1 for stream in (self.process.stdin, self.process.stdout))

    def __enter__(self) -> "DebianMachine":
        return self

    def log_in(self) -> None:
        """Until the serial line has a shell of root's."""
        self.expect(r"login: $", seconds=400)
        self.type("root\n")
        start = len(self.text)
        self.expect(r"# $", start=start)
        # Neither prompts nor what is typed are to stand among what commands say.
        self.type("exec sh\n")
        self.run("stty cols 999 -echo; PS1= PS2=")

    def run(self, command: str, seconds: float = 200) -> str:
        """What the command says, whose status must be 0."""
        status, output = self.attempt(command, seconds)
        assert status == 0, f"{command} has ended with {status}:\n{output}"
        return output

    def attempt(self, command: str, seconds: float = 200) -> tuple[int, str]:
        """Status and words of a command. The mark is put together by the shell, so that its echo is not taken for it."""
        start = len(self.text)
        self.type(f"{{ {command}\n}}; echo 'the end'': '$?\n")
        match = self.expect(r"the end: (\d+)\n", seconds, start)
        return int(match.group(1)), self.text[start:match.start()]


def boot() -> DebianMachine:
    """The machine under test, whose directory the environment names. All that its line shows is kept in a file there."""
    directory = pathlib.Path(os.environ["LOFTER_DEBIAN"])
    console = open(directory / "console.log", "a", encoding="utf-8")

    def keep(text: str) -> None:
        console.write(text)
        console.flush()
    return DebianMachine(directory, watch=keep)
