"""What a run has to do, told a second time: a plain, slow reading of the rules, which shares no code with the program.

Predict() takes a host's plan, a run and what the host remembers from earlier runs, and returns an Expectation. It plays
the run with one worker; where several workers or a cycle make the order free, only its counts and edges are used.
"""
import dataclasses

from plan import JsonFile, NativeFile
from scheduling import Edges, HasCycle, Node, Player, STARTED

ERROR, WARNING, INFO, ALERT = 3, 4, 6, 1
PLUGINS = "/usr/libexec/lofter/plugins"
KEPT = set("-._+abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789")


@dataclasses.dataclass
class Line:
    """A log line. `origin`: main (also on standard output), alert, or child (another process). An open one is a beginning."""
    severity: int
    text: str
    origin: str = "main"
    open: bool = False


@dataclasses.dataclass
class Expectation:
    status: int = 0
    waits: bool = False          # a cycle: the run never ends
    exact: bool = True           # one worker and no cycle: the order is known to the last
    threads: int = 1
    log: list = dataclasses.field(default_factory=list)
    kernel: list = dataclasses.field(default_factory=list)
    marks: list = dataclasses.field(default_factory=list)
    ran: list = dataclasses.field(default_factory=list)      # nodes in the order of their activation
    nodes: list = dataclasses.field(default_factory=list)    # the node list
    edges: list = dataclasses.field(default_factory=list)    # (node, node that has to wait for it), both of which ran
    profile: str = None          # None, boot or daemon
    archive: set = None          # written with this content; None: not touched
    dump: str = None             # where to; the graph is in nodes and barriers
    barriers: list = dataclasses.field(default_factory=list)
    alerts: list = dataclasses.field(default_factory=list)
    parallel: bool = False


class InvalidPlugin(Exception):
    """A constructor's failure: its text, and whether that is only the text's beginning."""

    def __init__(self, text, open=False):
        super().__init__(text)
        self.text, self.open = text, open


