"""What a run has to do, told a second time: a plain, slow reading of the rules, which shares no code with the program.

predict() takes a host's plan, a run and what the host remembers from earlier runs, and returns an Expectation. It plays
the run with one worker; where several workers or a cycle make the order free, only its counts and edges are used.
"""
import dataclasses
from typing import Any

from plan import Command, DebugLine, HostPlan, JsonFile, NativeFile, Run, Script, Work
from scheduling import edges, has_cycle, Node, Player, STARTED

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
    log: list[Line] = dataclasses.field(default_factory=list)
    kernel: list[str] = dataclasses.field(default_factory=list)
    marks: list[str] = dataclasses.field(default_factory=list)
    ran: list[Node] = dataclasses.field(default_factory=list)      # nodes in the order of their activation
    nodes: list[Node] = dataclasses.field(default_factory=list)    # the node list
    edges: list[tuple[Node, Node]] = dataclasses.field(default_factory=list)    # (node, node that has to wait for it), both of which ran
    profile: str | None = None   # None, boot or daemon
    archive: set[str] | None = None  # written with this content; None: not touched
    dump: str | None = None      # where to; the graph is in nodes and barriers
    barriers: list[Node] = dataclasses.field(default_factory=list)
    alerts: list[str] = dataclasses.field(default_factory=list)
    parallel: bool = False


Failure = tuple[str, bool] | None


class InvalidPlugin(Exception):
    """A constructor's failure: its text, and whether that is only the text's beginning."""

    def __init__(self, text: str, open: bool = False) -> None:
        super().__init__(text)
        self.text, self.open = text, open


