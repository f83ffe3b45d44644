"""A host root as a test sees it: a directory to put files into, commands to run in it, and what they leave."""
import dataclasses
import gzip
import os
import pathlib
import re
import subprocess

from support.syslog import DeafSyslog, Syslog
from support.terminal import Terminal

REPOSITORY = pathlib.Path(__file__).resolve().parents[3]
ENTER = REPOSITORY / "host" / "enter"
MKHOST = REPOSITORY / "host" / "mkhost"
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


@dataclasses.dataclass
class Outcome:
    """How a command ended. `leftovers` has one line, "<pid> <command line>", per process that it left behind."""
    status: int
    output: str
    errors: str
    leftovers: list

    def Log(self):
        """The log lines of standard output as "<level> <text>", without their time stamps; other lines are not the log's."""
        stamp = r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} (\w+) lofter: (.*)"
        return [" ".join(match.groups()) for match in map(re.compile(stamp).fullmatch, self.output.split("\n")) if match]


class Running:
    """A command that is running in a root. It ends with the test at the latest."""

    def __init__(self, arguments, leftovers, **settings):
        self.leftovers = leftovers
        self.process = subprocess.Popen(arguments, **settings)

    def Finish(self, timeout=60, input=None):
        """Waits for the end; a command that takes longer fails the test."""
        try:
            output, errors = self.process.communicate(input, timeout)
        except subprocess.TimeoutExpired:
            self.Kill()
            output, errors = self.process.communicate()
            raise AssertionError(f"still running after {timeout} s\noutput: {output!r}\nerrors: {errors!r}") from None
        self.leftovers.seek(0)
        return Outcome(self.process.returncode, Text(output), Text(errors), self.leftovers.read().decode().splitlines())

    def IsRunning(self):
        return self.process.poll() is None

    def Kill(self):
        """Ends the command and everything it started."""
        if self.IsRunning():
            self.process.kill()
            self.process.wait()


def Text(data):
    return "" if data is None else data.decode(errors="surrogateescape")


class Host:
    def __init__(self, root, work):
        self.root = root
        self.work = work
        self.running = []
        self.syslogs = []
        self.terminals = []
        self.logs = 0
        reports = self.root / REPORTS
        reports.mkdir(parents=True)
        reports.chmod(0o1777)
        for _, target in COUNTS:
            self.Path(str(target)).mkdir(parents=True)

    # Files. Paths are those inside the root.

    def Path(self, path):
        return self.root / path.lstrip("/")

    def Write(self, path, content, mode=0o644):
        """Replaces the file rather than writing into it: files are shared with the template by hard links."""
        target = self.Path(path)
        target.parent.mkdir(parents=True, exist_ok=True)
        target.unlink(missing_ok=True)
        target.write_bytes(content.encode(errors="surrogateescape") if isinstance(content, str) else content)
        target.chmod(mode)
        return target

    def WriteScript(self, path, body):
        return self.Write(path, f"#!/bin/sh\n{body}\n", 0o755)

    def Read(self, path):
        return Text(self.Path(path).read_bytes())

    def ReadGzip(self, path):
        return Text(gzip.decompress(self.Path(path).read_bytes()))

    def Exists(self, path):
        return os.path.lexists(self.Path(path))

    def DebugConfiguration(self, *lines):
        self.Write("/etc/tessel/lofter/debug.conf", "".join(f"{line}\n" for line in lines))

    def Plugin(self, name, content):
        return self.Write(f"/usr/libexec/lofter/plugins/{name}", content)

    # What the host records.

    def Syslog(self):
        """Binds /dev/log; messages sent from now on are the test's to read."""
        self.syslogs.append(Syslog(self.root))
        return self.syslogs[-1]

    def DeafSyslog(self):
        """Binds /dev/log, which takes nothing."""
        self.syslogs.append(DeafSyslog(self.root))

    def KernelLog(self):
        """Makes /dev/kmsg a plain file (each record is appended to it) and empties it."""
        self.Write("/dev/kmsg", "")

    def KernelLines(self):
        """The records: one per write, each opened by its priority."""
        return [line.rstrip("\n") for line in re.split(r"(?=<\d+>)", self.Read("/dev/kmsg")) if line]

    # Commands.

    def Terminal(self):
        self.terminals.append(Terminal())
        return self.terminals[-1]

    def Start(self, *command, environment=None, terminal=None, console=False, bind=(), tmpfs=(), readOnly=(), net=False,
              plain=False, heedModes=False, grace=0, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, passFds=(), wait=False):
        """Starts a command in the root.

        With a terminal, that is its standard streams and its controlling terminal; with `console`, /dev/console too.
        bind: (path on this machine, path in the root) pairs. tmpfs: (path, size) pairs. readOnly: paths.
        heedModes: file modes hold for root, too.
        grace: seconds that processes may take to end after the command did before they count as left behind.
        """
        self.logs += 1
        leftovers = open(self.work / f"leftovers.{self.logs}", "w+b")
        options = ["--leftovers", str(leftovers.fileno()), "--grace", str(grace)]
        if terminal is not None:
            stdin = stdout = stderr = terminal.slave
            if console:
                bind = [*bind, (terminal.path, "/dev/console")]
        options += [word for source, target in (*bind, *([] if plain else COUNTS)) for word in ("--bind", f"{source}:{target}")]
        options += [word for path, size in tmpfs for word in ("--tmpfs", f"{path}:{size}")]
        options += [word for path in readOnly for word in ("--read-only", path)]
        options += [name for name, on in (("--net", net), ("--heed-modes", heedModes), ("--plain", plain), ("--wait", wait)) if on]
        running = Running(
            [*DEFAULT_SIGNALS, str(ENTER), *options, str(self.root), "--", *map(str, command)], leftovers,
            stdin=stdin, stdout=stdout, stderr=stderr, pass_fds=[leftovers.fileno(), *passFds],
            env={**ENVIRONMENT, **(environment or {})},
            preexec_fn=terminal.BecomeControlling if terminal is not None else None)
        self.running.append(running)
        return running

    def Run(self, *command, timeout=60, input=None, **settings):
        if input is None:
            settings.setdefault("stdin", subprocess.DEVNULL)
        return self.Start(*command, **settings).Finish(timeout, input)

    def Lofter(self, *arguments, **settings):
        settings.setdefault("grace", 10)
        return self.Run("/usr/sbin/lofter", *arguments, **settings)

    def StartLofter(self, *arguments, **settings):
        """The executor process ends a moment after the run, hence the grace."""
        settings.setdefault("grace", 10)
        return self.Start("/usr/sbin/lofter", *arguments, **settings)

    def Restart(self):
        """A host comes up with an empty run directory; a run leaves the executor's socket in there, which the next must not find."""
        self.Path("/run/tessel/lofterExecutor.sock").unlink(missing_ok=True)

    # The end of a test.

    def Close(self):
        for running in self.running:
            running.Kill()
            running.process.communicate()
            running.leftovers.close()
        for thing in (*self.syslogs, *self.terminals):
            thing.Close()

    def SanitizerReports(self):
        return "\n".join(path.read_text(errors="replace") for path in sorted(self.Path(REPORTS).iterdir()))
