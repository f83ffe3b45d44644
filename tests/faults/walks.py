"""Makes every single call of a kind fail, one per run, in boots, invocations and daemon runs. The last line is "N passed, N failed".

A walk is about one kind of call in one process of a run: its first call fails, in the next run its second, until a run has
no such call any more. Storms interrupt all calls of a kind at once, which must change nothing at all.
"""
import argparse
import collections
import concurrent.futures
import errno
import functools
import json
import pathlib
import queue
import random
import subprocess
import threading
import time
import typing
from collections.abc import Callable, Iterator

import control
import scenarios
import verdict
from lofterdev.build import build
from lofterdev.ending import call
from lofterdev.entering import first_process_command
from lofterdev.repository import REPOSITORY, say
from lofterdev.roots import assemble
from lofterdev.tally import finish
from verdict import Outcome

ERRORS = {
    "open": ["EMFILE", "EACCES"], "write": ["ENOSPC"], "read": ["EIO"], "fsync": ["EIO"], "rename": ["EIO"],
    "mkstemp": ["ENOSPC"], "fork": ["EAGAIN"], "daemon": ["EAGAIN"], "posix_spawn": ["EAGAIN", "ENOENT"],
    "system": ["EAGAIN"], "popen": ["EMFILE"], "pthread_create": ["EAGAIN"], "pthread_cond_init": ["ENOMEM"],
    "socket": ["EMFILE"], "bind": ["EADDRINUSE"], "listen": ["EADDRINUSE"], "connect": ["ECONNREFUSED", "EAGAIN"],
    "accept": ["EMFILE", "ECONNABORTED"], "send": ["EPIPE", "ENOBUFS"], "recv": ["ECONNRESET"], "waitpid": ["ECHILD"],
    "signal": ["EINVAL"], "malloc": ["ENOMEM"],
}
# What the system interrupts at all.
INTERRUPTED = ("open", "write", "read", "fsync", "connect", "accept", "send", "recv", "waitpid")
# A parallel boot is not the same twice, so only that is walked in it which serial runs do not have.
PARALLEL_KINDS = ("pthread_create", "pthread_cond_init")

FOLDER = REPOSITORY / "build" / "faults"
ROOM = pathlib.Path(__file__).resolve().with_name("room.py")

BOUND = 20
JOBS = 2
LANES = 8  # a long walk is shared out among that many
SHORT_SAMPLE = 7  # runs of a long walk in the short form


class Laboratory:
    """A root and the room in which it is run; one run at a time."""

    def __init__(self, number: int, tree: pathlib.Path) -> None:
        self.root = scenarios.Root(FOLDER / f"root-{number}", FOLDER / "template", tree)
        command = first_process_command(self.root.path, ["/usr/bin/python3", ROOM, self.root.path])
        self.room = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        assert self.room.stdin and self.room.stdout
        self.requests, self.answers = self.room.stdin, self.room.stdout

    def run(self, scenario: str, order: bytes) -> Outcome:
        self.root.reset()
        self.root.write(control.FILE, order)
        self.requests.write(json.dumps({"arguments": ["/usr/sbin/lofter", *scenarios.RUNS[scenario]], "seconds": BOUND}) + "\n")
        self.requests.flush()
        answer = json.loads(self.answers.readline())
        record = control.Record((self.root.path / control.FILE).read_bytes())
        return verdict.Outcome.collect(answer, self.root, record)

    def close(self) -> None:
        self.requests.close()
        self.room.wait(30)


class Laboratories:
    def __init__(self, tree: pathlib.Path) -> None:
        self.free: queue.SimpleQueue[Laboratory] = queue.SimpleQueue()
        self.all = [Laboratory(number, tree) for number in range(JOBS)]
        for one in self.all:
            self.free.put(one)

    def run(self, scenario: str, order: bytes) -> Outcome:
        one = self.free.get()
        try:
            return one.run(scenario, order)
        finally:
            self.free.put(one)

    def learn(self, scenario: str) -> tuple[Outcome, collections.Counter[tuple[str, int]]]:
        """What undisturbed runs come to. They must all come to the same, or nothing can be said about others."""
        usual = None
        calls: collections.Counter[tuple[str, int]] = collections.Counter()
        for one in self.all:
            for _ in range(2):
                outcome = one.run(scenario, control.order())
                one.root.learn()
                outcome.unexpected = []
                calls |= collections.Counter(outcome.run.calls)
                complaints = list(verdict.storm_complaints(outcome, usual or outcome))
                complaints += verdict.complaints(scenario, None, outcome, outcome)
                if complaints:
                    raise SystemExit(f"{scenario}: runs without a fault are not well: {complaints}\n{outcome.output}")
                usual = usual or outcome
        assert usual is not None
        return usual, calls

    def close(self) -> None:
        for one in self.all:
            one.close()


