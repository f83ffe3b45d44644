"""Draws a host and what is done with it. The same seed always draws the same host."""
import json
import math
import random
from typing import Any

from plan import Command, DebugLine, HostPlan, JsonFile, NativeFile, OtherFile, PluginFile, Run, Script, Work

FLAGS = [f"flag{number}" for number in range(6)]
RELEASES = ["1.0", "1.0", "2.1-rc+3_x", "1.0 beta", "", "7:é", "%s%n"]
ADORNMENTS = [" and more", "%s%d", "-é", ".d", '"quoted"', "'", "#1"]
SAFE_ADORNMENTS = [" and more", "%s%d", "-é", ".d", "#1"]
METHODS = ["start", "apply_host_profile", "restart"]


class Generator:
    def __init__(self, seed: int) -> None:
        self.random = random.Random(seed)
        self.seed = seed
        self.marks = 0
        self.pauses = 0

    def chance(self, probability: float) -> bool:
        return self.random.random() < probability

    def size(self, least: int, most: int) -> int:
        """Log-uniform: small hosts are common, large ones rare."""
        return round(math.exp(self.random.uniform(math.log(least), math.log(most))))

    def some(self, things: list[str], most: int) -> list[str]:
        return self.random.sample(things, self.random.randint(0, min(most, len(things))))

    # What operations do.

    def work(self, failing: float = 0.12, pauses: bool = True) -> Work:
        self.marks += 1
        work = Work(f"m{self.marks}")
        if pauses and self.pauses < 12 and self.chance(0.05):
            self.pauses += 1
            work.pause = self.random.choice([1, 5, 20, 60])
        if self.chance(failing):
            if self.chance(0.25):
                work.signal = self.random.choice([6, 9, 11, 15])
            else:
                work.status = self.random.choice([1, 2, 3, 77, 127, 255])
        return work

    def command(self) -> Command:
        kind = self.random.random()
        if kind < 0.04:
            return Command(f"soak nothing --number={self.random.randint(0, 10 ** 9)}", "unknown")
        if kind < 0.08:
            self.marks += 1
            wrong = ["", "soak mark 'open --id=%d", "--id=%d", "soak mark --id=%d word", "soak mark -id=%d"]
            text = self.random.choice(wrong)
            return Command(text % self.marks if text else text, "unparsable")
        if kind < 0.10:
            return Command("--help" if self.chance(0.5) else "soak mark --help --id=never", "help")
        work = self.work(failing=0.1)
        path = self.random.choice(["soak mark", "soak  'mark'", "soak inner", "soak outer", "soak deep est"])
        complaints = self.random.choice([0, 0, 1, 3])
        text = f"{path} --id={work.mark}"
        options = (("pause", work.pause and f"0.{work.pause:03}"), ("status", work.status), ("signal", work.signal), ("lines", complaints))
        for name, value in options:
            if value:
                text += f" --{name}={value}"
        return Command(text, "runs", work, complaints)

    # Names. The program must not care what is in them.

    def name(self, number: int, adornments: list[str] = ADORNMENTS) -> str:
        return f"p{number:03}" + (self.random.choice(adornments) if self.chance(0.08) else "")

    # The graph: a barrier of level l is provided by plugins before place l and required by those from place l on.

    def draw_graph(self, size: int) -> None:
        count = max(1, round(size * self.random.choice([0.1, 0.3, 0.6, 1.2])))
        self.barriers = []
        for number in range(count):
            name = f"b{number}" + (self.random.choice(SAFE_ADORNMENTS) if self.chance(0.05) else "")
            self.barriers.append((self.random.randint(1, size), name))
        self.barriers.sort()
        self.spread = self.random.choice([2, 10, count])
        self.most = self.random.choice([1, 2, 4])

    def links(self, place: int) -> tuple[list[str], list[str]]:
        """The barriers that the plugin at this place requires and provides."""
        split = sum(level <= place for level, _ in self.barriers)
        before = [name for _, name in self.barriers[max(0, split - self.spread):split]]
        after = [name for _, name in self.barriers[split:split + self.spread]]
        requires, provides = self.some(before, self.most), self.some(after, self.most)
        if self.cyclic and self.chance(0.05):
            provides += self.some(before, 1)
        if self.chance(0.03):
            requires.append(f"nobody {self.random.randint(0, 3)}")
        if requires and self.chance(0.02):
            requires.append(requires[0])
        return requires, provides

    # Plugins.

    def json(self, file: str, place: int) -> JsonFile:
        requires, provides = self.links(place)
        version = self.random.choice([1, 2, 3, 3, 4, 2.7])
        commands = {}

        def lines(most: int) -> list[str]:
            drawn = [self.command() for _ in range(self.random.choice([0, 1, 1, 1, 2, most]))]
            for command in drawn:
                commands[command.text] = command
            return [command.text for command in drawn]
        metadata: dict[str, Any] = {"version": version, "requires": requires, "provides": provides}
        if version >= 3 or self.chance(0.2):
            metadata["run_once"] = self.chance(0.4)
            metadata["plugin_version"] = self.random.choice(RELEASES)
            if self.chance(0.3):
                metadata["required_flags"] = self.some(FLAGS, 2)
            if self.chance(0.3):
                metadata["disabling_flags"] = self.some(FLAGS, 2)
        operations = {"start": lines(4)}
        if self.chance(0.4):
            operations["apply_host_profile"] = lines(2)
        document: dict[str, Any] = {"metadata": metadata, "operations": operations}
        if self.chance(0.1):
            document["remark"] = ["nobody", {"reads": "this"}]
        if self.chance(0.08):
            document = self.spoil(document)
        if document is None:
            text = self.random.choice(["", "{", "not JSON", '{"metadata": {}} and more', '{"metadata": [1,}'])
        else:
            text = json.dumps(document, indent=self.random.choice([None, 2]), ensure_ascii=self.chance(0.5))
            if self.chance(0.2):
                text = "// a remark\n" + text + " /* another */\n"
        return JsonFile(file, text, document, commands)

    def spoil(self, document: dict[str, Any]) -> Any:
        """Damages a document in one place."""
        metadata, operations = document["metadata"], document["operations"]
        choice = self.random.randint(0, 9)
        if choice == 0:
            return None
        if choice == 1:
            return self.random.choice([[document], "text", 7, True])
        if choice == 2:
            document["metadata"] = self.random.choice([[], "x", 3])
        elif choice == 3:
            metadata["version"] = self.random.choice(["3", 0, 5, 0.5, -1, True, [3]])
        elif choice in (4, 5):
            key = self.random.choice(["requires", "provides"])
            metadata[key] = self.random.choice([{}, "x", metadata[key] + [7], metadata[key] + [["x"]]])
        elif choice == 6:
            metadata["version"] = 3
            flaws = [{"required_flags": "x"}, {"disabling_flags": [1]}, {"run_once": 1}, {"plugin_version": 1.0}]
            metadata.update(self.random.choice(flaws))
        elif choice == 7:
            del document["operations"]
        elif choice == 8:
            operations["start"] = self.random.choice([{}, "x", ["soak mark --id=never", 1]])
        else:
            metadata["version"] = 2
            operations["apply_host_profile"] = self.random.choice([{}, "x", [None]])
        return document

    def native(self, file: str, place: int) -> NativeFile:
        requires, provides = self.links(place)
        plugin = NativeFile(file, self.random.choice([1, 2, 3, 3, 4]), requires, provides, start=self.work())
        if self.chance(0.8):
            plugin.release = self.random.choice(RELEASES)
        plugin.run_once = self.chance(0.3)
        if self.chance(0.3):
            plugin.required_flags = self.some(FLAGS, 2)
        if self.chance(0.3):
            plugin.disabling_flags = self.some(FLAGS, 2)
        if self.chance(0.4):
            plugin.profile = self.work()
        if self.chance(0.05):
            plugin.version = self.random.choice([0, 5, 2 ** 32 - 1])
        elif self.chance(0.06):
            plugin.flaw = self.random.choice(["text", "truncated", "bare", "half"])
        return plugin

    def debug(self, name: str, place: int) -> DebugLine:
        requires, provides = self.links(place)
        if requires and self.chance(0.03):
            requires.append("")  # what a comma at the end makes
        work = self.work()
        if work.signal not in (0, 9, 15):
            work.signal = 9  # the others may leave a core, which shows in a raw wait status
        text = f"echo +{work.mark} >>/var/marks; "
        if work.pause:
            text += f"sleep 0.{work.pause:03}; "
        text += f"echo -{work.mark} >>/var/marks"
        if work.signal:
            text += f"; kill -{work.signal} $$"
        if work.status:
            text += f"; exit {work.status}"
        if self.chance(0.2):
            text = f'"{text} #:quoted:"' if self.chance(0.5) else f"{text} #\\:escaped\\:"
        padding = self.random.choice(["", "", " "])
        fields = [name, padding + ",".join(requires) + padding, padding + ",".join(provides) + padding, text]
        return DebugLine(padding + ":".join(fields) + padding, name, requires, provides, work)

    def malformed_line(self) -> DebugLine:
        if self.chance(0.3):
            text, reason = self.random.choice([(" bad:::\\x", "unknown escape sequence"), ("end:::\\", "cannot end with escape")])
            return DebugLine(text, unsplit=reason)
        return DebugLine(self.random.choice(["", "  \t", "one:two:three", "  a:b:c:d:e ", "no colon at all", "# remark", "::::"]))

    def draw_files(self, size: int, kinds: list[str]) -> tuple[list[PluginFile], list[DebugLine]]:
        files: list[PluginFile] = []
        debug: list[DebugLine] = []
        places = list(range(size))
        self.random.shuffle(places)
        for number, place in enumerate(places):
            kind = self.random.choice(kinds)
            if kind == "debug":
                debug.append(self.debug(self.name(number, SAFE_ADORNMENTS), place))
                continue
            file = ("lib" if self.chance(0.2) else "") + self.name(number)
            files.append(self.json(file + ".json", place) if kind == "json" else self.native(file + ".so", place))
        for _ in range(self.random.choice([0, 0, 1, 3])):
            debug.insert(self.random.randint(0, len(debug)), self.malformed_line())
        others = ["README", "notes.txt", "ends.", ".hidden", "upper.JSON", "nobody.debug", "lib.txt"]
        files += [OtherFile(name) for name in self.some(others, 3)]
        if not self.unique:
            files, debug = self.add_twins(files, debug)
        entries = [line.name for line in debug if line.name]
        files += [OtherFile(name + ".debug") for name in self.some(sorted(set(entries)), 1) if not self.unique]
        return files, debug

    def add_twins(self, files: list[PluginFile], debug: list[DebugLine]) -> tuple[list[PluginFile], list[DebugLine]]:
        """The same plugin name a second time."""
        taken = {file.file for file in files}
        for file in list(files):
            if isinstance(file, JsonFile) and self.chance(0.05):
                stem = file.file[:-5]
                twin = stem[3:] + ".json" if stem.startswith("lib") else "lib" + stem + ".json"
                if twin not in taken:
                    taken.add(twin)
                    files.append(JsonFile(twin, file.text, file.document, file.commands))
        return files, debug + [line for line in debug if line.name and self.chance(0.03)]

    # Daemons.

    def draw_scripts(self, count: int) -> tuple[list[Script], list[Script | str]]:
        names = [f"d{number}" for number in range(count)] + self.some(["tssyslogd", "hxed"], 2)
        priorities = [self.random.choice([0, 5, 9, 10, 10, 20, 90, 100]) for _ in range(self.random.randint(1, 5))]
        scripts = []
        for name in names:
            flaw = self.random.choice(["missing", "locked"]) if self.chance(0.06) else None
            scripts.append(Script(name, self.random.choice(priorities), self.work(0.15, False), self.work(0.15, False), flaw))
        listing: list[Script | str] = [*scripts]
        self.random.shuffle(listing)
        for _ in range(self.random.choice([0, 0, 2])):
            listing.insert(self.random.randint(0, len(listing)), self.random.choice(["", "   ", "/etc/init.d/lonely", "word word"]))
        return scripts, listing

    # Runs.

    def draw_run(self, mode: str, files: list[PluginFile]) -> Run:
        run = Run(mode, init=mode == "boot" or mode == "invoke" and self.chance(0.1))
        run.parallel = self.unique and self.chance(0.5)
        if not run.parallel and mode not in ("start", "stop") and self.chance(0.08):
            run.interactive = True
        if self.chance(0.25):
            run.randomize = self.random.choice(["", "7", "-2147483648", "+12", "x", "2147483648"])
        run.trace, run.verbose = self.chance(0.3), self.chance(0.2)
        run.flags = [self.some(FLAGS, 3) for _ in range(self.random.choice([0, 1, 1, 2]))]
        run.flags = [flags or ["flag9"] for flags in run.flags]
        if self.chance(0.2):
            run.run_once = self.some(["p001" + "1.0", "p0021.0", "other", "Zebra 7", "p004"], 3)
        if self.chance(0.25):
            names = [file.file.rpartition(".")[0].removeprefix("lib") for file in files] or ["p000"]
            run.disable = [name for name in self.some(names, 3) if name]
        if self.chance(0.06):
            run.dump = self.random.choice(["", "/var/tree.dot", "/nowhere/tree.dot"])
        if mode == "invoke":
            names = [file.file for file in files] + ["absent.json", "absent.so"]
            run.plugins = self.some(names, self.size(2, 40)) or names[:1]
            if not self.unique:
                run.plugins += run.plugins[:1]
            run.method = self.random.choice(METHODS)
        elif mode in ("start", "stop"):
            run.method, run.wait = mode, self.chance(0.5)
            run.run_once, run.disable, run.flags = [], [], []
        elif self.chance(0.1):
            run.method = self.random.choice(METHODS)
        if mode not in ("start", "stop") and self.chance(0.01):
            run.directory = "/nowhere"
        return run

    def draw_host(self) -> HostPlan:
        self.cyclic = self.chance(0.05)
        self.unique = self.cyclic or self.chance(0.7)
        size = self.size(10, 500)
        self.draw_graph(size)
        mixed = ["debug", "json", "native"]
        kinds = self.random.choice([mixed, mixed, ["debug"], ["json", "debug"], ["native", "debug"]])
        files, debug = self.draw_files(size, kinds)
        first = self.random.choice(["boot", "boot", "boot", "plain"])
        modes = [first] + [self.random.choice(["boot", "plain", "invoke", "invoke", "invoke", "start", "stop"])
                           for _ in range(self.random.choice([0, 0, 1, 1, 2]) if size < 200 else 0)]
        if self.chance(0.06):
            modes = [self.random.choice(["start", "stop"])] + modes[:1]
        scripts, listing = self.draw_scripts(self.size(1, 12)) if {"start", "stop"} & set(modes) else ([], [])
        plan = HostPlan(
            self.seed, files, debug, scripts, listing, [self.draw_run(mode, files) for mode in modes],
            processors=self.random.randint(1, 4), stateless=self.chance(0.06),
            host_profile=self.random.choice([None, None, "xml", "xml.gz"]), services=self.chance(0.7),
            syslog_configuration=self.chance(0.3), syslog_pid=self.random.choice([None, "4194304\n", "none\n", "-1\n"]))
        return plan


def draw_host(seed: int) -> HostPlan:
    return Generator(seed).draw_host()
