"""A virtual AArch64 machine in QEMU, seen from outside: its serial console, its ports on this machine's loopback, its plug.

Used by `./dev vm` and by the machine's tests.
"""
import contextlib
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

# Kernel records that programs write are shown and none of them is dropped; the ones of lofter come at the level of information.
KERNEL = "loglevel=7 printk.devkmsg=on panic=-1"
SERVICES = {"http": 8080, "ssh": 2222, "redis": 6379}
FIRMWARE = pathlib.Path("/usr/share/qemu-efi-aarch64/QEMU_EFI.fd")


def MakeDisk(path, label, megabytes):
    """An empty file system on a disk image."""
    path.parent.mkdir(parents=True, exist_ok=True)
    unfinished = path.with_suffix(".new")
    unfinished.unlink(missing_ok=True)
    subprocess.run(["/sbin/mke2fs", "-q", "-t", "ext4", "-L", label, unfinished, f"{megabytes}M"], check=True,
                   stdout=subprocess.DEVNULL)
    unfinished.rename(path)


def FreePorts(count):
    """Different ones: each is held until all are found."""
    with contextlib.ExitStack() as held:
        servers = [held.enter_context(socket.create_server(("127.0.0.1", 0))) for _ in range(count)]
        return [server.getsockname()[1] for server in servers]


def Quoted(value):
    return f'"{value}"' if " " in value else value


def Accelerator():
    if platform.machine() == "aarch64" and os.access("/dev/kvm", os.R_OK | os.W_OK):
        return ["-accel", "kvm", "-cpu", "host"]
    return ["-accel", "tcg", "-cpu", "cortex-a57"]


class Machine:
    """One machine, switched on. `image` holds kernel and initrd; `disks` are image files; `settings` are those of
    root/etc/machine/settings; `consoles` become the kernel's, of which the last is /dev/console. The serial line is read by
    this object, unless the caller's terminal is to be its other end."""

    def __init__(self, image, disks, settings=(), consoles=("ttyAMA0",), firmware=None, watch=None, terminal=False):
        self.ports = dict(zip(SERVICES, FreePorts(len(SERVICES))))
        self.text = ""
        self.pending = b""
        self.watch = watch
        self.folder = tempfile.TemporaryDirectory()  # the names of sockets are short
        forwards = "".join(f",hostfwd=tcp:127.0.0.1:{self.ports[name]}-:{port}" for name, port in SERVICES.items())
        kernel = [KERNEL, *(f"console={name}" for name in consoles)]
        kernel += [f"machine.{name}={Quoted(value)}" for name, value in dict(settings).items()]
        command = ["qemu-system-aarch64", "-M", "virt", *Accelerator(), "-smp", "2", "-m", "768", "-nodefaults", "-no-reboot",
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

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.Cut()

    def Read(self, seconds):
        """Appends what came over the serial line to `text`. False at its end, or when nothing came in time."""
        if not select.select([self.process.stdout], [], [], max(0, seconds))[0]:
            return False
        data = os.read(self.process.stdout.fileno(), 65536)
        # Line ends may come in two parts.
        text = (self.pending + data).replace(b"\r\n", b"\n")
        self.pending = text[-1:] if data and text.endswith(b"\r") else b""
        shown = text.removesuffix(self.pending).decode(errors="replace")
        self.text += shown
        if self.watch:
            self.watch(shown)
        return bool(data)

    def Expect(self, pattern, seconds=120, start=0):
        """Waits until the serial line showed the pattern at or after position `start`; returns the match."""
        deadline = time.monotonic() + seconds
        while True:
            match = re.compile(pattern, re.MULTILINE).search(self.text, start)
            if match:
                return match
            if not self.Read(deadline - time.monotonic()):
                raise AssertionError(f"the machine did not show {pattern!r} within {seconds} s:\n{self.text[start:]}")

    def Type(self, text):
        os.write(self.process.stdin.fileno(), text.encode())

    def RunFor(self, seconds):
        """Takes in what the machine shows for a time of its life."""
        deadline = time.monotonic() + seconds
        while time.monotonic() < deadline and self.process.poll() is None:
            self.Read(deadline - time.monotonic())

    def WaitForEnd(self, seconds=300):
        """Until it has switched itself off; after that time its power is cut."""
        deadline = time.monotonic() + seconds
        while self.Read(deadline - time.monotonic()):
            pass
        if time.monotonic() < deadline:
            self.process.wait()
        self.Cut()

    def Verdict(self):
        """The boot's own, or None when it did not come to one."""
        match = re.search(r"^machine: verdict (\d+)", self.text, re.MULTILINE)
        return int(match.group(1)) if match else None

    def Cut(self):
        """Cuts the power."""
        self.process.kill()
        self.process.wait()
        for stream in filter(None, (self.process.stdin, self.process.stdout)):
            stream.close()
        self.folder.cleanup()

    def Monitor(self, command, **arguments):
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

    def Press(self, *keys):
        """All of them together, on the machine's own keyboard."""
        self.Monitor("send-key", keys=[{"type": "qcode", "data": key} for key in keys])

    def Screenshot(self, path):
        self.Monitor("screendump", filename=str(path), format="png")