class Case(typing.NamedTuple):
    """One run: the number-th call of the kind in that process. Number 0 is a storm."""
    scenario: str
    kind: str
    error: str
    process: int
    number: int

    def __str__(self) -> str:
        return "/".join(map(str, self))

    @staticmethod
    def parse(text: str) -> "Case":
        scenario, kind, error, process, number = text.split("/")
        return Case(scenario, kind, error, int(process), int(number))

    def order(self) -> bytes:
        if self.number == 0:
            return control.order(storm=INTERRUPTED if self.kind == "all" else [self.kind])
        return control.order(self.kind, self.number, self.process, getattr(errno, self.error), trace=True)

    def complaints(self, outcome: Outcome, usual: Outcome) -> list[str]:
        if self.number == 0:
            return list(verdict.storm_complaints(outcome, usual))
        if not outcome.run.hits:
            return []
        return list(verdict.complaints(self.scenario, self.kind, outcome, usual))

    def is_unavoidable(self, outcome: Outcome) -> bool:
        return self.number != 0 and self.kind == "malloc" and outcome.status is not None and \
            verdict.is_unavoidable(self.process, outcome, locations(outcome.run.frames))


class Tally:
    """Runs, faults and failures per kind of call."""

    def __init__(self) -> None:
        self.lock = threading.Lock()
        self.runs: collections.Counter[str] = collections.Counter()
        self.faults: collections.Counter[str] = collections.Counter()
        self.unavoidable: collections.Counter[str] = collections.Counter()
        self.failures: dict[str, list[Case | str]] = collections.defaultdict(list)
        self.heard: dict[str, set[str]] = collections.defaultdict(set)

    def add(self, case: Case, outcome: Outcome, complaints: list[str]) -> None:
        with self.lock:
            self.runs[case.kind] += 1
            self.faults[case.kind] += outcome.run.hits
            self.heard[case.kind].update(text for text in verdict.MESSAGES.get(case.kind, []) if text in outcome.said())
            if complaints and case.is_unavoidable(outcome):
                self.unavoidable[case.kind] += 1
            elif complaints:
                self.failures[case.kind].append(case)
                place = next(iter(locations(outcome.run.frames)), "")
                print(f"./dev faults --case {case}: {'; '.join(complaints)}{' in ' if place else ''}{place}", flush=True)

    def check_messages(self, kind: str) -> None:
        """Of a complete walk."""
        for text in verdict.MESSAGES.get(kind, []):
            self.runs[kind] += 1
            if text not in self.heard[kind]:
                self.failures[kind].append(text)
                print(f"{kind}: no run has said '{text}'", flush=True)

    def show(self, kind: str) -> None:
        verdict_text = f"{len(self.failures[kind])} FAILED" if self.failures[kind] else "passed"
        ends = f", {self.unavoidable[kind]} where nothing else could come of it" if self.unavoidable[kind] else ""
        print(f"{kind}: {self.runs[kind]} runs, {self.faults[kind]} faults{ends}: {verdict_text}", flush=True)


