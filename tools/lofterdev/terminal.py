"""A pseudo-terminal: the operator's side of it."""
import fcntl
import os
import pty
import select
import termios
import time
from typing import Any


class Terminal:
    def __init__(self) -> None:
        self.master, self.slave = pty.openpty()
        self.path = os.ttyname(self.slave)
        self.output = b""

    def type(self, keys: bytes | str) -> None:
        os.write(self.master, keys if isinstance(keys, bytes) else keys.encode())

    def modes(self) -> list[Any]:
        return termios.tcgetattr(self.slave)

    def read(self, seconds: float = 0) -> bool:
        """Appends what was written so far to `output`; with a bound, waits for some. False when there was nothing."""
        if not select.select([self.master], [], [], seconds)[0]:
            return False
        self.output += os.read(self.master, 65536)
        return True

    def expect(self, text: bytes | str, seconds: float = 10, start: int = 0) -> int:
        """Waits until the text was written at or after position `start`; returns the position behind it."""
        text = text if isinstance(text, bytes) else text.encode()
        deadline = time.monotonic() + seconds
        while text not in self.output[start:]:
            left = deadline - time.monotonic()
            if left <= 0 or not self.read(left):
                raise AssertionError(f"not on the terminal within {seconds} s: {text!r}; there was {self.output[start:]!r}")
        return self.output.index(text, start) + len(text)

    def everything(self) -> bytes:
        """All that was written, for after the writer has ended."""
        while self.read():
            pass
        return self.output

    def become_controlling(self) -> None:
        """For the child between fork and exec."""
        os.setsid()
        fcntl.ioctl(self.slave, termios.TIOCSCTTY, 0)

    def close(self) -> None:
        os.close(self.master)
        os.close(self.slave)
