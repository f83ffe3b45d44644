"""A host root as a test sees it: a directory to put files into, commands to run in it, and what they leave."""
import dataclasses
import gzip
import os
import pathlib
import re
import subprocess
from collections.abc import Iterable, Mapping
from typing import Any, BinaryIO, IO

from lofterdev.entering import entry_command, Pairs
from lofterdev.repository import REPOSITORY, Word
from lofterdev.syslog import DeafSyslog, Syslog
from lofterdev.terminal import Terminal

BUILD = pathlib.Path(os.environ.get("LOFTER_BUILD", REPOSITORY / "build" / "release")).absolute()

# A build that counts the lines that run writes its counts beside its object files, from inside of every root, too.
COUNTS = [(BUILD, BUILD)] if "LOFTER_COVERAGE:BOOL=ON" in (BUILD / "CMakeCache.txt").read_text() else []

REPORTS = "var/sanitizer"
ENVIRONMENT = {
    "PATH": "/usr/sbin:/usr/bin:/sbin:/bin",
    "TERM": "dumb",
    # Children close or redirect their standard error, so reports go to files of their own, which every test checks.
    "ASAN_OPTIONS": f"log_path=/{REPORTS}/report:detect_leaks=1:detect_stack_use_after_return=1",
    "UBSAN_OPTIONS": f"log_path=/{REPORTS}/report:print_stacktrace=1",
    "TSAN_OPTIONS": f"log_path=/{REPORTS}/report:die_after_fork=0:second_deadlock_stack=1",
}
# Whoever started the tests may ignore signals, which they would pass on; a command in the background of a shell does.
DEFAULT_SIGNALS = ["env", "--default-signal=INT,TERM,HUP"]

Stream = int | IO[Any] | None


@dataclasses.dataclass
class Outcome:
    """How a command ended. `leftovers` has one line, "<pid> <command line>", per process that it left behind."""
    status: int
    output: str
    errors: str
    leftovers: list[str]

    def log(self) -> list[str]:
        """The log lines of standard output as "<level> <text>", without their time stamps; other lines are not the log's."""
        stamp = r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} (\w+) lofter: (.*)"
        return [" ".join(match.groups()) for match in map(re.compile(stamp).fullmatch, self.output.split("\n")) if match]


class Running:
    """A command that is running in a root. It ends with the test at the latest."""

    def __init__(self, arguments: list[str], leftovers: BinaryIO, **settings: Any) -> None:
        self.leftovers = leftovers
        self.process: subprocess.Popen[bytes] = subprocess.Popen(arguments, **settings)

    def finish(self, timeout: float = 60, input: bytes | None = None) -> Outcome:
        """Waits for the end; a command that takes longer fails the test."""
        try:
            output, errors = self.process.communicate(input, timeout)
        except subprocess.TimeoutExpired:
            self.kill()
            output, errors = self.process.communicate()
            raise AssertionError(f"still running after {timeout} s\noutput: {output!r}\nerrors: {errors!r}") from None
        self.leftovers.seek(0)
        return Outcome(self.process.returncode, text(output), text(errors), self.leftovers.read().decode().splitlines())

    def is_running(self) -> bool:
        return self.process.poll() is None

    def kill(self) -> None:
        """Ends the command and everything it started."""
        if self.is_running():
            self.process.kill()
            self.process.wait()


def text(data: bytes | None) -> str:
    return "" if data is None else data.decode(errors="surrogateescape")


