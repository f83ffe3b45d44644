"""The syslog socket of a host root, read by the test."""
import contextlib
import dataclasses
import os
import pathlib
import re
import select
import socket
import threading
from collections.abc import Iterator

from lofterdev.waiting import eventually

ERROR, WARNING, INFO = 3, 4, 6
ALERT = 1


@dataclasses.dataclass
class Record:
    severity: int
    facility: int
    identifier: str
    text: str
    raw: bytes

    @staticmethod
    def parse(raw: bytes) -> "Record":
        text = raw.decode(errors="surrogateescape").rstrip("\0")
        match = re.match(r"<(\d+)>(?:\w{3} [ \d]\d \d\d:\d\d:\d\d )?([^\s:\[]+)(?:\[\d+\])?: ?(.*)", text, re.DOTALL)
        if match is None:
            raise AssertionError(f"no syslog record: {raw!r}")
        priority = int(match.group(1))
        return Record(priority & 7, priority >> 3, match.group(2), match.group(3), raw)


@contextlib.contextmanager
def short_name(path: pathlib.Path) -> Iterator[str]:
    """Another name of a socket: the path of a test's root may be longer than a socket's name can be."""
    directory = os.open(path.parent, os.O_PATH)
    try:
        yield f"/proc/self/fd/{directory}/{path.name}"
    finally:
        os.close(directory)


class DeafSyslog:
    """A daemon that hangs: its socket is full from the start."""

    def __init__(self, root: pathlib.Path) -> None:
        self.path = root / "dev" / "log"
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        with short_name(self.path) as name, socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as client:
            self.socket.bind(name)
            client.setblocking(False)
            with contextlib.suppress(BlockingIOError):
                while True:
                    client.sendto(b"other", name)
        self.path.chmod(0o666)

    def close(self) -> None:
        self.socket.close()
        self.path.unlink(missing_ok=True)


class Syslog:
    """Takes every datagram as it comes, so that no sender ever waits for the test."""

    def __init__(self, root: pathlib.Path) -> None:
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.path = root / "dev" / "log"
        with short_name(self.path) as name:
            self.socket.bind(name)
        self.path.chmod(0o666)
        self.taken: list[Record] = []
        self.lock = threading.Lock()
        self.waker = os.pipe()
        self.reader = threading.Thread(target=self.read, daemon=True)
        self.reader.start()

    def read(self) -> None:
        while True:
            if self.waker[0] in select.select([self.socket, self.waker[0]], [], [])[0]:
                return
            self.drain()

    def drain(self) -> None:
        with self.lock:
            while True:
                try:
                    self.taken.append(Record.parse(self.socket.recv(1 << 20, socket.MSG_DONTWAIT)))
                except BlockingIOError:
                    return

    def records(self) -> list[Record]:
        """Everything sent so far; what a process sent before it ended is always in it."""
        self.drain()
        return list(self.taken)

    def texts(self, severity: int | None = None) -> list[str]:
        return [record.text for record in self.records() if severity in (None, record.severity)]

    def wait_for(self, text: str, seconds: float = 10) -> None:
        eventually(lambda: any(text in line for line in self.texts()), f"syslog line with {text!r}", seconds)

    def close(self) -> None:
        os.write(self.waker[1], b".")
        self.reader.join()
        self.socket.close()
        for descriptor in self.waker:
            os.close(descriptor)
        self.path.unlink(missing_ok=True)
