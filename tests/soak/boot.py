"""One boot of the soak: draws a host, makes it, runs it, and compares every run with what the model says."""
import contextlib
import dataclasses
import os
import pathlib
import shutil
import subprocess
import sys
from typing import BinaryIO

from compare import Comparison
from forecast import Foretelling
from generate import draw_host
from lofterdev.host import Host, Running
from lofterdev.syslog import Syslog
from lofterdev.waiting import eventually
from model import Expectation, Model
from plan import HostPlan, Run
from seen import ALERT, ARCHIVE, DUMP, MARKS, PROFILE, Seen
from workshop import PLUGINS, Workshop

BOUND = 120

sys.setrecursionlimit(10000)


@dataclasses.dataclass
class Result:
    seed: int
    problems: list[str]
    runs: int = 0
    plugins: int = 0
    lost: bool = False  # nothing is wrong but that records did not reach the syslog socket
    repeats: int = 0
    kept: pathlib.Path | None = None


def expect(plan: HostPlan, run: Run, host: Host) -> Expectation:
    archive = host.read_gzip(ARCHIVE) if host.exists(ARCHIVE) else None
    has_profile = host.exists(PROFILE) and host.path(PROFILE).stat().st_size > 0
    return Model(plan, run, os.listdir(host.path(PLUGINS)), archive, has_profile).predict()


def settle(host: Host, expected: Expectation, running: Running, syslog: Syslog, output: BinaryIO) -> list[str]:
    """Waits until a run has done all it can do before it waits for ever. Says what is wrong with that."""
    lines = sum(line.origin == "main" for line in expected.log)

    def stands() -> bool:
        shown = pathlib.Path(output.name).read_bytes().count(b" lofter: ")
        return shown >= lines and len(host.kernel_lines()) >= len(expected.kernel) or not running.is_running()
    eventually(stands, "everything that a cycle does not hold up", BOUND)
    with contextlib.suppress(AssertionError):  # what is missing in the end is told with the rest
        eventually(lambda: len(syslog.records()) >= len(expected.log), "all records")
    return [] if running.is_running() else ["the run ended in spite of a cycle"]


def make_run(plan: HostPlan, run: Run, host: Host, work: pathlib.Path) -> tuple[Expectation, list[str], list[str]]:
    """Returns (expectation, differences, lost records)."""
    host.restart()
    host.kernel_log()
    for path in (MARKS, DUMP, ALERT):
        host.path(path).unlink(missing_ok=True)
    host.write(MARKS, "", 0o666)
    expected = expect(plan, run, host)
    foretelling = Foretelling(host, run, expected)
    syslog = host.syslog()
    problems = []
    with open(work / "output", "w+b") as output, open(work / "errors", "w+b") as errors:
        seen = Seen(host)
        running = host.start_lofter(*run.arguments(), stdin=subprocess.DEVNULL, stdout=output, stderr=errors)
        try:
            if expected.waits:
                problems = settle(host, expected, running, syslog, output)
                running.kill()
            outcome = running.finish(BOUND)
        except AssertionError as error:
            running.kill()
            problems.append(str(error))
            outcome = running.finish(BOUND)
        texts = []
        for stream in (output, errors):
            stream.seek(0)
            texts.append(stream.read().decode(errors="surrogateescape"))
    if expected.waits:
        outcome.status, outcome.leftovers = expected.status, []
    seen.collect(outcome, texts, syslog.records())
    syslog.close()
    host.syslogs.remove(syslog)
    reports = host.sanitizer_reports()
    comparison = Comparison(plan, run, expected, seen)
    problems += comparison.whole() + ([reports] if reports else [])
    if not problems and not comparison.lost:
        problems += foretelling.problems(seen.profile)
    return expected, problems, comparison.lost


def make_boot(seed: int, workshop: Workshop) -> Result:
    """The program does not wait for a syslog daemon that reads nothing for a fifth of a second, and on a busy machine the
    one in here may be that. It is not that three times, so a boot that merely lost records is made again."""
    for repeats in range(3):
        result = try_boot(seed, workshop)
        result.repeats = repeats
        if not result.lost:
            break
    return result


def try_boot(seed: int, workshop: Workshop) -> Result:
    plan = draw_host(seed)
    work = workshop.folder / f"boot-{seed}"
    shutil.rmtree(work, ignore_errors=True)
    work.mkdir()
    subprocess.run(["cp", "-al", workshop.template, work / "root"], check=True)
    host = Host(work / "root", work)
    result = Result(seed, [])
    try:
        workshop.furnish(host, plan)
        for run in plan.runs:
            expected, problems, lost = make_run(plan, run, host, work)
            result.runs += 1
            result.plugins += len(expected.ran)
            result.lost = bool(lost) and not problems
            if problems or lost:
                command = " ".join(["/usr/sbin/lofter", *map(repr, run.arguments())])
                result.problems += [f"run {result.runs} of {len(plan.runs)}: {command}", *problems, *lost]
                break
    finally:
        host.close()
    if result.problems:
        result.kept = work
    else:
        shutil.rmtree(work)
    return result
