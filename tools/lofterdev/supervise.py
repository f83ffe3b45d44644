"""Supervises a command in a host root, so that nothing of it outlives the call.

entering.py starts this file by its path, in namespaces that are made already or, where the kernel grants none, in none.
It imports what a moment suffices for: every host test waits for it several times.

    supervise.py [root=DIRECTORY] [setup=SCRIPT] [wait=1] [leftovers=FD] [grace=SECONDS] -- COMMAND [ARGUMENT...]

`setup` is a shell script for the mounts; without one the root is a plain chroot. It waits for the command, reaps what
daemons leave behind, ends what is still running, and passes on the command's exit status (128 + N after signal N).
"""
import ctypes
import errno
import os
import signal
import sys
import time
import warnings  # noqa: F401  # os.execvpe wants it, and is called where there is no Python any more
from collections.abc import Callable

# Of the kernel's prctl, which no command of util-linux calls for us: the death signal of setpriv is its own command's, not
# that of a child, and nothing there makes a process the one that is given orphans.
PR_SET_PDEATHSIG, PR_SET_CHILD_SUBREAPER = 1, 36

ENDING = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)


class Processes:
    """The processes below this one, seen through a /proc that was opened before the root changed."""

    def __init__(self, proc: str) -> None:
        self.directory = os.open(proc, os.O_RDONLY | os.O_DIRECTORY)
        self.me = int(os.readlink("self", dir_fd=self.directory))

    def read(self, name: str) -> bytes:
        with os.fdopen(os.open(name, os.O_RDONLY, dir_fd=self.directory), "rb") as stream:
            return stream.read()

    def below(self) -> list[int]:
        """Process ids, nearest first. Zombies that wait to be reaped do not count."""
        children: dict[int, list[tuple[int, bytes]]] = {}
        for name in filter(str.isdigit, os.listdir(self.directory)):
            try:
                state, parent = self.read(f"{name}/stat").rpartition(b")")[2].split()[:2]
            except (FileNotFoundError, ProcessLookupError):
                continue
            children.setdefault(int(parent), []).append((int(name), state))
        found, queue = [], [self.me]
        while queue:
            for pid, state in children.get(queue.pop(), []):
                queue.append(pid)
                if state not in (b"Z", b"X"):
                    found.append(pid)
        return found

    def describe(self, pid: int) -> str | None:
        try:
            words = self.read(f"{pid}/cmdline").split(b"\0")
            return f"{pid} {b' '.join(words).decode(errors='replace').strip() or '-'}"
        except (FileNotFoundError, ProcessLookupError):
            return None


class Supervisor:
    def __init__(self, options: dict[str, str], command: list[str], mask: set[int]) -> None:
        """The mask is the one that the command gets."""
        self.root = options["root"]
        self.setup = options.get("setup")
        self.wait = "wait" in options
        self.leftovers = int(options["leftovers"]) if "leftovers" in options else None
        self.grace = float(options.get("grace", 0))
        self.command = command
        self.mask = mask

    def run(self) -> int:
        return self.run_plain() if self.setup is None else self.run_isolated(self.setup)

    def run_isolated(self, setup: str) -> int:
        """The child is the first process of the process namespace, which ends with it."""
        first = os.fork()
        if first == 0:
            prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
            shell = os.posix_spawn("/bin/sh", ["sh", "-euc", setup], os.environ)
            if os.waitpid(shell, 0)[1] != 0:
                os._exit(1)
            os._exit(self.supervise(self.enter(f"{self.root}/proc")))

        def end() -> None:
            os.kill(first, signal.SIGKILL)
            os.waitpid(first, 0)
        end_by_signals(end)
        return exit_status(os.waitpid(first, 0)[1])

    def run_plain(self) -> int:
        prctl(PR_SET_CHILD_SUBREAPER, 1)
        processes = self.enter("/proc")
        end_by_signals(lambda: end_everything(processes))
        status = self.supervise(processes)
        end_everything(processes)
        return status

    def enter(self, proc: str) -> Processes:
        processes = Processes(proc)
        os.chroot(self.root)
        os.chdir("/")
        return processes

    def supervise(self, processes: Processes) -> int:
        """Runs the command in the root that this process is in already; returns the exit status to pass on."""
        signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGCHLD])
        command = os.fork()
        if command == 0:
            self.become_command()
        status = reap(command)
        assert status is not None
        if self.wait:
            reap()
        if self.leftovers is not None:
            reap(deadline=time.monotonic() + self.grace)
            lines = filter(None, map(processes.describe, processes.below()))
            os.write(self.leftovers, "".join(f"{line}\n" for line in lines).encode())
        return exit_status(status)

    def become_command(self) -> None:
        for number in (signal.SIGPIPE, signal.SIGXFSZ):  # which Python ignores
            signal.signal(number, signal.SIG_DFL)
        if self.leftovers is not None:
            os.set_inheritable(self.leftovers, False)
        signal.pthread_sigmask(signal.SIG_SETMASK, self.mask)
        try:
            os.execvpe(self.command[0], self.command, os.environ)
        except OSError as error:
            os.write(2, f"enter: {self.command[0]}: {error.strerror}\n".encode())
            os._exit(127 if error.errno == errno.ENOENT else 126)


def prctl(option: int, value: int) -> None:
    if ctypes.CDLL(None, use_errno=True).prctl(option, value) != 0:
        raise OSError(ctypes.get_errno(), "prctl")


def exit_status(status: int) -> int:
    code = os.waitstatus_to_exitcode(status)
    return code if code >= 0 else 128 - code


def reap(command: int | None = None, deadline: float | None = None) -> int | None:
    """Reaps children until `command` is among them (its wait status is returned), or none is left, or time is up (None)."""
    while True:
        try:
            pid, status = os.waitpid(-1, 0 if deadline is None else os.WNOHANG)
        except ChildProcessError:
            return None
        if pid != 0 and pid == command:
            return status
        if pid == 0 and deadline is not None:
            left = deadline - time.monotonic()
            if left <= 0:
                return None
            signal.sigtimedwait([signal.SIGCHLD], left)


def end_everything(processes: Processes) -> None:
    """Also what forks while it is being ended: until there is nobody left to wait for."""
    while True:
        for pid in processes.below():
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        try:
            os.waitpid(-1, 0)
        except ChildProcessError:
            return


def end_by_signals(end: Callable[[], object]) -> None:
    """A signal that would end this process ends everything in the root before it."""
    def handle(number: int, _: object) -> None:
        end()
        os._exit(128 + number)
    for number in ENDING:
        signal.signal(number, handle)


def main() -> None:
    signal.signal(signal.SIGINT, signal.SIG_DFL)
    words = sys.argv[1:]
    options = dict(word.split("=", 1) for word in words[:words.index("--")])
    supervisor = Supervisor(options, words[words.index("--") + 1:], signal.pthread_sigmask(signal.SIG_BLOCK, []))
    sys.exit(supervisor.run())


if __name__ == "__main__":
    main()
