"""The syslog socket of a host root, read by the test."""
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


class Syslog:
    """Takes every datagram as it comes, so that no sender ever waits for the test."""

    def __init__(self, root):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.path = root / "dev" / "log"
        directory = os.open(self.path.parent, os.O_PATH)
        try:
            # The path of a test's root may be longer than a socket's name can be.
            self.socket.bind(f"/proc/self/fd/{directory}/log")
        finally:
            os.close(directory)
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
