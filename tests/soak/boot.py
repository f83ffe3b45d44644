"""One boot of the soak: draws a host, makes it, runs it, and compares every run with what the model says."""
import contextlib
import dataclasses
import os
import pathlib
import shutil
import subprocess
import sys
import time

from compare import Comparison
from generate import DrawHost
from model import Model
from support.host import Host
from support.waiting import Eventually
from workshop import PLUGINS

ARCHIVE, PROFILE, MARKS, DUMP, ALERT = "/bootbank/loftsave.gz", "/var/log/sysboot.log", "/var/marks", "/var/tree.dot", "/run/issue.d/50-lofter.issue"
BOUND = 120

sys.setrecursionlimit(10000)


@dataclasses.dataclass
class Result:
    seed: int
    problems: list
    runs: int = 0
    plugins: int = 0
    lost: bool = False  # nothing is wrong but that records did not reach the syslog socket
    repeats: int = 0
    kept: str = None


class Seen:
    """What a run left."""

    def __init__(self, host):
        self.host = host
        self.archiveBefore, self.profileBefore = self.Bytes(ARCHIVE), self.Text(PROFILE)
        self.times = [time.time_ns() // 1000]
        self.uptimes = [int(time.clock_gettime(time.CLOCK_BOOTTIME))]

    def Bytes(self, path):
        return self.host.Path(path).read_bytes() if self.host.Exists(path) else None

    def Text(self, path):
        content = self.Bytes(path)
        return None if content is None else content.decode(errors="surrogateescape")

    def Collect(self, outcome, output, records):
        self.times.append(time.time_ns() // 1000)
        self.uptimes.append(int(time.clock_gettime(time.CLOCK_BOOTTIME)) + 1)
        self.status, self.leftovers = outcome.status, outcome.leftovers
        self.output, self.errors = output
        self.records = records
        prefix = "<6>lofter: "
        self.kernel = [line[len(prefix):] if line.startswith(prefix) else line for line in self.host.KernelLines()]
        self.marks = (self.Text(MARKS) or "").split("\n")[:-1]
        self.archive, self.profile = self.Bytes(ARCHIVE), self.Text(PROFILE)
        self.dump, self.alert = self.Text(DUMP), self.Text(ALERT)
        self.logFiles = set(os.listdir(self.host.Path("/var/log")))
        self.bankFiles = set(os.listdir(self.host.Path("/bootbank")))


def Expect(plan, run, host):
    archive = host.ReadGzip(ARCHIVE) if host.Exists(ARCHIVE) else None
    hasProfile = host.Exists(PROFILE) and host.Path(PROFILE).stat().st_size > 0
    return Model(plan, run, os.listdir(host.Path(PLUGINS)), archive, hasProfile).Predict()


def Settle(host, expected, running, syslog, output):
    """Waits until a run has done all it can do before it waits for ever. Says what is wrong with that."""
    lines = sum(line.origin == "main" for line in expected.log)

    def Stands():
        shown = pathlib.Path(output.name).read_bytes().count(b" lofter: ")
        return shown >= lines and len(host.KernelLines()) >= len(expected.kernel) or not running.IsRunning()
    Eventually(Stands, "everything that a cycle does not hold up", BOUND)
    with contextlib.suppress(AssertionError):  # what is missing in the end is told with the rest
        Eventually(lambda: len(syslog.Records()) >= len(expected.log), "all records")
    return [] if running.IsRunning() else ["the run ended in spite of a cycle"]


def MakeRun(plan, run, host, work):
    """Returns (expectation, differences, lost records)."""
    host.Restart()
    host.KernelLog()
    for path in (MARKS, DUMP, ALERT):
        host.Path(path).unlink(missing_ok=True)
    host.Write(MARKS, "", 0o666)
    expected = Expect(plan, run, host)
    syslog = host.Syslog()
    problems = []
    with open(work / "output", "w+b") as output, open(work / "errors", "w+b") as errors:
        seen = Seen(host)
        running = host.StartLofter(*run.Arguments(), stdin=subprocess.DEVNULL, stdout=output, stderr=errors)
        try:
            if expected.waits:
                problems = Settle(host, expected, running, syslog, output)
                running.Kill()
            outcome = running.Finish(BOUND)
        except AssertionError as error:
            running.Kill()
            problems.append(str(error))
            outcome = running.Finish(BOUND)
        texts = []
        for stream in (output, errors):
            stream.seek(0)
            texts.append(stream.read().decode(errors="surrogateescape"))
    if expected.waits:
        outcome.status, outcome.leftovers = expected.status, []
    seen.Collect(outcome, texts, syslog.Records())
    syslog.Close()
    host.syslogs.remove(syslog)
    reports = host.SanitizerReports()
    comparison = Comparison(plan, run, expected, seen)
    problems += comparison.Whole() + ([reports] if reports else [])
    return expected, problems, comparison.lost


def MakeBoot(seed, workshop):
    """The program does not wait for a syslog daemon that reads nothing for a fifth of a second, and on a busy machine the
    one in here may be that. It is not that three times, so a boot that merely lost records is made again."""
    for repeats in range(3):
        result = TryBoot(seed, workshop)
        result.repeats = repeats
        if not result.lost:
            break
    return result


def TryBoot(seed, workshop):
    plan = DrawHost(seed)
    work = workshop.folder / f"boot-{seed}"
    shutil.rmtree(work, ignore_errors=True)
    work.mkdir()
    subprocess.run(["cp", "-al", workshop.template, work / "root"], check=True)
    host = Host(work / "root", work)
    result = Result(seed, [])
    try:
        workshop.Furnish(host, plan)
        for run in plan.runs:
            expected, problems, lost = MakeRun(plan, run, host, work)
            result.runs += 1
            result.plugins += len(expected.ran)
            result.lost = bool(lost) and not problems
            if problems or lost:
                command = " ".join(["/usr/sbin/lofter", *map(repr, run.Arguments())])
                result.problems += [f"run {result.runs} of {len(plan.runs)}: {command}", *problems, *lost]
                break
    finally:
        host.Close()
    if result.problems:
        result.kept = work
    else:
        shutil.rmtree(work)
    return result
