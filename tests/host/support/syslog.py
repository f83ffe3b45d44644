"""The syslog socket of a host root, read by the test."""
import contextlib
import dataclasses
import os
import re
import select
import socket
import threading

from support.waiting import Eventually

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
    def Parse(raw):
        text = raw.decode(errors="surrogateescape").rstrip("\0")
        match = re.match(r"<(\d+)>(?:\w{3} [ \d]\d \d\d:\d\d:\d\d )?([^\s:\[]+)(?:\[\d+\])?: ?(.*)", text, re.DOTALL)
        if match is None:
            raise AssertionError(f"no syslog record: {raw!r}")
        priority = int(match.group(1))
        return Record(priority & 7, priority >> 3, match.group(2), match.group(3), raw)


@contextlib.contextmanager
def ShortName(path):
    """Another name of a socket: the path of a test's root may be longer than a socket's name can be."""
    directory = os.open(path.parent, os.O_PATH)
    try:
        yield f"/proc/self/fd/{directory}/{path.name}"
    finally:
        os.close(directory)


class DeafSyslog:
    """A daemon that hangs: its socket is full from the start."""

    def __init__(self, root):
        self.path = root / "dev" / "log"
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        with ShortName(self.path) as name, socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as client:
            self.socket.bind(name)
            client.setblocking(False)
            with contextlib.suppress(BlockingIOError):
                while True:
                    client.sendto(b"other", name)
        self.path.chmod(0o666)

    def Close(self):
        self.socket.close()
        self.path.unlink(missing_ok=True)


class Syslog:
    """Takes every datagram as it comes, so that no sender ever waits for the test."""

    def __init__(self, root):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.path = root / "dev" / "log"
        with ShortName(self.path) as name:
            self.socket.bind(name)
        self.path.chmod(0o666)
        self.records = []
        self.lock = threading.Lock()
        self.waker = os.pipe()
        self.reader = threading.Thread(target=self.Read, daemon=True)
        self.reader.start()

    def Read(self):
        while True:
            if self.waker[0] in select.select([self.socket, self.waker[0]], [], [])[0]:
                return
            self.Drain()

    def Drain(self):
        with self.lock:
            while True:
                try:
                    self.records.append(Record.Parse(self.socket.recv(1 << 20, socket.MSG_DONTWAIT)))
                except BlockingIOError:
                    return

    def Records(self):
        """Everything sent so far; what a process sent before it ended is always in it."""
        self.Drain()
        return list(self.records)

    def Texts(self, severity=None):
        return [record.text for record in self.Records() if severity in (None, record.severity)]

    def WaitFor(self, text, seconds=10):
        Eventually(lambda: any(text in line for line in self.Texts()), f"syslog line with {text!r}", seconds)

    def Close(self):
        os.write(self.waker[1], b".")
        self.reader.join()
        self.socket.close()
        for descriptor in self.waker:
            os.close(descriptor)
        self.path.unlink(missing_ok=True)
