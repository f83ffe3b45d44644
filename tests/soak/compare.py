"""What a run left, beside what it had to leave. Every difference is one text."""
import collections
import datetime
import gzip
import re

TIME = r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6}"
LEVELS = {"error": 3, "warning": 4, "info": 6}
NEVER = "1970-01-01 00:00:00.000000"


class Comparison:
    """Of one run. `seen` is what boot.py has collected of it."""

    def __init__(self, plan, run, expected, seen):
        self.plan, self.run, self.expected, self.seen = plan, run, expected, seen
        self.problems = []
        self.lost = []  # records that did not reach the syslog socket, though all others did, in their order

    def Say(self, what, *details):
        self.problems.append("\n    ".join([what, *map(str, details)]))

    def Check(self, fact, what, *details):
        if not fact:
            self.Say(what, *details)

    def Same(self, actual, wanted, what):
        if actual != wanted:
            place = next((i for i, pair in enumerate(zip(actual, wanted)) if pair[0] != pair[1]), min(len(actual), len(wanted)))
            self.Say(f"{what}: differs from place {place} of {len(wanted)} on", f"wanted {wanted[place:place + 3]}", f"got    {actual[place:place + 3]}")

    def SameCounts(self, actual, wanted, what):
        actual, wanted = collections.Counter(actual), collections.Counter(wanted)
        for count, verb in ((wanted - actual, "missing"), (actual - wanted, "too many")):
            for thing, number in list(count.items())[:5]:
                self.Say(f"{what}: {verb} {number} x {thing!r}")

    def Whole(self):
        expected, seen = self.expected, self.seen
        self.Check(seen.status == expected.status, f"exit status {seen.status}, wanted {expected.status}", seen.errors)
        self.Check(seen.leftovers == [], "processes left behind", *seen.leftovers)
        self.Log()
        self.Kernel()
        self.Marks()
        self.Archive()
        self.Profile()
        self.Dump()
        self.Files()
        return self.problems

    # The log.

    def Normal(self, text):
        """Equal for texts that only differ in what nobody can foretell."""
        text = re.sub(r"\(took \d+ us\)$", "(took N us)", text.rstrip("\n"))
        for beginning in self.beginnings:
            if text.startswith(beginning):
                return beginning
        return text

    def Log(self):
        self.beginnings = {line.text for line in self.expected.log if line.open}
        polling = (6, "Executor Reset - polling for commands")  # logged by the executor whenever it gets there
        wanted = [(line.severity, line.text) for line in self.expected.log]
        actual = [(record.severity, self.Normal(record.text)) for record in self.seen.records]
        ordered = [[line for line in lines if line != polling] for lines in (actual, wanted)]
        missing = collections.Counter(wanted) - collections.Counter(actual)
        if missing and len(actual) + missing.total() == len(wanted) and (not self.expected.exact or IsWithin(*ordered)):
            self.lost = [f"log: missing {number} x {line!r}" for line, number in missing.items()][:5]
        else:
            if self.expected.exact:
                self.Same(*ordered, "log")
            self.SameCounts(actual, wanted, "log")
        shown = [(level, self.Normal(text)) for level, text in self.Shown()]
        onOutput = [(line.severity, self.FirstLine(line)) for line in self.expected.log if line.origin == "main"]
        if self.expected.exact:
            self.Same(shown, onOutput, "standard output")
        self.SameCounts(shown, onOutput, "standard output")

    def Shown(self):
        """The log lines of standard output."""
        stamp = r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} (\w+) lofter: (.*)"
        matches = map(re.compile(stamp).fullmatch, self.seen.output.split("\n"))
        return [(LEVELS[match.group(1)], match.group(2)) for match in matches if match]

    @staticmethod
    def FirstLine(line):
        return line.text.split("\n")[0]

    # The kernel's log: what was active when.

    def Kernel(self):
        actual, wanted = self.seen.kernel, self.expected.kernel
        self.SameCounts(actual, wanted, "kernel log")
        if self.expected.exact:
            self.Same(actual, wanted, "kernel log")
            return
        begins, ends, active, most = {}, {}, 0, 0
        for place, line in enumerate(actual):
            begin = re.fullmatch(r"Activating Lofter plugin (.*)\.|Deactivating Daemon (.*)\.", line, re.DOTALL)
            active += 1 if begin else -1
            most = max(most, active)
            if begin:
                begins[begin.group(1) or begin.group(2)] = place
            else:
                ends[re.fullmatch(r"(?:Lofter plugin|Daemon) (.*?) (?:activated\.|deactivated\.|(?:de)?activation failed: .*)", line, re.DOTALL).group(1)] = place
        self.Check(most <= max(1, self.expected.threads), f"{most} plugins active at once on {self.expected.threads} threads")
        for before, after in self.expected.edges:
            self.Check(ends.get(before.name, 1 << 30) < begins.get(after.name, -1), f"kernel log: {after.name!r} began before {before.name!r} had ended")

    # What the plugins themselves wrote.

    def Marks(self):
        actual, wanted = self.seen.marks, self.expected.marks
        self.SameCounts(actual, wanted, "marks")
        if self.expected.exact:
            self.Same(actual, wanted, "marks")
            return
        places = {}
        for place, mark in enumerate(actual):
            places.setdefault(mark, []).append(place)
        where = {node: [place for mark in node.marks for place in places.get(mark, [])] for node in self.expected.ran}
        for node, found in where.items():
            self.Check(found == sorted(found), f"marks of {node.name!r} are out of order", node.marks)
        for before, after in self.expected.edges:
            if where[before] and where[after]:
                self.Check(max(where[before]) < min(where[after]), f"marks: {after.name!r} worked before {before.name!r} was done")

    # Files.

    def Archive(self):
        new, old = self.seen.archive, self.seen.archiveBefore
        if self.expected.archive is None:
            self.Check(new == old, "the run-once archive changed", old, new)
            return
        wanted = "lofter.run-once=" + "".join(f"{name}," for name in sorted(self.expected.archive, key=str.encode)) + "\n"
        if new is None:
            self.Say("there is no run-once archive")
            return
        self.Same(gzip.decompress(new).decode(), wanted, "run-once archive")
        self.Check(new[3:8] == bytes(5), "the archive has a name, a comment or a time", new[:10])

    def Profile(self):
        new, old = self.seen.profile, self.seen.profileBefore
        if self.expected.profile is None:
            self.Check(new == old, "the profiling log changed", old, new)
            return
        daemons = self.expected.profile == "daemon"
        if daemons:
            if not (new or "").startswith(old):
                self.Say("the profiling log lost what was in it")
                return
            new = new[len(old):]
        lines = (new or "").split("\n")
        self.Check(lines.pop() == "", "the profiling log does not end in a line end")
        if not daemons:
            self.BootTime(lines.pop(0) if lines else "")
        count = len(self.expected.nodes)
        if len(lines) != count + 8:
            self.Say(f"the profiling log's section has {len(lines)} lines, wanted {count + 8}", *lines[-9:])
            return
        self.Configuration(lines[count:], daemons)
        self.Times(lines[:count], "daemon" if daemons else "sysboot")

    def BootTime(self, line):
        match = re.fullmatch(r"Krxkernel Initialization Time: (\d+)000000", line)
        self.Check(match is not None and self.seen.uptimes[0] <= int(match.group(1)) <= self.seen.uptimes[1] + 1, "kernel time", line, self.seen.uptimes)

    def Configuration(self, lines, daemons):
        run, word = self.run, " Daemon" if daemons else ""
        start, end = (re.fullmatch(rf" {name}{word}: ({TIME})", line) for name, line in (("Start", lines[1]), ("End", lines[2])))
        if start is None or end is None:
            self.Say("start and end of the run", *lines[1:3])
            return
        self.start, self.end = Moment(start.group(1)), Moment(end.group(1))
        self.Check(self.seen.times[0] <= self.start <= self.end <= self.seen.times[1], "the run's times", *lines[1:3], self.seen.times)
        wanted = [f"=== {'Daemon' if daemons else 'Lofter'} configuration info ===", lines[1], lines[2], f" Verbose: {run.verbose:d}",
                  f" Parallel: {self.expected.parallel:d}", f" Randomize: {run.randomize is not None:d}", f" Interactive Mode: {run.interactive:d}"]
        self.Same(lines[:7], wanted, "configuration report")
        seed = re.fullmatch(r" Random Seed: (-?\d+)", lines[7])
        given = Seed(run.randomize)
        if seed is None:
            self.Say("random seed", lines[7])
        elif given is not None:
            self.Check(int(seed.group(1)) == given, "random seed", lines[7], f"wanted {given}")
        else:
            self.Check(self.seen.times[0] // 10 ** 6 <= int(seed.group(1)) <= self.seen.times[1] // 10 ** 6, "random seed is not the time", lines[7])

    def Times(self, lines, word):
        """The lines of the plugins: in the order of the list, with times that keep every order."""
        spans, times = {}, []
        for line, node in zip(lines, self.expected.nodes):
            match = re.fullmatch(rf"\[({TIME}) - ({TIME})\] {word}: (.*)", line, re.DOTALL)
            if match is None or match.group(3) != node.name:
                self.Say("profiling log", line, f"wanted the plugin {node.name!r}")
                return
            if not node.ran or self.run.mode == "stop":
                self.Check(match.group(1) == match.group(2) == NEVER, f"{node.name!r} did not run", line)
                continue
            spans[node] = Moment(match.group(1)), Moment(match.group(2))
            times.append((node.name, spans[node][1] - spans[node][0]))
            self.Check(self.start <= spans[node][0] <= spans[node][1] <= self.end, "a plugin's times are outside of the run", line)
            # Nine tenths, for a clock that is being adjusted.
            self.Check(times[-1][1] > 900 * node.pause if node.marks else True, f"{node.name!r} takes {node.pause} ms and a process", line)
        if not spans:
            return
        order = self.expected.ran
        pairs = list(zip(order, order[1:])) if self.expected.exact else self.expected.edges
        for before, after in pairs:
            self.Check(spans[before][1] <= spans[after][0], f"profiling log: {after.name!r} began before {before.name!r} had ended")
        if self.run.trace:
            pattern = re.compile(r"completed execution of plugin: (.*) \(took (\d+) us\)", re.DOTALL)
            told = [(match.group(1), int(match.group(2))) for match in (pattern.fullmatch(text) for _, text in self.Shown()) if match]
            self.SameCounts(told, times, "durations")

    def Dump(self):
        if self.expected.dump is None or self.expected.status != 0:
            return
        text = self.seen.output if self.expected.dump == "" else self.seen.dump
        match = re.search(r"^digraph g \{\n(.*?)^\}\n", text or "", re.DOTALL | re.MULTILINE)
        if match is None:
            self.Say("no digraph")
            return
        lines, wanted, names = match.group(1).split("\n")[:-1], [], {}
        shapes = {"plugin": "", "barrier": " shape=box", "priority": " shape=trapezium"}
        for node in self.expected.nodes + self.expected.barriers:
            wanted.append((node, f'[label="{node.name}"{shapes[node.kind]}];'))
            wanted += [(node, other) for other in node.dependents]
        if len(lines) != len(wanted):
            self.Say(f"the digraph has {len(lines)} lines, wanted {len(wanted)}")
            return
        for line, (node, rest) in zip(lines, wanted):
            edge = re.fullmatch(r"(\d+) -> (\d+);", line)
            label = re.fullmatch(r"(\d+) (\[label=.*)", line)
            pairs = [(int(edge.group(1)), node), (int(edge.group(2)), rest)] if edge else [(int(label.group(1)), node)] if label else []
            fits = bool(edge) != isinstance(rest, str) and (edge or label and label.group(2) == rest)
            if not fits or any(names.setdefault(number, thing) is not thing for number, thing in pairs):
                self.Say("digraph", line, f"wanted {node.name!r}, {rest if isinstance(rest, str) else rest.name!r}")
                return
        self.Check(len(set(map(id, names.values()))) == len(names), "two names in the digraph for one node")

    def Files(self):
        self.Check(self.seen.logFiles <= {"sysboot.log", "lofter-qorcli-stdout.log"}, "files in the log directory", self.seen.logFiles)
        self.Check(self.seen.bankFiles <= {"loftsave.gz"}, "files on the boot bank", self.seen.bankFiles)
        if self.expected.alerts and not self.run.dump:
            lines, wanted = (self.seen.alert or "").splitlines(), self.expected.alerts
            self.Check(lines == wanted if self.expected.exact else sorted(lines) == sorted(wanted), "the alert at the login prompt", lines, wanted)
        else:
            self.Check(self.seen.alert is None, "an alert at the login prompt", self.seen.alert)


def IsWithin(part, whole):
    """Whether the part is the whole with some things left out."""
    rest = iter(whole)
    return all(thing in rest for thing in part)


def Moment(text):
    """Microseconds since 1970."""
    span = datetime.datetime.fromisoformat(text + "+00:00") - datetime.datetime(1970, 1, 1, tzinfo=datetime.timezone.utc)
    return (span.days * 86400 + span.seconds) * 10 ** 6 + span.microseconds


def Seed(argument):
    """The seed given, if it is one."""
    if argument is None or not re.fullmatch(r"[+-]?\d+", argument) or not -2 ** 31 <= int(argument) < 2 ** 31:
        return None
    return int(argument)
