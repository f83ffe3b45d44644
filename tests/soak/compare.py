"""What a run left, beside what it had to leave. Every difference is one text."""
import collections
import datetime
import gzip
import re
from collections.abc import Iterable, Sequence

from model import Expectation, Line
from plan import HostPlan, Run
from scheduling import Node
from seen import Seen

TIME = r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6}"
LEVELS = {"error": 3, "warning": 4, "info": 6}
NEVER = "1970-01-01 00:00:00.000000"


class Comparison:
    """Of one run. `seen` is what it left."""

    def __init__(self, plan: HostPlan, run: Run, expected: Expectation, seen: Seen) -> None:
        self.plan, self.run, self.expected, self.seen = plan, run, expected, seen
        self.problems: list[str] = []
        self.lost: list[str] = []  # records that did not reach the syslog socket, though all others did, in their order

    def say(self, what: str, *details: object) -> None:
        self.problems.append("\n    ".join([what, *map(str, details)]))

    def check(self, fact: bool, what: str, *details: object) -> None:
        if not fact:
            self.say(what, *details)

    def same(self, actual: Sequence[object], wanted: Sequence[object], what: str) -> None:
        if actual != wanted:
            place = next((i for i, pair in enumerate(zip(actual, wanted)) if pair[0] != pair[1]), min(len(actual), len(wanted)))
            self.say(f"{what}: differs from place {place} of {len(wanted)} on", f"wanted {wanted[place:place + 3]}",
                     f"got    {actual[place:place + 3]}")

    def same_counts(self, actual: Iterable[object], wanted: Iterable[object], what: str) -> None:
        actual_counts, wanted_counts = collections.Counter(actual), collections.Counter(wanted)
        for count, verb in ((wanted_counts - actual_counts, "missing"), (actual_counts - wanted_counts, "too many")):
            for thing, number in list(count.items())[:5]:
                self.say(f"{what}: {verb} {number} x {thing!r}")

    def whole(self) -> list[str]:
        expected, seen = self.expected, self.seen
        self.check(seen.status == expected.status, f"exit status {seen.status}, wanted {expected.status}", seen.errors)
        self.check(seen.leftovers == [], "processes left behind", *seen.leftovers)
        self.log()
        self.kernel()
        self.marks()
        self.archive()
        self.profile()
        self.dump()
        self.files()
        return self.problems

    # The log.

    def normal(self, text: str) -> str:
        """Equal for texts that only differ in what nobody can foretell."""
        text = re.sub(r"\(took \d+ us\)$", "(took N us)", text.rstrip("\n"))
        for beginning in self.beginnings:
            if text.startswith(beginning):
                return beginning
        return text

    def log(self) -> None:
        self.beginnings = {line.text for line in self.expected.log if line.open}
        polling = (6, "Executor Reset - polling for commands")  # logged by the executor whenever it gets there
        wanted = [(line.severity, line.text) for line in self.expected.log]
        actual = [(record.severity, self.normal(record.text)) for record in self.seen.records]
        ordered, wanted_order = ([line for line in lines if line != polling] for lines in (actual, wanted))
        missing = collections.Counter(wanted) - collections.Counter(actual)
        if missing and len(actual) + missing.total() == len(wanted) and (not self.expected.exact or is_within(ordered, wanted_order)):
            self.lost = [f"log: missing {number} x {line!r}" for line, number in missing.items()][:5]
        else:
            if self.expected.exact:
                self.same(ordered, wanted_order, "log")
            self.same_counts(actual, wanted, "log")
        shown = [(level, self.normal(text)) for level, text in self.shown()]
        on_output = [(line.severity, self.first_line(line)) for line in self.expected.log if line.origin == "main"]
        if self.expected.exact:
            self.same(shown, on_output, "standard output")
        self.same_counts(shown, on_output, "standard output")

    def shown(self) -> list[tuple[int, str]]:
        """The log lines of standard output."""
        stamp = r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} (\w+) lofter: (.*)"
        matches = map(re.compile(stamp).fullmatch, self.seen.output.split("\n"))
        return [(LEVELS[match.group(1)], match.group(2)) for match in matches if match]

    @staticmethod
    def first_line(line: Line) -> str:
        return line.text.split("\n")[0]

    # The kernel's log: what was active when.

    def kernel(self) -> None:
        actual, wanted = self.seen.kernel, self.expected.kernel
        self.same_counts(actual, wanted, "kernel log")
        if self.expected.exact:
            self.same(actual, wanted, "kernel log")
            return
        begins, ends, active, most = {}, {}, 0, 0
        for place, line in enumerate(actual):
            begin = re.fullmatch(r"Activating Lofter plugin (.*)\.|Deactivating Daemon (.*)\.", line, re.DOTALL)
            active += 1 if begin else -1
            most = max(most, active)
            if begin:
                begins[begin.group(1) or begin.group(2)] = place
            else:
                end = re.fullmatch(r"(?:Lofter plugin|Daemon) (.*?) (?:activated\.|deactivated\.|(?:de)?activation failed: .*)", line,
                                   re.DOTALL)
                assert end is not None, line
                ends[end.group(1)] = place
        self.check(most <= max(1, self.expected.threads), f"{most} plugins active at once on {self.expected.threads} threads")
        for before, after in self.expected.edges:
            self.check(ends.get(before.name, 1 << 30) < begins.get(after.name, -1),
                       f"kernel log: {after.name!r} began before {before.name!r} had ended")

    # What the plugins themselves wrote.

    def marks(self) -> None:
        actual, wanted = self.seen.marks, self.expected.marks
        self.same_counts(actual, wanted, "marks")
        if self.expected.exact:
            self.same(actual, wanted, "marks")
            return
        places: dict[str, list[int]] = {}
        for place, mark in enumerate(actual):
            places.setdefault(mark, []).append(place)
        where = {node: [place for mark in node.marks for place in places.get(mark, [])] for node in self.expected.ran}
        for node, found in where.items():
            self.check(found == sorted(found), f"marks of {node.name!r} are out of order", node.marks)
        for before, after in self.expected.edges:
            if where[before] and where[after]:
                self.check(max(where[before]) < min(where[after]), f"marks: {after.name!r} worked before {before.name!r} was done")

    # Files.

    def archive(self) -> None:
        new, old = self.seen.archive, self.seen.archive_before
        if self.expected.archive is None:
            self.check(new == old, "the run-once archive changed", old, new)
            return
        wanted = "lofter.run-once=" + "".join(f"{name}," for name in sorted(self.expected.archive, key=str.encode)) + "\n"
        if new is None:
            self.say("there is no run-once archive")
            return
        self.same(gzip.decompress(new).decode(), wanted, "run-once archive")
        self.check(new[3:8] == bytes(5), "the archive has a name, a comment or a time", new[:10])

    def profile(self) -> None:
        new, old = self.seen.profile, self.seen.profile_before
        if self.expected.profile is None:
            self.check(new == old, "the profiling log changed", old, new)
            return
        daemons = self.expected.profile == "daemon"
        if daemons:
            if new is None or not new.startswith(old or ""):
                self.say("the profiling log lost what was in it")
                return
            new = new[len(old or ""):]
        lines = (new or "").split("\n")
        self.check(lines.pop() == "", "the profiling log does not end in a line end")
        if not daemons:
            self.boot_time(lines.pop(0) if lines else "")
        count = len(self.expected.nodes)
        if len(lines) != count + 8:
            self.say(f"the profiling log's section has {len(lines)} lines, wanted {count + 8}", *lines[-9:])
            return
        self.configuration(lines[count:], daemons)
        self.times(lines[:count], "daemon" if daemons else "sysboot")

    def boot_time(self, line: str) -> None:
        match = re.fullmatch(r"Krxkernel Initialization Time: (\d+)000000", line)
        self.check(match is not None and self.seen.uptimes[0] <= int(match.group(1)) <= self.seen.uptimes[1] + 1,
                   "kernel time", line, self.seen.uptimes)

    def configuration(self, lines: list[str], daemons: bool) -> None:
        run, word = self.run, " Daemon" if daemons else ""
        start, end = (re.fullmatch(rf" {name}{word}: ({TIME})", line) for name, line in (("Start", lines[1]), ("End", lines[2])))
        if start is None or end is None:
            self.say("start and end of the run", *lines[1:3])
            return
        self.start, self.end = moment(start.group(1)), moment(end.group(1))
        self.check(self.seen.times[0] <= self.start <= self.end <= self.seen.times[1], "the run's times", *lines[1:3], self.seen.times)
        wanted = [f"=== {'Daemon' if daemons else 'Lofter'} configuration info ===", lines[1], lines[2], f" Verbose: {run.verbose:d}",
                  f" Parallel: {self.expected.parallel:d}", f" Randomize: {run.randomize is not None:d}",
                  f" Interactive Mode: {run.interactive:d}"]
        self.same(lines[:7], wanted, "configuration report")
        seed = re.fullmatch(r" Random Seed: (-?\d+)", lines[7])
        given = seed_of(run.randomize)
        if seed is None:
            self.say("random seed", lines[7])
        elif given is not None:
            self.check(int(seed.group(1)) == given, "random seed", lines[7], f"wanted {given}")
        else:
            self.check(self.seen.times[0] // 10 ** 6 <= int(seed.group(1)) <= self.seen.times[1] // 10 ** 6,
                       "random seed is not the time", lines[7])

    def times(self, lines: list[str], word: str) -> None:
        """The lines of the plugins: in the order of the list, with times that keep every order."""
        spans, times = {}, []
        for line, node in zip(lines, self.expected.nodes):
            match = re.fullmatch(rf"\[({TIME}) - ({TIME})\] {word}: (.*)", line, re.DOTALL)
            if match is None or match.group(3) != node.name:
                self.say("profiling log", line, f"wanted the plugin {node.name!r}")
                return
            if not node.ran or self.run.mode == "stop":
                self.check(match.group(1) == match.group(2) == NEVER, f"{node.name!r} did not run", line)
                continue
            spans[node] = moment(match.group(1)), moment(match.group(2))
            times.append((node.name, spans[node][1] - spans[node][0]))
            self.check(self.start <= spans[node][0] <= spans[node][1] <= self.end, "a plugin's times are outside of the run", line)
            # Nine tenths, for a clock that is being adjusted.
            self.check(times[-1][1] > 900 * node.pause if node.marks else True, f"{node.name!r} takes {node.pause} ms and a process", line)
        if not spans:
            return
        order = self.expected.ran
        pairs = list(zip(order, order[1:])) if self.expected.exact else self.expected.edges
        for before, after in pairs:
            self.check(spans[before][1] <= spans[after][0], f"profiling log: {after.name!r} began before {before.name!r} had ended")
        if self.run.trace:
            pattern = re.compile(r"completed execution of plugin: (.*) \(took (\d+) us\)", re.DOTALL)
            told = [(match.group(1), int(match.group(2))) for match in (pattern.fullmatch(text) for _, text in self.shown()) if match]
            self.same_counts(told, times, "durations")

    def dump(self) -> None:
        if self.expected.dump is None or self.expected.status != 0:
            return
        text = self.seen.output if self.expected.dump == "" else self.seen.dump
        match = re.search(r"^digraph g \{\n(.*?)^\}\n", text or "", re.DOTALL | re.MULTILINE)
        if match is None:
            self.say("no digraph")
            return
        lines = match.group(1).split("\n")[:-1]
        wanted: list[tuple[Node, Node | str]] = []
        names: dict[int, object] = {}
        shapes = {"plugin": "", "barrier": " shape=box", "priority": " shape=trapezium"}
        for node in self.expected.nodes + self.expected.barriers:
            wanted.append((node, f'[label="{node.name}"{shapes[node.kind]}];'))
            wanted += [(node, other) for other in node.dependents]
        if len(lines) != len(wanted):
            self.say(f"the digraph has {len(lines)} lines, wanted {len(wanted)}")
            return
        for line, (node, rest) in zip(lines, wanted):
            edge = re.fullmatch(r"(\d+) -> (\d+);", line)
            label = re.fullmatch(r"(\d+) (\[label=.*)", line)
            pairs = [(int(edge.group(1)), node), (int(edge.group(2)), rest)] if edge else [(int(label.group(1)), node)] if label else []
            fits = bool(edge) != isinstance(rest, str) and (edge or label and label.group(2) == rest)
            if not fits or any(names.setdefault(number, thing) is not thing for number, thing in pairs):
                self.say("digraph", line, f"wanted {node.name!r}, {rest if isinstance(rest, str) else rest.name!r}")
                return
        self.check(len(set(map(id, names.values()))) == len(names), "two names in the digraph for one node")

    def files(self) -> None:
        self.check(self.seen.log_files <= {"sysboot.log", "lofter-qorcli-stdout.log"}, "files in the log directory", self.seen.log_files)
        self.check(self.seen.bank_files <= {"loftsave.gz"}, "files on the boot bank", self.seen.bank_files)
        if self.expected.alerts and not self.run.dump:
            lines, wanted = (self.seen.alert or "").splitlines(), self.expected.alerts
            self.check(lines == wanted if self.expected.exact else sorted(lines) == sorted(wanted),
                   "the alert at the login prompt", lines, wanted)
        else:
            self.check(self.seen.alert is None, "an alert at the login prompt", self.seen.alert)


def is_within(part: Sequence[object], whole: Sequence[object]) -> bool:
    """Whether the part is the whole with some things left out."""
    rest = iter(whole)
    return all(thing in rest for thing in part)


def moment(text: str) -> int:
    """Microseconds since 1970."""
    span = datetime.datetime.fromisoformat(text + "+00:00") - datetime.datetime(1970, 1, 1, tzinfo=datetime.timezone.utc)
    return (span.days * 86400 + span.seconds) * 10 ** 6 + span.microseconds


def seed_of(argument: str | None) -> int | None:
    """The seed given, if it is one."""
    if argument is None or not re.fullmatch(r"[+-]?\d+", argument) or not -2 ** 31 <= int(argument) < 2 ** 31:
        return None
    return int(argument)
