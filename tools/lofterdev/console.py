"""A terminal of its own for a command in a host root, which is also its console, relayed to the caller's."""
import fcntl
import os
import pty
import select
import signal
import subprocess
import sys
import termios
import tty
from collections.abc import Callable

from lofterdev.supervise import ENDING

KEYBOARD, SCREEN = 0, 1


def run_on_own_console(enter_with: Callable[[str], list[str]]) -> int:
    """Runs the command that is given for the name of a terminal; returns the exit status to pass on.

    The command's troubleshooting shell takes its terminal over as controlling terminal; the caller's must not be that one.
    Nor is it another session's before: only real root may take it over then, and to an ordinary user's host nobody is that.
    However this ends, the caller's terminal is as before, and nothing of the command is left.
    """
    before = termios.tcgetattr(KEYBOARD)
    master, slave = pty.openpty()

    def copy_size(*_: object) -> None:
        fcntl.ioctl(master, termios.TIOCSWINSZ, fcntl.ioctl(KEYBOARD, termios.TIOCGWINSZ, bytes(8)))

    def end(number: int, _: object) -> None:
        sys.exit(128 + number)
    copy_size()
    child = subprocess.Popen(enter_with(os.ttyname(slave)), stdin=slave, stdout=slave, stderr=slave, start_new_session=True,
                             close_fds=False)
    os.close(slave)
    signal.signal(signal.SIGWINCH, copy_size)
    for number in ENDING:
        signal.signal(number, end)
    try:
        tty.setraw(KEYBOARD)
        relay(master)
    except (SystemExit, BrokenPipeError) as ending:
        child.terminate()
        child.wait()
        if isinstance(ending, BrokenPipeError):
            sys.exit(128 + signal.SIGPIPE)
        os.write(SCREEN, b"\x1b[0m\x1b[?25h\r\n")  # a prompt may have hidden the cursor
        raise
    finally:
        termios.tcsetattr(KEYBOARD, termios.TCSADRAIN, before)
    return child.wait()


def relay(master: int) -> None:
    """Until the last process has let go of the terminal, which reads as an error here."""
    sources = [KEYBOARD, master]
    while True:
        for source in select.select(sources, [], [])[0]:
            try:
                data = os.read(source, 65536)
            except OSError:
                data = b""
            if source == master and not data:
                return
            if not data:
                sources.remove(KEYBOARD)
            if source == KEYBOARD and b"\x03" in data and os.tcgetpgrp(master) == 0:
                # The key is for a troubleshooting shell's jobs. Without such a shell nobody is interrupted by it: the run is.
                sys.exit(128 + signal.SIGINT)
            view = memoryview(data)
            while view:
                view = view[os.write(SCREEN if source == master else master, view):]
