"""A virtual machine with the disk of a stock Debian, of this machine's own architecture: its serial line, its ports."""
import pathlib
import platform
import subprocess
import tempfile
import time

from machine import FreePorts, Machine

SERVICES = {"http": 80, "ssh": 22, "redis": 6379}
# Emulated on purpose: where machines are virtual themselves, their /dev/kvm may be there and not work.
MACHINES = {
    "x86_64": ["qemu-system-x86_64", "-M", "q35", "-cpu", "qemu64"],
    "aarch64": ["qemu-system-aarch64", "-M", "virt", "-cpu", "cortex-a57"],
}
SERIAL = {"x86_64": "ttyS0", "aarch64": "ttyAMA0"}


class DebianMachine(Machine):
    """One machine, switched on. `directory` holds disk, kernel and initrd. What it writes on its disk is kept."""

    def __init__(self, directory: pathlib.Path, options: str = "", watch=None) -> None:
        architecture = platform.machine()
        self.ports = dict(zip(SERVICES, FreePorts(len(SERVICES))))
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

    def log_in(self) -> None:
        """Until the serial line has a shell of root's."""
        self.Expect(r"login: $", seconds=400)
        self.Type("root\n")
        start = len(self.text)
        self.Expect(r"# $", start=start)
        # Neither prompts nor what is typed are to stand among what commands say.
        self.Type("exec sh\n")
        self.run("stty cols 999 -echo; PS1= PS2=")

    def run(self, command: str, seconds: float = 200) -> str:
        """What the command says, whose status must be 0."""
        status, output = self.attempt(command, seconds)
        assert status == 0, f"{command} has ended with {status}:\n{output}"
        return output

    def attempt(self, command: str, seconds: float = 200) -> tuple[int, str]:
        """Status and words of a command. The mark is put together by the shell, so that its echo is not taken for it."""
        start = len(self.text)
        self.Type(f"{{ {command}\n}}; echo 'the end'': '$?\n")
        match = self.Expect(r"the end: (\d+)\n", seconds, start)
        return int(match.group(1)), self.text[start:match.start()]