class Model:
    def __init__(self, plan, run, listing, archive, hasProfile):
        """listing: the plugin directory's names in its own order; archive: the remembered text, or None."""
        self.plan, self.run, self.listing = plan, run, listing
        self.archive, self.hasProfile = archive, hasProfile
        self.expected = Expectation()
        self.registry = {}
        self.priorities = []
        self.nodes = []
        self.directory = run.directory if run.directory is not None else PLUGINS
        self.flags = set(run.flags[-1]) if run.flags else set()
        self.runOnce = set(run.runOnce)
        self.files = {file.file: file for file in plan.files}
        self.malformed = []
        for number, line in enumerate(plan.debug, 1):
            text = f"at line {number}: {line.text.strip()}"
            if line.unsplit:
                self.malformed.append((WARNING, f"skipping debug entry {text} ({line.unsplit})"))
            elif line.name is None and line.text.strip():
                self.malformed.append((INFO, f"ignoring malformed debug entry {text}"))

    # Logging.

    def Log(self, severity, text, origin="main", open=False):
        self.expected.log.append(Line(severity, text, origin, open))

    def Kernel(self, text):
        self.expected.kernel.append(text)

    # The graph.

    def Barrier(self, name):
        if name not in self.registry:
            self.registry[name] = Node(name, "barrier")
        return self.registry[name]

    def PriorityBarrier(self, priority):
        name = f"_<->_priority_<->_{priority}"
        if name in self.registry:
            return self.registry[name]
        barrier = self.registry[name] = Node(name, "priority")
        place = sum(other < priority for other in self.priorities)
        self.priorities.insert(place, priority)
        if place > 0:
            barrier.AddDependency(self.registry[f"_<->_priority_<->_{self.priorities[place - 1]}"])
        if place + 1 < len(self.priorities):
            larger = self.registry[f"_<->_priority_<->_{self.priorities[place + 1]}"]
            for node in [node for node in larger.dependencies if node.kind == "plugin"] + [larger]:
                barrier.AddDependent(node)
        return barrier

    def Link(self, node, requires, provides, providesFirst=False):
        steps = [(requires, node.AddDependency), (provides, node.AddDependent)]
        for names, add in reversed(steps) if providesFirst else steps:
            for name in names:
                add(self.Barrier(name))

    # Discovery.

    def ParseDebugLines(self):
        for severity, text in self.malformed:
            self.Log(severity, text)

    def Discover(self):
        if not self.run.plugins:
            self.ParseDebugLines()
            if self.run.directory is not None:  # which does not exist
                raise RuntimeError()
            for file in self.listing:
                self.ProcessFile(file)
            for line in self.plan.debug:
                if line.name is not None:
                    self.nodes.append(self.DebugPlugin(line))
        else:
            for file in self.run.plugins:
                self.ProcessFile(file)

    def ProcessFile(self, file):
        stem, dot, extension = file.rpartition(".")
        if not dot:
            self.Log(WARNING, f"ignoring plugin '{file}' of unspecified type...")
            return
        self.ParseDebugLines()
        name = stem[3:] if stem.startswith("lib") else stem
        if extension == "debug":
            self.nodes += [self.DebugPlugin(line) for line in self.plan.debug if line.name == name]
            return
        if extension not in ("so", "json"):
            self.Log(WARNING, f"ignoring plugin '{file}' of unknown type ({extension})...")
            return
        node = Node(name)
        try:
            if self.run.directory is not None or file not in self.files:
                path = f"{self.directory}/{file}"
                raise InvalidPlugin(f"plugin `{path}' is invalid: " + ("no such file or directory" if extension == "json" else ""), extension == "so")
            (self.LoadJson if extension == "json" else self.LoadNative)(node, self.files[file])
        except InvalidPlugin as failure:
            node.state = STARTED
            self.Log(WARNING, f"exception occurred whilst loading plugin {file}: {failure.text}", open=failure.open)
            return
        self.Filter(node)

    def Filter(self, node):
        if node.name in self.run.disable:
            self.Log(INFO, f"ignoring plugin '{node.name}' due to blacklist.")
            node.state = STARTED
            return
        disabling, missing = node.disablingFlags & self.flags, node.requiredFlags - self.flags
        if disabling:
            self.Log(WARNING, f"ignoring plugin '{node.name}', disabled due to boot flags: {Spaced(disabling)}.")
        if missing:
            self.Log(WARNING, f"ignoring plugin '{node.name}', disabled due to missing required boot flags: {Spaced(missing)}.")
        if disabling or missing:
            node.state = STARTED
            return
        self.nodes.append(node)
        if node.runOnce:
            key = node.name + node.release
            if key in self.runOnce:
                self.Log(INFO, f"ignoring plugin '{node.name}' because version '{node.release}'  has already been run.")
                node.state = STARTED
            else:
                self.runOnce.add("".join(letter for letter in key if letter in KEPT))

    def DebugPlugin(self, line):
        node = Node(line.name)
        node.version, node.source = 1, line
        self.Link(node, line.requires, line.provides)
        return node

    def LoadNative(self, node, plugin):
        path = f"{self.directory}/{plugin.file}"
        node.source = plugin
        if plugin.flaw in ("text", "truncated"):
            raise InvalidPlugin(f"plugin `{path}' is invalid: ", True)
        if plugin.flaw is not None:
            symbol = "operations" if plugin.flaw == "bare" else "metadata"
            raise InvalidPlugin(f"Failed loading symbol: {symbol} Located at: {path} Reason: ", True)
        if not 1 <= plugin.version <= 4:
            raise InvalidPlugin(f"plugin `{path}' is invalid: Unsupported API version")
        node.version = plugin.version
        self.Link(node, plugin.requires, plugin.provides, providesFirst=True)
        if plugin.version > 2:
            node.requiredFlags, node.disablingFlags = set(plugin.requiredFlags), set(plugin.disablingFlags)
            node.runOnce, node.release = plugin.runOnce, plugin.release or ""

    def LoadJson(self, node, plugin):
        node.source = plugin

        def Demand(fact, reason):
            if not fact:
                raise InvalidPlugin(f"plugin `{self.directory}/{plugin.file}' is invalid: {reason}")

        def Strings(holder, key):
            Demand(isinstance(holder.get(key), list), f"metadata is corrupt (unable to parse {key})")
            Demand(all(isinstance(entry, str) for entry in holder[key]), f"{key} tag is not a string")
            return holder[key]

        def Commands(key, reason):
            Demand(isinstance(operations.get(key), list), reason)
            Demand(all(isinstance(entry, str) for entry in operations[key]), "command is not a string")
            return operations[key]
        root = plugin.document
        Demand(isinstance(root, dict), "plugin root is not an object")
        metadata = root.get("metadata")
        Demand(isinstance(metadata, dict), "invalid metadata interface")
        version = metadata.get("version")
        Demand(isinstance(version, (int, float)) and not isinstance(version, bool), "metadata is corrupt (unable to parse version)")
        node.version = int(version)
        Demand(1 <= node.version <= 4, "Unsupported API version")
        self.Link(node, Strings(metadata, "requires"), [])
        self.Link(node, [], Strings(metadata, "provides"))
        if node.version > 2:
            if "required_flags" in metadata:
                node.requiredFlags = set(Strings(metadata, "required_flags"))
            if "disabling_flags" in metadata:
                node.disablingFlags = set(Strings(metadata, "disabling_flags"))
            Demand(isinstance(metadata.get("run_once"), bool), "metadata is corrupt (unable to parse run_once)")
            node.runOnce = metadata["run_once"]
            Demand(isinstance(metadata.get("plugin_version"), str), "metadata is corrupt (unable to parse plugin_version)")
            node.release = metadata["plugin_version"]
        operations = root.get("operations")
        Demand(isinstance(operations, dict), "invalid operations interface")
        node.startCommands = Commands("start", "operations is corrupt (unable to parse start)")
        node.profileCommands = []
        if node.version > 1 and "apply_host_profile" in operations:
            node.profileCommands = Commands("apply_host_profile", "operations is corrupt (unable to parse apply-host-profile)")

    # What plugins do. Each returns None, or (text, whether it is a failure of the method itself).

    def Leave(self, node, work, both=True):
        signs = ("+", "-") if both else ("",)
        node.marks += [sign + work.mark for sign in signs]
        node.pause += work.pause
        self.expected.marks += [sign + work.mark for sign in signs]

    def StartDebug(self, node):
        work = node.source.work
        self.Leave(node, work)
        status = work.signal or work.status << 8
        if status:
            self.Log(INFO, f"debug injection '{node.name}' returned 0x{status:06x}")

    def RunNative(self, node, method, work):
        self.Leave(node, work)
        if work.signal:
            return f"{node.name}->{method}() failed: exited with signal: {work.signal}", True
        if work.status:
            return f"{node.name}->{method}() failed: exited with code {work.status}", True

    def RunCommands(self, node, method, commands):
        failed = False
        for text in commands:
            command = node.source.commands[text]
            if command.fate == "runs":
                self.Leave(node, command.work, both=False)
            if not command.fails:
                continue
            failed = True
            for error, open in Complaints(command):
                self.Log(ERROR, error, "child", open)
            self.Log(ERROR, f"Executor failed executing qorcli command: {text}")
        if failed:
            return f"{node.name}->{method}() failed: error while executing the cli", True

    def RunScript(self, script, method, node):
        """Returns the runner's complaint."""
        command = f"{script.path} {method}"
        if script.flaw is not None:
            reason = "No such file or directory" if script.flaw == "missing" else "Permission denied"
            return f"failed to ForkExec '{command}' : {reason}"
        work = getattr(script, method)
        self.Leave(node, work)
        if work.signal:
            return f"Execution of command: {command} failed with signal: {work.signal}"
        if work.status:
            return f"Execution of command: {command} failed with status: {work.status}"

    def StartOf(self, node):
        source = node.source
        if isinstance(source, JsonFile):
            return self.RunCommands(node, "start", node.startCommands)
        if isinstance(source, NativeFile):
            return self.RunNative(node, "start", source.start)
        if not self.run.daemons:
            return self.StartDebug(node)
        complaint = self.RunScript(source, "start", node)
        if complaint is None:
            self.Log(INFO, f"{node.name} started.")
            return None
        self.Log(WARNING, f"Lofter failed to start: {node.name} reason: {complaint}")
        return f"{node.name}->start() failed: {complaint}", True

    def TakesPart(self, node):
        """In host profiles."""
        if isinstance(node.source, JsonFile):
            return node.version >= 2 and node.profileCommands != []
        return isinstance(node.source, NativeFile) and node.version >= 2 and node.source.profile is not None

    def ApplyHostProfileOf(self, node):
        if isinstance(node.source, JsonFile):
            if node.version < 2:
                return "method `json_plugin::ApplyHostProfile' is not implemented", False
            return self.RunCommands(node, "apply_host_profile", node.profileCommands)
        if isinstance(node.source, NativeFile):
            if not self.TakesPart(node):
                return "method `NativePlugin::ApplyHostProfile' is not implemented", False
            return self.RunNative(node, "apply_host_profile", node.source.profile)
        return "method `DebugPlugin::ApplyHostProfile' is not implemented", False

    def Perform(self, node, profile):
        self.Log(INFO, f"executing {'host profile' if profile else 'start'} plugin: {node.name}")
        return self.ApplyHostProfileOf(node) if profile else self.StartOf(node)

    def Activate(self, node):
        run = self.run
        if run.daemons:
            self.Log(INFO, f"Starting service {node.name}")
        if run.trace:
            self.Log(INFO, f"starting execution of plugin: {node.name}")
        self.Kernel(f"Activating Lofter plugin {node.name}.")
        failure = None
        if run.method is not None:
            if run.method in ("start", "apply_host_profile"):
                failure = self.Perform(node, run.method == "apply_host_profile")
            if failure is not None:
                text, ofMethod = failure
                self.Log(ERROR, f"Method invocation failed: {text}" if ofMethod else
                         f"unable to invoke method '{run.method}' on plugin '{node.name}': {text}")
                failure = "Method invocation failed", True
        else:
            failure = self.Perform(node, self.plan.hostProfile is not None and self.TakesPart(node))
            if failure is not None:
                assert failure[1]
                self.Log(ERROR, f"Method invocation failed: {failure[0]}")
        if run.trace:
            self.Log(INFO, f"completed execution of plugin: {node.name} (took N us)")
        self.Kernel(f"Lofter plugin {node.name} activated." if failure is None else
                    f"Lofter plugin {node.name} activation failed: {failure[0]}")

    def Deactivate(self, node):
        self.Kernel(f"Deactivating Daemon {node.name}.")
        self.Log(INFO, f"executing stop for daemon {node.name}.")
        complaint = self.RunScript(node.source, "stop", node)
        if complaint is None:
            self.Log(INFO, f"{node.name} stopped.")
            self.Kernel(f"Daemon {node.name} deactivated.")
        else:
            self.Log(WARNING, f"Lofter failed to stop: {node.name} reason: {complaint}")
            self.Kernel(f"Daemon {node.name} deactivation failed: {complaint}")

    def CheckProviders(self, barrier):
        if barrier.dependencies:
            return
        names = ", ".join(f'"{node.name}"' for node in barrier.dependents)
        text = f'Lofter dependency error: Initialization barrier "{barrier.name}" is not provided by any plugin but the following plugins require it: {names}'
        if self.run.mode != "invoke":
            self.Log(ALERT, text, "alert")
            self.expected.alerts.append(text)
        self.Log(WARNING, text)

    def Work(self, node, stop):
        node.ran = True
        if node.kind == "plugin":
            self.expected.ran.append(node)
            (self.Deactivate if stop else self.Activate)(node)
        elif node.kind == "barrier" and not stop:
            self.CheckProviders(node)

    # The sequence.

    def BuildNodes(self):
        if self.run.daemons:
            for script in self.plan.listing:
                if isinstance(script, str):
                    self.Log(WARNING, f"Skipping a line that is not an init.d script and its priority: '{script}'")
                    continue
                if self.run.mode == "start" and script.name in ("tssyslogd", "hxed"):
                    continue  # boots look after these two
                node = Node(script.name, scheduleClass=3)
                node.source = script
                barrier = self.PriorityBarrier(script.priority)
                place = self.priorities.index(script.priority)
                if place > 0:
                    self.registry[f"_<->_priority_<->_{self.priorities[place - 1]}"].AddDependent(node)
                barrier.AddDependency(node)
                self.nodes.append(node)
            return
        if self.run.mode == "invoke" and self.archive is not None:
            prefix = "lofter.run-once="
            if self.archive.startswith(prefix):
                self.runOnce |= {field.strip() for field in self.archive[len(prefix):].split(",") if field.strip()}
        self.Discover()

    def Predict(self):
        run, expected = self.run, self.expected
        if run.init:
            for program, word in (("/usr/lib/tessel/tssyslog/bin/tssyslogd", "-i"), ("/etc/init.d/hxed", "start")):
                if self.plan.services:
                    expected.marks.append(f"{program} {word}")
                else:
                    self.Log(ERROR, f"execve({program}) failure: No such file or directory", "child")
        if not run.daemons:
            self.Log(INFO, "Launching Executor")
            self.Log(INFO, "Setting up Executor - Reset Requested")
            self.Log(INFO, "Executor Reset - polling for commands", "child")
        try:
            self.BuildNodes()
        except RuntimeError:
            self.Log(ERROR, "unhandled exception whilst enumerating plugins.\nDetails:\n ", open=True)
            expected.status = 1
            self.nodes = []
        else:
            self.Execute()
        expected.nodes = self.nodes
        expected.barriers = [self.registry[name] for name in sorted(self.registry, key=str.encode)]
        expected.parallel = run.parallel and not self.plan.stateless
        if not expected.waits:
            self.Finish()
        return expected

    def Execute(self):
        run, expected = self.run, self.expected
        if run.dump is not None:
            expected.dump = run.dump
            expected.status = 1 if run.dump.startswith("/nowhere") else 0
            return
        if run.parallel and not self.plan.stateless:
            expected.threads = min(len(self.nodes), 2 * self.plan.processors)
        cycle = HasCycle(self.nodes)
        expected.exact = expected.threads <= 1 and not cycle
        if not run.daemons:
            self.Log(INFO, "Activating Lofter Plugins")
        player = Player(self.Work, run.randomize is not None and not cycle, not cycle)
        expected.waits = not player.Run(self.nodes, run.mode == "stop")
        if not expected.waits and not run.daemons:
            expected.archive = self.runOnce
        expected.edges = Edges(expected.ran, run.mode == "stop")

    def Finish(self):
        run = self.run
        if run.daemons:
            self.expected.profile = "daemon" if self.hasProfile else None
            if not self.hasProfile:
                self.Log(ERROR, "unable to reopen profiling log (/var/log/sysboot.log): ", open=True)
        elif run.mode != "invoke":
            self.expected.profile = "boot"
        if run.init:
            if self.plan.syslogConfiguration and self.plan.services:
                self.expected.marks.append("upgrade")
            self.ReloadSyslog()
        if not run.daemons:
            self.Log(INFO, "Lofter executor signalled to stop", "child")
            self.Log(INFO, "Executor has been Successfully Stopped")

    def ReloadSyslog(self):
        if self.plan.syslogPid is None:
            self.Log(WARNING, "unable to open krxsyslogd pid file.")
        elif self.plan.syslogPid.startswith("4"):
            self.Log(WARNING, "failed to reload tssyslogd: No such process.")
        else:
            self.Log(ERROR, "unable to read tssyslogd pid.")


def Complaints(command):
    """What the executor logs about a command that fails: (text, whether that is the beginning only)."""
    if command.fate == "unparsable":
        return [("Executor was unable to parse command: ", True)]
    prefix = f"execution of '{command.text}' failed : "
    if command.fate == "unknown":
        return [(prefix + "unknown command: soak nothing", False)]
    if command.complaints:
        return [(f"{prefix}line {number} of {command.work.mark}", False) for number in range(1, command.complaints + 1)]
    if command.work.signal:
        return [(f"{prefix}killed by signal {command.work.signal}", False)]
    return [(f"{prefix}exited with status {command.work.status}", False)]


def Spaced(flags):
    return "".join(f"{flag} " for flag in sorted(flags))
