"""Runs one command after another in a host root, as the first process of namespaces that are made once.

A request is a line on standard input, the answer one on standard output, both in JSON. Being the first process, this one
is given every orphan: it sees how each of them ended, and which are still there when the run should be over.
"""
import contextlib
import fcntl
import json
import os
import pathlib
import select
import signal
import socket
import sys
import time
from typing import Any

ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "TERM": "dumb"}
ORPHANS_MAY_TAKE = 5


class Room:
    def __init__(self, root: str) -> None:
        self.root = root
        self.output = os.memfd_create("output")
        fcntl.fcntl(self.output, fcntl.F_SETFL, os.O_APPEND)  # otherwise processes that write at once overwrite each other
        self.syslog = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        os.chdir(f"{root}/dev")  # a socket's name is short
        with contextlib.suppress(FileNotFoundError):
            os.unlink("log")
        self.syslog.bind("log")
        self.syslog.setblocking(False)
        signal.signal(signal.SIGCHLD, lambda *_: None)
        self.wake_up, end = os.pipe2(os.O_NONBLOCK | os.O_CLOEXEC)
        os.set_blocking(end, False)
        signal.set_wakeup_fd(end)

    def run(self, arguments: list[str], seconds: float) -> dict[str, Any]:
        os.ftruncate(self.output, 0)
        self.records: list[str] = []
        self.deaths: list[int] = []
        deadline = time.monotonic() + seconds
        program = os.fork()
        if program == 0:
            self.become(arguments)
        status = self.reap(deadline, program)
        # A little longer, for what the program has left to end by itself.
        is_empty = status is not None and self.reap(time.monotonic() + ORPHANS_MAY_TAKE) is None
        leftovers = [] if is_empty else self.processes()
        self.clear()
        return {"status": status, "leftovers": leftovers, "deaths": self.deaths, "syslog": self.records,
                "output": os.pread(self.output, 1 << 24, 0).decode(errors="replace")}

    def become(self, arguments: list[str]) -> None:
        os.chroot(self.root)
        os.chdir("/")
        os.dup2(os.open("/dev/null", os.O_RDONLY), 0)
        os.dup2(self.output, 1)
        os.dup2(self.output, 2)
        for number in (signal.SIGPIPE, signal.SIGXFSZ):  # which Python ignores
            signal.signal(number, signal.SIG_DFL)
        try:
            os.execve(arguments[0], arguments, ENVIRONMENT)
        finally:
            os._exit(127)

    def reap(self, deadline: float, program: int | None = None) -> int | bool | None:
        """Until the program has ended, whose status is returned, or there is no child any more (None); at most until the
        deadline, when it returns None for a program and False for its orphans."""
        while True:
            try:
                child, status = os.waitpid(-1, os.WNOHANG)
            except ChildProcessError:
                self.take_records()
                return None
            if child != 0 and os.WIFSIGNALED(status) and child != program:
                self.deaths.append(os.WTERMSIG(status))
            if child != 0 and child == program:
                self.take_records()
                return os.waitstatus_to_exitcode(status)
            if child != 0:
                continue
            left = deadline - time.monotonic()
            if left <= 0:
                return None if program else False
            if self.wake_up in select.select([self.syslog, self.wake_up], [], [], left)[0]:
                with contextlib.suppress(BlockingIOError):
                    os.read(self.wake_up, 4096)
            self.take_records()

    def take_records(self) -> None:
        with contextlib.suppress(BlockingIOError):
            while True:
                self.records.append(self.syslog.recv(1 << 16).decode(errors="replace"))

    def processes(self) -> list[str]:
        lines = []
        for name in filter(str.isdigit, os.listdir(f"{self.root}/proc")):
            with contextlib.suppress(FileNotFoundError, ProcessLookupError):
                words = pathlib.Path(f"{self.root}/proc/{name}/cmdline").read_bytes().decode().split("\0")
                if name != "1" and words != [""]:
                    lines.append(f"{name} {' '.join(words).strip()}")
        return lines

    def clear(self) -> None:
        """Ends what is left; nobody but this process is in the namespace then."""
        with contextlib.suppress(ProcessLookupError):
            os.kill(-1, signal.SIGKILL)
        with contextlib.suppress(ChildProcessError):
            while True:
                os.waitpid(-1, 0)


def main() -> None:
    signal.signal(signal.SIGINT, lambda *_: os._exit(128 + signal.SIGINT))  # and everything in the namespace with it
    room = Room(os.path.realpath(sys.argv[1]))
    for line in sys.stdin:
        print(json.dumps(room.run(**json.loads(line))), flush=True)


if __name__ == "__main__":
    main()