class Model:
    def __init__(self, plan: HostPlan, run: Run, listing: list[str], archive: str | None, has_profile: bool) -> None:
        """listing: the plugin directory's names in its own order; archive: the remembered text, or None."""
        self.plan, self.run, self.listing = plan, run, listing
        self.archive, self.has_profile = archive, has_profile
        self.expected = Expectation()
        self.registry: dict[str, Node] = {}
        self.priorities: list[int] = []
        self.nodes: list[Node] = []
        self.directory = run.directory if run.directory is not None else PLUGINS
        self.flags = set(run.flags[-1]) if run.flags else set()
        self.run_once = set(run.run_once)
        self.files = {file.file: file for file in plan.files}
        self.malformed = []
        for number, line in enumerate(plan.debug, 1):
            text = f"at line {number}: {line.text.strip()}"
            if line.unsplit:
                self.malformed.append((WARNING, f"skipping debug entry {text} ({line.unsplit})"))
            elif line.name is None and line.text.strip():
                self.malformed.append((INFO, f"ignoring malformed debug entry {text}"))

    # Logging.

    def log(self, severity: int, text: str, origin: str = "main", open: bool = False) -> None:
        self.expected.log.append(Line(severity, text, origin, open))

    def kernel(self, text: str) -> None:
        self.expected.kernel.append(text)

    # The graph.

    def barrier(self, name: str) -> Node:
        if name not in self.registry:
            self.registry[name] = Node(name, "barrier")
        return self.registry[name]

    def priority_barrier(self, priority: int) -> Node:
        name = f"_<->_priority_<->_{priority}"
        if name in self.registry:
            return self.registry[name]
        barrier = self.registry[name] = Node(name, "priority")
        place = sum(other < priority for other in self.priorities)
        self.priorities.insert(place, priority)
        if place > 0:
            barrier.add_dependency(self.registry[f"_<->_priority_<->_{self.priorities[place - 1]}"])
        if place + 1 < len(self.priorities):
            larger = self.registry[f"_<->_priority_<->_{self.priorities[place + 1]}"]
            for node in [node for node in larger.dependencies if node.kind == "plugin"] + [larger]:
                barrier.add_dependent(node)
        return barrier

    def link(self, node: Node, requires: list[str], provides: list[str], provides_first: bool = False) -> None:
        steps = [(requires, node.add_dependency), (provides, node.add_dependent)]
        for names, add in reversed(steps) if provides_first else steps:
            for name in names:
                add(self.barrier(name))

    # Discovery.

    def parse_debug_lines(self) -> None:
        for severity, text in self.malformed:
            self.log(severity, text)

    def discover(self) -> None:
        if not self.run.plugins:
            self.parse_debug_lines()
            if self.run.directory is not None:  # which does not exist
                raise RuntimeError()
            for file in self.listing:
                self.process_file(file)
            for line in self.plan.debug:
                if line.name is not None:
                    self.nodes.append(self.debug_plugin(line))
        else:
            for file in self.run.plugins:
                self.process_file(file)

    def process_file(self, file: str) -> None:
        stem, dot, extension = file.rpartition(".")
        if not dot:
            self.log(WARNING, f"ignoring plugin '{file}' of unspecified type...")
            return
        self.parse_debug_lines()
        name = stem[3:] if stem.startswith("lib") else stem
        if extension == "debug":
            self.nodes += [self.debug_plugin(line) for line in self.plan.debug if line.name == name]
            return
        if extension not in ("so", "json"):
            self.log(WARNING, f"ignoring plugin '{file}' of unknown type ({extension})...")
            return
        node = Node(name)
        try:
            if self.run.directory is not None or file not in self.files:
                path = f"{self.directory}/{file}"
                reason = "no such file or directory" if extension == "json" else ""
                raise InvalidPlugin(f"plugin `{path}' is invalid: {reason}", extension == "so")
            source = self.files[file]
            if isinstance(source, JsonFile):
                self.load_json(node, source)
            elif isinstance(source, NativeFile):
                self.load_native(node, source)
        except InvalidPlugin as failure:
            node.state = STARTED
            self.log(WARNING, f"exception occurred whilst loading plugin {file}: {failure.text}", open=failure.open)
            return
        self.add_unless_filtered(node)

    def add_unless_filtered(self, node: Node) -> None:
        if node.name in self.run.disable:
            self.log(INFO, f"ignoring plugin '{node.name}' due to blacklist.")
            node.state = STARTED
            return
        disabling, missing = node.disabling_flags & self.flags, node.required_flags - self.flags
        if disabling:
            self.log(WARNING, f"ignoring plugin '{node.name}', disabled due to boot flags: {spaced(disabling)}.")
        if missing:
            self.log(WARNING, f"ignoring plugin '{node.name}', disabled due to missing required boot flags: {spaced(missing)}.")
        if disabling or missing:
            node.state = STARTED
            return
        self.nodes.append(node)
        if node.run_once:
            key = node.name + node.release
            if key in self.run_once:
                self.log(INFO, f"ignoring plugin '{node.name}' because version '{node.release}'  has already been run.")
                node.state = STARTED
            else:
                self.run_once.add("".join(letter for letter in key if letter in KEPT))

    def debug_plugin(self, line: DebugLine) -> Node:
        assert line.name is not None and line.requires is not None and line.provides is not None
        node = Node(line.name)
        node.version, node.source = 1, line
        self.link(node, line.requires, line.provides)
        return node

    def load_native(self, node: Node, plugin: NativeFile) -> None:
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
        self.link(node, plugin.requires, plugin.provides, provides_first=True)
        if plugin.version > 2:
            node.required_flags, node.disabling_flags = set(plugin.required_flags), set(plugin.disabling_flags)
            node.run_once, node.release = plugin.run_once, plugin.release or ""

    def load_json(self, node: Node, plugin: JsonFile) -> None:
        node.source = plugin

        def demand(fact: bool, reason: str) -> None:
            if not fact:
                raise InvalidPlugin(f"plugin `{self.directory}/{plugin.file}' is invalid: {reason}")

        def strings(holder: dict[str, Any], key: str) -> list[str]:
            demand(isinstance(holder.get(key), list), f"metadata is corrupt (unable to parse {key})")
            demand(all(isinstance(entry, str) for entry in holder[key]), f"{key} tag is not a string")
            return holder[key]

        def commands(key: str, reason: str) -> list[str]:
            demand(isinstance(operations.get(key), list), reason)
            demand(all(isinstance(entry, str) for entry in operations[key]), "command is not a string")
            return operations[key]
        root = plugin.document
        demand(isinstance(root, dict), "plugin root is not an object")
        metadata = root.get("metadata")
        demand(isinstance(metadata, dict), "invalid metadata interface")
        version = metadata.get("version")
        demand(isinstance(version, (int, float)) and not isinstance(version, bool), "metadata is corrupt (unable to parse version)")
        node.version = int(version)
        demand(1 <= node.version <= 4, "Unsupported API version")
        self.link(node, strings(metadata, "requires"), [])
        self.link(node, [], strings(metadata, "provides"))
        if node.version > 2:
            if "required_flags" in metadata:
                node.required_flags = set(strings(metadata, "required_flags"))
            if "disabling_flags" in metadata:
                node.disabling_flags = set(strings(metadata, "disabling_flags"))
            demand(isinstance(metadata.get("run_once"), bool), "metadata is corrupt (unable to parse run_once)")
            node.run_once = metadata["run_once"]
            demand(isinstance(metadata.get("plugin_version"), str), "metadata is corrupt (unable to parse plugin_version)")
            node.release = metadata["plugin_version"]
        operations = root.get("operations")
        demand(isinstance(operations, dict), "invalid operations interface")
        node.start_commands = commands("start", "operations is corrupt (unable to parse start)")
        if node.version > 1 and "apply_host_profile" in operations:
            node.profile_commands = commands("apply_host_profile", "operations is corrupt (unable to parse apply-host-profile)")

    # What plugins do. Each returns None, or (text, whether it is a failure of the method itself).

    def leave(self, node: Node, work: Work, both: bool = True) -> None:
        signs = ("+", "-") if both else ("",)
        node.marks += [sign + work.mark for sign in signs]
        node.pause += work.pause
        self.expected.marks += [sign + work.mark for sign in signs]

    def start_debug(self, node: Node) -> None:
        work = node.source.work
        self.leave(node, work)
        status = work.signal or work.status << 8
        if status:
            self.log(INFO, f"debug injection '{node.name}' returned 0x{status:06x}")

    def run_native(self, node: Node, method: str, work: Work | None) -> Failure:
        assert work is not None
        self.leave(node, work)
        if work.signal:
            return f"{node.name}->{method}() failed: exited with signal: {work.signal}", True
        if work.status:
            return f"{node.name}->{method}() failed: exited with code {work.status}", True
        return None

    def run_commands(self, node: Node, method: str, commands: list[str]) -> Failure:
        failed = False
        for text in commands:
            command = node.source.commands[text]
            if command.fate == "runs":
                self.leave(node, command.work, both=False)
            if not command.fails:
                continue
            failed = True
            for error, open in complaints(command):
                self.log(ERROR, error, "child", open)
            self.log(ERROR, f"Executor failed executing qorcli command: {text}")
        if failed:
            return f"{node.name}->{method}() failed: error while executing the cli", True
        return None

    def run_script(self, script: Script, method: str, node: Node) -> str | None:
        """Returns the runner's complaint."""
        command = f"{script.path} {method}"
        if script.flaw is not None:
            reason = "No such file or directory" if script.flaw == "missing" else "Permission denied"
            return f"failed to ForkExec '{command}' : {reason}"
        work = getattr(script, method)
        self.leave(node, work)
        if work.signal:
            return f"Execution of command: {command} failed with signal: {work.signal}"
        if work.status:
            return f"Execution of command: {command} failed with status: {work.status}"
        return None

    def start_of(self, node: Node) -> Failure:
        source = node.source
        if isinstance(source, JsonFile):
            return self.run_commands(node, "start", node.start_commands)
        if isinstance(source, NativeFile):
            return self.run_native(node, "start", source.start)
        if not self.run.daemons:
            self.start_debug(node)
            return None
        complaint = self.run_script(source, "start", node)
        if complaint is None:
            self.log(INFO, f"{node.name} started.")
            return None
        self.log(WARNING, f"Lofter failed to start: {node.name} reason: {complaint}")
        return f"{node.name}->start() failed: {complaint}", True

    def takes_part(self, node: Node) -> bool:
        """In host profiles."""
        if isinstance(node.source, JsonFile):
            return node.version >= 2 and node.profile_commands != []
        return isinstance(node.source, NativeFile) and node.version >= 2 and node.source.profile is not None

    def apply_host_profile_of(self, node: Node) -> Failure:
        if isinstance(node.source, JsonFile):
            if node.version < 2:
                return "method `json_plugin::ApplyHostProfile' is not implemented", False
            return self.run_commands(node, "apply_host_profile", node.profile_commands)
        if isinstance(node.source, NativeFile):
            if not self.takes_part(node):
                return "method `NativePlugin::ApplyHostProfile' is not implemented", False
            return self.run_native(node, "apply_host_profile", node.source.profile)
        return "method `DebugPlugin::ApplyHostProfile' is not implemented", False

    def perform(self, node: Node, profile: bool) -> Failure:
        self.log(INFO, f"executing {'host profile' if profile else 'start'} plugin: {node.name}")
        return self.apply_host_profile_of(node) if profile else self.start_of(node)

    def activate(self, node: Node) -> None:
        run = self.run
        if run.daemons:
            self.log(INFO, f"Starting service {node.name}")
        if run.trace:
            self.log(INFO, f"starting execution of plugin: {node.name}")
        self.kernel(f"Activating Lofter plugin {node.name}.")
        failure = None
        if run.method is not None:
            if run.method in ("start", "apply_host_profile"):
                failure = self.perform(node, run.method == "apply_host_profile")
            if failure is not None:
                text, of_method = failure
                self.log(ERROR, f"Method invocation failed: {text}" if of_method else
                         f"unable to invoke method '{run.method}' on plugin '{node.name}': {text}")
                failure = "Method invocation failed", True
        else:
            failure = self.perform(node, self.plan.host_profile is not None and self.takes_part(node))
            if failure is not None:
                assert failure[1]
                self.log(ERROR, f"Method invocation failed: {failure[0]}")
        if run.trace:
            self.log(INFO, f"completed execution of plugin: {node.name} (took N us)")
        self.kernel(f"Lofter plugin {node.name} activated." if failure is None else
                    f"Lofter plugin {node.name} activation failed: {failure[0]}")

    def deactivate(self, node: Node) -> None:
        self.kernel(f"Deactivating Daemon {node.name}.")
        self.log(INFO, f"executing stop for daemon {node.name}.")
        complaint = self.run_script(node.source, "stop", node)
        if complaint is None:
            self.log(INFO, f"{node.name} stopped.")
            self.kernel(f"Daemon {node.name} deactivated.")
        else:
            self.log(WARNING, f"Lofter failed to stop: {node.name} reason: {complaint}")
            self.kernel(f"Daemon {node.name} deactivation failed: {complaint}")

    def check_providers(self, barrier: Node) -> None:
        if barrier.dependencies:
            return
        names = ", ".join(f'"{node.name}"' for node in barrier.dependents)
        text = f'Lofter dependency error: Initialization barrier "{barrier.name}" is not provided by any plugin' \
            f' but the following plugins require it: {names}'
        if self.run.mode != "invoke":
            self.log(ALERT, text, "alert")
            self.expected.alerts.append(text)
        self.log(WARNING, text)

    def work(self, node: Node, stop: bool) -> None:
        node.ran = True
        if node.kind == "plugin":
            self.expected.ran.append(node)
            (self.deactivate if stop else self.activate)(node)
        elif node.kind == "barrier" and not stop:
            self.check_providers(node)

    # The sequence.

    def build_nodes(self) -> None:
        if self.run.daemons:
            for script in self.plan.listing:
                if isinstance(script, str):
                    self.log(WARNING, f"Skipping a line that is not an init.d script and its priority: '{script}'")
                    continue
                if self.run.mode == "start" and script.name in ("tssyslogd", "hxed"):
                    continue  # boots look after these two
                node = Node(script.name, schedule_class=3)
                node.source = script
                barrier = self.priority_barrier(script.priority)
                place = self.priorities.index(script.priority)
                if place > 0:
                    self.registry[f"_<->_priority_<->_{self.priorities[place - 1]}"].add_dependent(node)
                barrier.add_dependency(node)
                self.nodes.append(node)
            return
        if self.run.mode == "invoke" and self.archive is not None:
            prefix = "lofter.run-once="
            if self.archive.startswith(prefix):
                self.run_once |= {field.strip() for field in self.archive[len(prefix):].split(",") if field.strip()}
        self.discover()

    def predict(self) -> Expectation:
        run, expected = self.run, self.expected
        if run.init:
            for program, word in (("/usr/lib/tessel/tssyslog/bin/tssyslogd", "-i"), ("/etc/init.d/hxed", "start")):
                if self.plan.services:
                    expected.marks.append(f"{program} {word}")
                else:
                    self.log(ERROR, f"execve({program}) failure: No such file or directory", "child")
        if not run.daemons:
            self.log(INFO, "Launching Executor")
            self.log(INFO, "Setting up Executor - Reset Requested")
            self.log(INFO, "Executor Reset - polling for commands", "child")
        try:
            self.build_nodes()
        except RuntimeError:
            self.log(ERROR, "unhandled exception whilst enumerating plugins.\nDetails:\n ", open=True)
            expected.status = 1
            self.nodes = []
        else:
            self.execute()
        expected.nodes = self.nodes
        expected.barriers = [self.registry[name] for name in sorted(self.registry, key=str.encode)]
        expected.parallel = run.parallel and not self.plan.stateless
        if not expected.waits:
            self.finish()
        return expected

    def execute(self) -> None:
        run, expected = self.run, self.expected
        if run.dump is not None:
            expected.dump = run.dump
            expected.status = 1 if run.dump.startswith("/nowhere") else 0
            return
        if run.parallel and not self.plan.stateless:
            expected.threads = min(len(self.nodes), 2 * self.plan.processors)
        cycle = has_cycle(self.nodes)
        expected.exact = expected.threads <= 1 and not cycle
        if not run.daemons:
            self.log(INFO, "Activating Lofter Plugins")
        player = Player(self.work, run.randomize is not None and not cycle, not cycle)
        expected.waits = not player.run(self.nodes, run.mode == "stop")
        if not expected.waits and not run.daemons:
            expected.archive = self.run_once
        expected.edges = edges(expected.ran, run.mode == "stop")

    def finish(self) -> None:
        run = self.run
        if run.daemons:
            self.expected.profile = "daemon" if self.has_profile else None
            if not self.has_profile:
                self.log(ERROR, "unable to reopen profiling log (/var/log/sysboot.log): ", open=True)
        elif run.mode != "invoke":
            self.expected.profile = "boot"
        if run.init:
            if self.plan.syslog_configuration and self.plan.services:
                self.expected.marks.append("upgrade")
            self.reload_syslog()
        if not run.daemons:
            self.log(INFO, "Lofter executor signalled to stop", "child")
            self.log(INFO, "Executor has been Successfully Stopped")

    def reload_syslog(self) -> None:
        if self.plan.syslog_pid is None:
            self.log(WARNING, "unable to open krxsyslogd pid file.")
        elif self.plan.syslog_pid.startswith("4"):
            self.log(WARNING, "failed to reload tssyslogd: No such process.")
        else:
            self.log(ERROR, "unable to read tssyslogd pid.")


def complaints(command: Command) -> list[tuple[str, bool]]:
    """What the executor logs about a command that fails: (text, whether that is the beginning only)."""
    if command.fate == "unparsable":
        return [("Executor was unable to parse command: ", True)]
    prefix = f"execution of '{command.text}' failed : "
    if command.fate == "unknown":
        return [(prefix + "unknown command: soak nothing", False)]
    assert command.work is not None
    if command.complaints:
        return [(f"{prefix}line {number} of {command.work.mark}", False) for number in range(1, command.complaints + 1)]
    if command.work.signal:
        return [(f"{prefix}killed by signal {command.work.signal}", False)]
    return [(f"{prefix}exited with status {command.work.status}", False)]


def spaced(flags: set[str]) -> str:
    return "".join(f"{flag} " for flag in sorted(flags))