class Host:
    def __init__(self, root: pathlib.Path, work: pathlib.Path) -> None:
        self.root = root
        self.work = work
        self.running: list[Running] = []
        self.syslogs: list[Syslog | DeafSyslog] = []
        self.terminals: list[Terminal] = []
        self.logs = 0
        reports = self.root / REPORTS
        reports.mkdir(parents=True)
        reports.chmod(0o1777)
        for _, target in COUNTS:
            self.path(str(target)).mkdir(parents=True)

    # Files. Paths are those inside the root.

    def path(self, path: str) -> pathlib.Path:
        return self.root / path.lstrip("/")

    def write(self, path: str, content: bytes | str, mode: int = 0o644) -> pathlib.Path:
        """Replaces the file rather than writing into it: files are shared with the template by hard links."""
        target = self.path(path)
        target.parent.mkdir(parents=True, exist_ok=True)
        target.unlink(missing_ok=True)
        target.write_bytes(content.encode(errors="surrogateescape") if isinstance(content, str) else content)
        target.chmod(mode)
        return target

    def write_script(self, path: str, body: str) -> pathlib.Path:
        return self.write(path, f"#!/bin/sh\n{body}\n", 0o755)

    def read(self, path: str) -> str:
        return text(self.path(path).read_bytes())

    def read_gzip(self, path: str) -> str:
        return text(gzip.decompress(self.path(path).read_bytes()))

    def exists(self, path: str) -> bool:
        return os.path.lexists(self.path(path))

    def debug_configuration(self, *lines: str) -> None:
        self.write("/etc/tessel/lofter/debug.conf", "".join(f"{line}\n" for line in lines))

    def plugin(self, name: str, content: bytes | str) -> pathlib.Path:
        return self.write(f"/usr/libexec/lofter/plugins/{name}", content)

    # What the host records.

    def syslog(self) -> Syslog:
        """Binds /dev/log; messages sent from now on are the test's to read."""
        syslog = Syslog(self.root)
        self.syslogs.append(syslog)
        return syslog

    def deaf_syslog(self) -> None:
        """Binds /dev/log, which takes nothing."""
        self.syslogs.append(DeafSyslog(self.root))

    def kernel_log(self) -> None:
        """Makes /dev/kmsg a plain file (each record is appended to it) and empties it."""
        self.write("/dev/kmsg", "")

    def kernel_lines(self) -> list[str]:
        """The records: one per write, each opened by its priority."""
        return [line.rstrip("\n") for line in re.split(r"(?=<\d+>)", self.read("/dev/kmsg")) if line]

    # Commands.

    def terminal(self) -> Terminal:
        terminal = Terminal()
        self.terminals.append(terminal)
        return terminal

    def start(self, *command: Word, environment: Mapping[str, str] | None = None, terminal: Terminal | None = None, console: bool = False,
              bind: Pairs = (), tmpfs: Iterable[tuple[str, str]] = (), read_only: Iterable[str] = (), net: bool = False,
              plain: bool = False, heed_modes: bool = False, grace: float = 0, stdin: Stream = subprocess.PIPE,
              stdout: Stream = subprocess.PIPE, stderr: Stream = subprocess.PIPE, pass_fds: Iterable[int] = (),
              wait: bool = False) -> Running:
        """Starts a command in the root.

        With a terminal, that is its standard streams and its controlling terminal; with `console`, /dev/console too.
        bind: (path on this machine, path in the root) pairs. tmpfs: (path, size) pairs. read_only: paths.
        heed_modes: file modes hold for root, too.
        grace: seconds that processes may take to end after the command did before they count as left behind.
        """
        self.logs += 1
        leftovers = open(self.work / f"leftovers.{self.logs}", "w+b")
        if terminal is not None:
            stdin = stdout = stderr = terminal.slave
            if console:
                bind = [*bind, (terminal.path, "/dev/console")]
        entry = entry_command(self.root, command, bind=[*bind, *([] if plain else COUNTS)], tmpfs=tmpfs, read_only=read_only, net=net,
                              heed_modes=heed_modes, plain=plain, wait=wait, leftovers=leftovers.fileno(), grace=grace)
        running = Running(
            [*DEFAULT_SIGNALS, *entry], leftovers,
            stdin=stdin, stdout=stdout, stderr=stderr, pass_fds=[leftovers.fileno(), *pass_fds],
            env={**ENVIRONMENT, **(environment or {})},
            preexec_fn=terminal.become_controlling if terminal is not None else None)
        self.running.append(running)
        return running

    def run(self, *command: Word, timeout: float = 60, input: bytes | None = None, **settings: Any) -> Outcome:
        if input is None:
            settings.setdefault("stdin", subprocess.DEVNULL)
        return self.start(*command, **settings).finish(timeout, input)

    def lofter(self, *arguments: Word, **settings: Any) -> Outcome:
        settings.setdefault("grace", 10)
        return self.run("/usr/sbin/lofter", *arguments, **settings)

    def start_lofter(self, *arguments: Word, **settings: Any) -> Running:
        """The executor process ends a moment after the run, hence the grace."""
        settings.setdefault("grace", 10)
        return self.start("/usr/sbin/lofter", *arguments, **settings)

    def restart(self) -> None:
        """A host comes up with an empty run directory; a run leaves the executor's socket in there, which the next must not find."""
        self.path("/run/tessel/lofterExecutor.sock").unlink(missing_ok=True)

    # The end of a test.

    def close(self) -> None:
        for running in self.running:
            running.kill()
            running.process.communicate()
            running.leftovers.close()
        for syslog in self.syslogs:
            syslog.close()
        for terminal in self.terminals:
            terminal.close()

    def sanitizer_reports(self) -> str:
        return "\n".join(path.read_text(errors="replace") for path in sorted(self.path(REPORTS).iterdir()))
