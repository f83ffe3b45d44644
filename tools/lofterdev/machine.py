"""A virtual AArch64 machine in QEMU, seen from outside: its serial console, its ports on this machine's loopback, its plug.

Used by `./dev vm` and by the machine's tests.
"""
import json
import os
import pathlib
import platform
import re
import select
import socket
import subprocess
import tempfile
import time
from collections.abc import Callable, Mapping, Sequence
from typing import Any

# Kernel records that programs write are shown and none of them is dropped; the ones of lofter come at the level of information.
KERNEL = "loglevel=7 printk.devkmsg=on panic=-1"
SERVICES = {"http": 8080, "ssh": 2222, "redis": 6379}
FIRMWARE = pathlib.Path("/usr/share/qemu-efi-aarch64/QEMU_EFI.fd")


def make_disk(path: pathlib.Path, label: str, megabytes: int) -> None:
    """An empty file system on a disk image."""
    path.parent.mkdir(parents=True, exist_ok=True)
    unfinished = path.with_suffix(".new")
    unfinished.unlink(missing_ok=True)
    subprocess.run(["/sbin/mke2fs", "-q", "-t", "ext4", "-L", label, unfinished, f"{megabytes}M"], check=True,
                   stdout=subprocess.DEVNULL)
    unfinished.rename(path)


def free_ports(count: int) -> list[int]:
    """Different ones: each is held until all are found."""
    servers = [socket.create_server(("127.0.0.1", 0)) for _ in range(count)]
    ports = [server.getsockname()[1] for server in servers]
    for server in servers:
        server.close()
    return ports


def quoted(value: str) -> str:
    return f'"{value}"' if " " in value else value


def accelerator() -> list[str]:
    if platform.machine() == "aarch64" and os.access("/dev/kvm", os.R_OK | os.W_OK):
        return ["-accel", "kvm", "-cpu", "host"]
    return ["-accel", "tcg", "-cpu", "cortex-a57"]


class Machine:
    """One machine, switched on. `image` holds kernel and initrd; `disks` are image files; `settings` are those of
    root/etc/machine/settings; `consoles` become the kernel's, of which the last is /dev/console. The serial line is read by
    this object, unless the caller's terminal is to be its other end."""

    def __init__(self, image: pathlib.Path, disks: Sequence[pathlib.Path], settings: Mapping[str, str] | None = None,
                 consoles: Sequence[str] = ("ttyAMA0",), firmware: pathlib.Path | None = None,
                 watch: Callable[[str], object] | None = None, terminal: bool = False) -> None:
        self.ports = dict(zip(SERVICES, free_ports(len(SERVICES))))
        self.text = ""
        self.pending = b""
        self.watch = watch
        self.folder = tempfile.TemporaryDirectory()  # the names of sockets are short
        forwards = "".join(f",hostfwd=tcp:127.0.0.1:{self.ports[name]}-:{port}" for name, port in SERVICES.items())
        kernel = [KERNEL, *(f"console={name}" for name in consoles)]
        kernel += [f"machine.{name}={quoted(value)}" for name, value in (settings or {}).items()]
        command = ["qemu-system-aarch64", "-M", "virt", *accelerator(), "-smp", "2", "-m", "768", "-nodefaults", "-no-reboot",
                   "-display", "none", "-kernel", image / "kernel", "-initrd", image / "initrd", "-append", " ".join(kernel),
                   "-chardev", f"stdio,id=line,signal=off,mux={'on' if terminal else 'off'}", "-serial", "chardev:line",
                   "-qmp", f"unix:{self.folder.name}/qmp,server=on,wait=off",
                   "-netdev", f"user,id=net,restrict=on{forwards}", "-device", "virtio-net-pci,netdev=net,romfile=",
                   "-device", "virtio-rng-pci", "-device", "virtio-keyboard-pci"]
        for number, disk in enumerate(disks):
            command += ["-drive", f"file={disk},format=raw,if=none,id=disk{number}", "-device", f"virtio-blk-pci,drive=disk{number}"]
        if firmware:
            command += ["-bios", firmware, "-device", "ramfb"]
        self.begun = time.monotonic()
        pipe = None if terminal else subprocess.PIPE
        self.process = subprocess.Popen([str(word) for word in command], stdin=pipe, stdout=pipe)
        self.line_in, self.line_out = (stream.fileno() if stream else -1 for stream in (self.process.stdin, self.process.stdout))

    def __enter__(self) -> "Machine":
        return self

    def __exit__(self, *_: object) -> None:
        self.cut()

    def read(self, seconds: float) -> bool:
        """Appends what came over the serial line to `text`. False at its end, or when nothing came in time."""
        if not select.select([self.line_out], [], [], max(0, seconds))[0]:
            return False
        data = os.read(self.line_out, 65536)
        # Line ends may come in two parts.
        text = (self.pending + data).replace(b"\r\n", b"\n")
        self.pending = text[-1:] if data and text.endswith(b"\r") else b""
        shown = text.removesuffix(self.pending).decode(errors="replace")
        self.text += shown
        if self.watch:
            self.watch(shown)
        return bool(data)

    def expect(self, pattern: str, seconds: float = 120, start: int = 0) -> re.Match[str]:
        """Waits until the serial line showed the pattern at or after position `start`; returns the match."""
        deadline = time.monotonic() + seconds
        while True:
            match = re.compile(pattern, re.MULTILINE).search(self.text, start)
            if match:
                return match
            if not self.read(deadline - time.monotonic()):
                raise AssertionError(f"the machine did not show {pattern!r} within {seconds} s:\n{self.text[start:]}")

    def type(self, text: str) -> None:
        os.write(self.line_in, text.encode())

    def run_for(self, seconds: float) -> None:
        """Takes in what the machine shows for a time of its life."""
        deadline = time.monotonic() + seconds
        while time.monotonic() < deadline and self.process.poll() is None:
            self.read(deadline - time.monotonic())

    def wait_for_end(self, seconds: float = 300) -> None:
        """Until it has switched itself off; after that time its power is cut."""
        deadline = time.monotonic() + seconds
        while self.read(deadline - time.monotonic()):
            pass
        if time.monotonic() < deadline:
            self.process.wait()
        self.cut()

    def verdict(self) -> int | None:
        """The boot's own, or None when it did not come to one."""
        match = re.search(r"^machine: verdict (\d+)", self.text, re.MULTILINE)
        return int(match.group(1)) if match else None

    def cut(self) -> None:
        """Cuts the power."""
        self.process.kill()
        self.process.wait()
        for stream in filter(None, (self.process.stdin, self.process.stdout)):
            stream.close()
        self.folder.cleanup()

    def monitor(self, command: str, **arguments: Any) -> None:
        with socket.socket(socket.AF_UNIX) as connection:
            connection.settimeout(30)
            connection.connect(f"{self.folder.name}/qmp")
            with connection.makefile("rw") as stream:
                stream.readline()
                for request in ({"execute": "qmp_capabilities"}, {"execute": command, "arguments": arguments}):
                    stream.write(json.dumps(request) + "\n")
                    stream.flush()
                    answer = json.loads(stream.readline())
                    while "event" in answer:
                        answer = json.loads(stream.readline())
                    if "error" in answer:
                        raise RuntimeError(answer["error"]["desc"])

    def press(self, *keys: str) -> None:
        """All of them together, on the machine's own keyboard."""
        self.monitor("send-key", keys=[{"type": "qcode", "data": key} for key in keys])

    def screenshot(self, path: pathlib.Path) -> None:
        self.monitor("screendump", filename=str(path), format="png")
