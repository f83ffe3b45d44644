"""A pseudo-terminal: the operator's side of it."""
import fcntl
import os
import pty
import select
import termios
import time


class Terminal:
    def __init__(self):
        self.master, self.slave = pty.openpty()
        self.path = os.ttyname(self.slave)
        self.output = b""

    def Type(self, keys):
        os.write(self.master, keys if isinstance(keys, bytes) else keys.encode())

    def Modes(self):
        return termios.tcgetattr(self.slave)

    def Read(self, seconds=0):
        """Appends what was written so far to `output`; with a bound, waits for some. False when there was nothing."""
        if not select.select([self.master], [], [], seconds)[0]:
            return False
        self.output += os.read(self.master, 65536)
        return True

    def Expect(self, text, seconds=10, start=0):
        """Waits until the text was written at or after position `start`; returns the position behind it."""
        text = text if isinstance(text, bytes) else text.encode()
        deadline = time.monotonic() + seconds
        while text not in self.output[start:]:
            left = deadline - time.monotonic()
            if left <= 0 or not self.Read(left):
                raise AssertionError(f"not on the terminal within {seconds} s: {text!r}; there was {self.output[start:]!r}")
        return self.output.index(text, start) + len(text)

    def Everything(self):
        """All that was written, for after the writer has ended."""
        while self.Read():
            pass
        return self.output

    def BecomeControlling(self):
        """For the child between fork and exec."""
        os.setsid()
        fcntl.ioctl(self.slave, termios.TIOCSCTTY, 0)

    def Close(self):
        os.close(self.master)
        os.close(self.slave)
