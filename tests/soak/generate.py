"""Draws a host and what is done with it. The same seed always draws the same host."""
import json
import math
import random

from plan import Command, DebugLine, HostPlan, JsonFile, NativeFile, OtherFile, Run, Script, Work

FLAGS = [f"flag{number}" for number in range(6)]
RELEASES = ["1.0", "1.0", "2.1-rc+3_x", "1.0 beta", "", "7:é", "%s%n"]
ADORNMENTS = [" and more", "%s%d", "-é", ".d", '"quoted"', "'", "#1"]
SAFE_ADORNMENTS = [" and more", "%s%d", "-é", ".d", "#1"]
METHODS = ["start", "apply_host_profile", "restart"]


class Generator:
    def __init__(self, seed):
        self.random = random.Random(seed)
        self.seed = seed
        self.marks = 0
        self.pauses = 0

    def Chance(self, probability):
        return self.random.random() < probability

    def Size(self, least, most):
        """Log-uniform: small hosts are common, large ones rare."""
        return round(math.exp(self.random.uniform(math.log(least), math.log(most))))

    def Some(self, things, most):
        return self.random.sample(things, self.random.randint(0, min(most, len(things))))

    # What operations do.

    def Work(self, failing=0.12, pauses=True):
        self.marks += 1
        work = Work(f"m{self.marks}")
        if pauses and self.pauses < 12 and self.Chance(0.05):
            self.pauses += 1
            work.pause = self.random.choice([1, 5, 20, 60])
        if self.Chance(failing):
            if self.Chance(0.25):
                work.signal = self.random.choice([6, 9, 11, 15])
            else:
                work.status = self.random.choice([1, 2, 3, 77, 127, 255])
        return work

    def Command(self):
        kind = self.random.random()
        if kind < 0.04:
            return Command(f"soak nothing --number={self.random.randint(0, 10 ** 9)}", "unknown")
        if kind < 0.08:
            self.marks += 1
            wrong = ["", "soak mark 'open --id=%d", "--id=%d", "soak mark --id=%d word", "soak mark -id=%d"]
            text = self.random.choice(wrong)
            return Command(text % self.marks if text else text, "unparsable")
        if kind < 0.10:
            return Command("--help" if self.Chance(0.5) else "soak mark --help --id=never", "help")
        work = self.Work(failing=0.1)
        path = self.random.choice(["soak mark", "soak  'mark'", "soak inner", "soak outer", "soak deep est"])
        complaints = self.random.choice([0, 0, 1, 3])
        text = f"{path} --id={work.mark}"
        for name, value in (("pause", work.pause and f"0.{work.pause:03}"), ("status", work.status), ("signal", work.signal), ("lines", complaints)):
            if value:
                text += f" --{name}={value}"
        return Command(text, "runs", work, complaints)

    # Names. The program must not care what is in them.

    def Name(self, number, adornments=ADORNMENTS):
        return f"p{number:03}" + (self.random.choice(adornments) if self.Chance(0.08) else "")

    # The graph: a barrier of level l is provided by plugins before place l and required by those from place l on.

    def DrawGraph(self, size):
        count = max(1, round(size * self.random.choice([0.1, 0.3, 0.6, 1.2])))
        self.barriers = []
        for number in range(count):
            name = f"b{number}" + (self.random.choice(SAFE_ADORNMENTS) if self.Chance(0.05) else "")
            self.barriers.append((self.random.randint(1, size), name))
        self.barriers.sort()
        self.spread = self.random.choice([2, 10, count])
        self.most = self.random.choice([1, 2, 4])

    def Links(self, place):
        """The barriers that the plugin at this place requires and provides."""
        split = sum(level <= place for level, _ in self.barriers)
        before = [name for _, name in self.barriers[max(0, split - self.spread):split]]
        after = [name for _, name in self.barriers[split:split + self.spread]]
        requires, provides = self.Some(before, self.most), self.Some(after, self.most)
        if self.cyclic and self.Chance(0.05):
            provides += self.Some(before, 1)
        if self.Chance(0.03):
            requires.append(f"nobody {self.random.randint(0, 3)}")
        if requires and self.Chance(0.02):
            requires.append(requires[0])
        return requires, provides

    # Plugins.

    def Json(self, file, place):
        requires, provides = self.Links(place)
        version = self.random.choice([1, 2, 3, 3, 4, 2.7])
        commands = {}

        def Lines(most):
            drawn = [self.Command() for _ in range(self.random.choice([0, 1, 1, 1, 2, most]))]
            for command in drawn:
                commands[command.text] = command
            return [command.text for command in drawn]
        metadata = {"version": version, "requires": requires, "provides": provides}
        if version >= 3 or self.Chance(0.2):
            metadata["run_once"] = self.Chance(0.4)
            metadata["plugin_version"] = self.random.choice(RELEASES)
            if self.Chance(0.3):
                metadata["required_flags"] = self.Some(FLAGS, 2)
            if self.Chance(0.3):
                metadata["disabling_flags"] = self.Some(FLAGS, 2)
        operations = {"start": Lines(4)}
        if self.Chance(0.4):
            operations["apply_host_profile"] = Lines(2)
        document = {"metadata": metadata, "operations": operations}
        if self.Chance(0.1):
            document["remark"] = ["nobody", {"reads": "this"}]
        if self.Chance(0.08):
            document = self.Spoil(document)
        if document is None:
            text = self.random.choice(["", "{", "not JSON", '{"metadata": {}} and more', '{"metadata": [1,}'])
        else:
            text = json.dumps(document, indent=self.random.choice([None, 2]), ensure_ascii=self.Chance(0.5))
            if self.Chance(0.2):
                text = "// a remark\n" + text + " /* another */\n"
        return JsonFile(file, text, document, commands)

    def Spoil(self, document):
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
            metadata.update(self.random.choice([{"required_flags": "x"}, {"disabling_flags": [1]}, {"run_once": 1}, {"plugin_version": 1.0}]))
        elif choice == 7:
            del document["operations"]
        elif choice == 8:
            operations["start"] = self.random.choice([{}, "x", ["soak mark --id=never", 1]])
        else:
            metadata["version"] = 2
            operations["apply_host_profile"] = self.random.choice([{}, "x", [None]])
        return document

    def Native(self, file, place):
        requires, provides = self.Links(place)
        plugin = NativeFile(file, self.random.choice([1, 2, 3, 3, 4]), requires, provides, start=self.Work())
        if self.Chance(0.8):
            plugin.release = self.random.choice(RELEASES)
        plugin.runOnce = self.Chance(0.3)
        if self.Chance(0.3):
            plugin.requiredFlags = self.Some(FLAGS, 2)
        if self.Chance(0.3):
            plugin.disablingFlags = self.Some(FLAGS, 2)
        if self.Chance(0.4):
            plugin.profile = self.Work()
        if self.Chance(0.05):
            plugin.version = self.random.choice([0, 5, 2 ** 32 - 1])
        elif self.Chance(0.06):
            plugin.flaw = self.random.choice(["text", "truncated", "bare", "half"])
        return plugin

    def Debug(self, name, place):
        requires, provides = self.Links(place)
        if requires and self.Chance(0.03):
            requires.append("")  # what a comma at the end makes
        work = self.Work()
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
        if self.Chance(0.2):
            text = f'"{text} #:quoted:"' if self.Chance(0.5) else f"{text} #\\:escaped\\:"
        padding = self.random.choice(["", "", " "])
        fields = [name, padding + ",".join(requires) + padding, padding + ",".join(provides) + padding, text]
        return DebugLine(padding + ":".join(fields) + padding, name, requires, provides, work)

    def MalformedLine(self):
        if self.Chance(0.3):
            text, reason = self.random.choice([(" bad:::\\x", "unknown escape sequence"), ("end:::\\", "cannot end with escape")])
            return DebugLine(text, unsplit=reason)
        return DebugLine(self.random.choice(["", "  \t", "one:two:three", "  a:b:c:d:e ", "no colon at all", "# remark", "::::"]))

    def DrawFiles(self, size, kinds):
        files, debug = [], []
        places = list(range(size))
        self.random.shuffle(places)
        for number, place in enumerate(places):
            kind = self.random.choice(kinds)
            if kind == "debug":
                debug.append(self.Debug(self.Name(number, SAFE_ADORNMENTS), place))
                continue
            file = ("lib" if self.Chance(0.2) else "") + self.Name(number)
            files.append(self.Json(file + ".json", place) if kind == "json" else self.Native(file + ".so", place))
        for _ in range(self.random.choice([0, 0, 1, 3])):
            debug.insert(self.random.randint(0, len(debug)), self.MalformedLine())
        others = ["README", "notes.txt", "ends.", ".hidden", "upper.JSON", "nobody.debug", "lib.txt"]
        files += [OtherFile(name) for name in self.Some(others, 3)]
        if not self.unique:
            files, debug = self.AddTwins(files, debug)
        entries = [line.name for line in debug if line.name]
        files += [OtherFile(name + ".debug") for name in self.Some(sorted(set(entries)), 1) if not self.unique]
        return files, debug

    def AddTwins(self, files, debug):
        """The same plugin name a second time."""
        taken = {file.file for file in files}
        for file in list(files):
            if isinstance(file, JsonFile) and self.Chance(0.05):
                stem = file.file[:-5]
                twin = stem[3:] + ".json" if stem.startswith("lib") else "lib" + stem + ".json"
                if twin not in taken:
                    taken.add(twin)
                    files.append(JsonFile(twin, file.text, file.document, file.commands))
        return files, debug + [line for line in debug if line.name and self.Chance(0.03)]

    # Daemons.

    def DrawScripts(self, count):
        names = [f"d{number}" for number in range(count)] + self.Some(["tssyslogd", "hxed"], 2)
        priorities = [self.random.choice([0, 5, 9, 10, 10, 20, 90, 100]) for _ in range(self.random.randint(1, 5))]
        scripts = []
        for name in names:
            flaw = self.random.choice(["missing", "locked"]) if self.Chance(0.06) else None
            scripts.append(Script(name, self.random.choice(priorities), self.Work(0.15, False), self.Work(0.15, False), flaw))
        listing = list(scripts)
        self.random.shuffle(listing)
        for _ in range(self.random.choice([0, 0, 2])):
            listing.insert(self.random.randint(0, len(listing)), self.random.choice(["", "   ", "/etc/init.d/lonely", "word word"]))
        return scripts, listing

    # Runs.

    def DrawRun(self, mode, files):
        run = Run(mode, init=mode == "boot" or mode == "invoke" and self.Chance(0.1))
        run.parallel = self.unique and self.Chance(0.5)
        if not run.parallel and mode not in ("start", "stop") and self.Chance(0.08):
            run.interactive = True
        if self.Chance(0.25):
            run.randomize = self.random.choice(["", "7", "-2147483648", "+12", "x", "2147483648"])
        run.trace, run.verbose = self.Chance(0.3), self.Chance(0.2)
        run.flags = [self.Some(FLAGS, 3) for _ in range(self.random.choice([0, 1, 1, 2]))]
        run.flags = [flags or ["flag9"] for flags in run.flags]
        if self.Chance(0.2):
            run.runOnce = self.Some(["p001" + "1.0", "p0021.0", "other", "Zebra 7", "p004"], 3)
        if self.Chance(0.25):
            names = [file.file.rpartition(".")[0].removeprefix("lib") for file in files] or ["p000"]
            run.disable = [name for name in self.Some(names, 3) if name]
        if self.Chance(0.06):
            run.dump = self.random.choice(["", "/var/tree.dot", "/nowhere/tree.dot"])
        if mode == "invoke":
            names = [file.file for file in files] + ["absent.json", "absent.so"]
            run.plugins = self.Some(names, self.Size(2, 40)) or names[:1]
            if not self.unique:
                run.plugins += run.plugins[:1]
            run.method = self.random.choice(METHODS)
        elif mode in ("start", "stop"):
            run.method, run.wait = mode, self.Chance(0.5)
            run.runOnce, run.disable, run.flags = [], [], []
        elif self.Chance(0.1):
            run.method = self.random.choice(METHODS)
        if mode not in ("start", "stop") and self.Chance(0.01):
            run.directory = "/nowhere"
        return run

    def DrawHost(self):
        self.cyclic = self.Chance(0.05)
        self.unique = self.cyclic or self.Chance(0.7)
        size = self.Size(10, 500)
        self.DrawGraph(size)
        kinds = self.random.choice([["debug", "json", "native"], ["debug", "json", "native"], ["debug"], ["json", "debug"], ["native", "debug"]])
        files, debug = self.DrawFiles(size, kinds)
        first = self.random.choice(["boot", "boot", "boot", "plain"])
        modes = [first] + [self.random.choice(["boot", "plain", "invoke", "invoke", "invoke", "start", "stop"])
                           for _ in range(self.random.choice([0, 0, 1, 1, 2]) if size < 200 else 0)]
        if self.Chance(0.06):
            modes = [self.random.choice(["start", "stop"])] + modes[:1]
        scripts, listing = self.DrawScripts(self.Size(1, 12)) if {"start", "stop"} & set(modes) else ([], [])
        plan = HostPlan(
            self.seed, files, debug, scripts, listing, [self.DrawRun(mode, files) for mode in modes],
            processors=self.random.randint(1, 4), stateless=self.Chance(0.06),
            hostProfile=self.random.choice([None, None, "xml", "xml.gz"]), services=self.Chance(0.7),
            syslogConfiguration=self.Chance(0.3), syslogPid=self.random.choice([None, "4194304\n", "none\n", "-1\n"]))
        return plan


def DrawHost(seed):
    return Generator(seed).DrawHost()