class Walker:
    def __init__(self, laboratories: Laboratories, arguments: argparse.Namespace) -> None:
        self.laboratories = laboratories
        self.arguments = arguments
        self.random = random.Random(arguments.seed)
        self.tally = Tally()
        self.usual: dict[str, tuple[Outcome, collections.Counter[tuple[str, int]]]] = {}
        self.sampled: set[str] = set()

    def judge(self, case: Case) -> bool:
        outcome = self.laboratories.run(case.scenario, case.order())
        complaints = case.complaints(outcome, self.usual[case.scenario][0])
        self.tally.add(case, outcome, complaints)
        return outcome.run.hits > 0

    def walk(self, first: Case, step: int) -> None:
        case = first
        while self.judge(case):
            case = case._replace(number=case.number + step)

    def tasks(self, kind: str) -> Iterator[Callable[[], object]]:
        for scenario, (_, calls) in self.usual.items():
            if kind in INTERRUPTED:
                yield functools.partial(self.judge, Case(scenario, kind, "EINTR", -1, 0))
            if scenario == "parallel" and kind not in PARALLEL_KINDS:
                continue
            for (called, process), count in sorted(calls.items()):
                if called == kind:
                    for error in ERRORS[kind]:
                        yield from self.walk_tasks(Case(scenario, kind, error, process, 1), count)

    def walk_tasks(self, case: Case, count: int) -> Iterator[Callable[[], object]]:
        if self.arguments.short and count > SHORT_SAMPLE:
            self.sampled.add(case.kind)
            for number in self.random.sample(range(1, count + 1), SHORT_SAMPLE):
                yield functools.partial(self.judge, case._replace(number=number))
            return
        step = LANES if count > 4 * LANES else 1
        for start in range(1, step + 1):
            yield functools.partial(self.walk, case._replace(number=start), step)

    def run(self, kinds: list[str]) -> None:
        for scenario in scenarios.RUNS:
            self.usual[scenario] = self.laboratories.learn(scenario)
        with concurrent.futures.ThreadPoolExecutor(JOBS) as pool:
            if "all" in kinds:
                for scenario in self.usual:
                    self.judge(Case(scenario, "all", "EINTR", -1, 0))
                self.tally.show("all")
            for kind in filter(lambda one: one != "all", kinds):
                for done in [pool.submit(task) for task in self.tasks(kind)]:
                    done.result()
                if kind not in self.sampled:
                    self.tally.check_messages(kind)
                self.tally.show(kind)


def locations(frames: list[int]) -> list[str]:
    """The program's own functions among the callers, the innermost first."""
    addresses = [hex(frame) for frame in frames if 0 <= frame < 1 << 24]
    if not addresses:
        return []
    lines = subprocess.run(["addr2line", "-Cfp", "-e", FOLDER / "root-0/usr/sbin/lofter", *addresses], stdout=subprocess.PIPE,
                           text=True, check=True).stdout.splitlines()
    return [line.partition(" at ")[0] for line in lines]


def show(laboratories: Laboratories, case: Case) -> typing.NoReturn:
    """One case with everything that can be seen of it."""
    usual, _ = laboratories.learn(case.scenario)
    outcome = laboratories.run(case.scenario, case.order())
    complaints = case.complaints(outcome, usual)
    print(outcome.output, end="")
    print(f"status {outcome.status}, {outcome.run.hits} faults, {outcome.run.processes} processes, marks {outcome.marks}")
    if outcome.executor_log:
        print(f"executor's log:\n{outcome.executor_log}", end="")
    for line in locations(outcome.run.frames):
        print(f"    called by {line}")
    for complaint in complaints:
        print(complaint)
    failed = complaints and not case.is_unavoidable(outcome) or outcome.run.hits == 0
    finish(not failed, failed)


def parse_arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="./dev faults", description="Makes every single call fail, one per run.")
    add = parser.add_argument
    add("kinds", nargs="*", metavar="CALL", help=f"walk these only: all (storms of all), {', '.join(control.KINDS)}")
    add("--short", action="store_true", help="of long walks, only a few runs at random")
    add("--seed", type=int, default=time.time_ns() % 1_000_000, help="which ones")
    add("--case", metavar="CASE", help="one run, as a failure names it")
    add("--preset", choices=("release", "debug"), default="release", help="which build (default: release)")
    arguments = parser.parse_args()
    for kind in arguments.kinds:
        if kind not in ("all", *control.KINDS):
            parser.error(f"unknown call: {kind}")
    return arguments


def main() -> None:
    arguments = parse_arguments()
    tree = build(arguments.preset)
    assemble(tree, FOLDER / "template", bare=True)
    laboratories = Laboratories(tree)
    try:
        if arguments.case:
            show(laboratories, Case.parse(arguments.case))
        if arguments.short:
            say(f"short: --seed {arguments.seed} makes the same choice again")
        walker = Walker(laboratories, arguments)
        walker.run(arguments.kinds or ["all", *control.KINDS])
    finally:
        laboratories.close()
    failed = sum(map(len, walker.tally.failures.values()))
    finish(sum(walker.tally.runs.values()) - failed, failed)


if __name__ == "__main__":
    call(main, "./dev faults")
