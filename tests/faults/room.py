#!/usr/bin/python3
"""Runs one command after another in a host root, as the first process of namespaces that are made once.

A request is a line on standard input, the answer one on standard output, both in JSON. Being the first process, this one
is given every orphan: it sees how each of them ended, and which are still there when the run should be over.
"""
import contextlib
import fcntl
import importlib.machinery
import importlib.util
import json
import os
import pathlib
import select
import signal
import socket
import sys
import time
import types

ENTER = pathlib.Path(__file__).resolve().parents[2] / "host" / "enter"
ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "TERM": "dumb"}
ORPHANS_MAY_TAKE = 5


def LoadEnter():
    loader = importlib.machinery.SourceFileLoader("enter", str(ENTER))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader("enter", loader))
    loader.exec_module(module)
    return module


class Room:
    def __init__(self, root):
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
        self.wakeUp, end = os.pipe2(os.O_NONBLOCK | os.O_CLOEXEC)
        os.set_blocking(end, False)
        signal.set_wakeup_fd(end)

    def Run(self, arguments, seconds):
        os.ftruncate(self.output, 0)
        self.records = []
        self.deaths = []
        deadline = time.monotonic() + seconds
        program = os.fork()
        if program == 0:
            self.Exec(arguments)
        status = self.Reap(deadline, program)
        # A little longer, for what the program has left to end by itself.
        isEmpty = status is not None and self.Reap(time.monotonic() + ORPHANS_MAY_TAKE) is None
        leftovers = [] if isEmpty else self.Processes()
        self.Clear()
        return {"status": status, "leftovers": leftovers, "deaths": self.deaths, "syslog": self.records,
                "output": os.pread(self.output, 1 << 24, 0).decode(errors="replace")}

    def Exec(self, arguments):
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

    def Reap(self, deadline, program=None):
        """Until the program has ended, whose status is returned, or there is no child any more (None); at most until the
        deadline, when it returns None for a program and False for its orphans."""
        while True:
            try:
                child, status = os.waitpid(-1, os.WNOHANG)
            except ChildProcessError:
                self.TakeRecords()
                return None
            if child != 0 and os.WIFSIGNALED(status) and child != program:
                self.deaths.append(os.WTERMSIG(status))
            if child != 0 and child == program:
                self.TakeRecords()
                return os.waitstatus_to_exitcode(status)
            if child != 0:
                continue
            left = deadline - time.monotonic()
            if left <= 0:
                return None if program else False
            if self.wakeUp in select.select([self.syslog, self.wakeUp], [], [], left)[0]:
                with contextlib.suppress(BlockingIOError):
                    os.read(self.wakeUp, 4096)
            self.TakeRecords()

    def TakeRecords(self):
        with contextlib.suppress(BlockingIOError):
            while True:
                self.records.append(self.syslog.recv(1 << 16).decode(errors="replace"))

    def Processes(self):
        lines = []
        for name in filter(str.isdigit, os.listdir(f"{self.root}/proc")):
            with contextlib.suppress(FileNotFoundError, ProcessLookupError):
                words = pathlib.Path(f"{self.root}/proc/{name}/cmdline").read_bytes().decode().split("\0")
                if name != "1" and words != [""]:
                    lines.append(f"{name} {' '.join(words).strip()}")
        return lines

    def Clear(self):
        """Ends what is left; nobody but this process is in the namespace then."""
        with contextlib.suppress(ProcessLookupError):
            os.kill(-1, signal.SIGKILL)
        with contextlib.suppress(ChildProcessError):
            while True:
                os.waitpid(-1, 0)


def Main():
    root = os.path.realpath(sys.argv[1])
    enter = LoadEnter()
    options = types.SimpleNamespace(root=root, net=True, bind=[], tmpfs=[], read_only=[])
    enter.Unshare(options)
    first = os.fork()
    if first != 0:
        sys.stdin.close()
        sys.exit(enter.WaitFor(first))
    enter.libc.prctl(enter.PR_SET_PDEATHSIG, signal.SIGKILL)
    enter.MakeMounts(options)
    enter.MountProc(root)
    room = Room(root)
    for line in sys.stdin:
        print(json.dumps(room.Run(**json.loads(line))), flush=True)


if __name__ == "__main__":
    Main()
