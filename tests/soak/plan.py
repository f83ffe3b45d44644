"""What a generated host is made of. The generator fills these in, the workshop makes files of them, the model reads them."""
import dataclasses
from typing import Any


@dataclasses.dataclass
class Work:
    """What an operation does when it runs: it leaves its mark, takes its time, and ends as it is told."""
    mark: str
    pause: int = 0  # milliseconds
    status: int = 0
    signal: int = 0


@dataclasses.dataclass
class Command:
    """One host command line. `fate`: runs, unknown, unparsable, or help."""
    text: str
    fate: str = "runs"
    work: Work | None = None
    complaints: int = 0  # lines on standard error

    @property
    def fails(self) -> bool:
        return self.fate in ("unknown", "unparsable") or self.fate == "runs" and bool(self.work and (self.work.status or self.work.signal))


@dataclasses.dataclass
class JsonFile:
    """`document` is what the file says; None when the text is no JSON. `commands`: command line -> Command."""
    file: str
    text: str
    document: Any
    commands: dict[str, Command]


@dataclasses.dataclass
class NativeFile:
    """A shared object. `flaw`: None, or why it does not load: text, truncated, bare (no symbols), half (no metadata)."""
    file: str
    version: int = 1
    requires: list[str] = dataclasses.field(default_factory=list)
    provides: list[str] = dataclasses.field(default_factory=list)
    release: str | None = None
    run_once: bool = False
    required_flags: list[str] = dataclasses.field(default_factory=list)
    disabling_flags: list[str] = dataclasses.field(default_factory=list)
    start: Work | None = None
    profile: Work | None = None
    flaw: str | None = None


@dataclasses.dataclass
class OtherFile:
    """Something in the plugin directory that is no plugin file."""
    file: str


PluginFile = JsonFile | NativeFile | OtherFile


@dataclasses.dataclass
class DebugLine:
    """A line of the debug configuration: an entry, or (with no name) a malformed or blank one, or one that cannot be split."""
    text: str
    name: str | None = None
    requires: list[str] | None = None
    provides: list[str] | None = None
    work: Work | None = None
    unsplit: str | None = None  # the reason


@dataclasses.dataclass
class Script:
    """An init.d script. `flaw`: None, missing, or locked (not executable)."""
    name: str
    priority: int
    start: Work
    stop: Work
    flaw: str | None = None

    @property
    def path(self) -> str:
        """The host's own services have their places; what is only named like them lies elsewhere."""
        return f"/etc/{'init.d' if self.name.startswith('d') else 'rc.d'}/{self.name}"


@dataclasses.dataclass
class Run:
    """One call of the program. `mode`: boot, plain, invoke, start or stop."""
    mode: str
    init: bool = False
    method: str | None = None
    plugins: list[str] = dataclasses.field(default_factory=list)
    parallel: bool = False
    interactive: bool = False  # the last of both options wins, and the requirements never come true
    randomize: str | None = None      # "" without a seed
    trace: bool = False
    verbose: bool = False
    flags: list[list[str]] = dataclasses.field(default_factory=list)  # one list of flags per occurrence
    run_once: list[str] = dataclasses.field(default_factory=list)
    disable: list[str] = dataclasses.field(default_factory=list)
    directory: str | None = None
    dump: str | None = None           # "" for standard output
    wait: bool = False

    @property
    def daemons(self) -> bool:
        return self.mode in ("start", "stop")

    def arguments(self) -> list[str]:
        words = []
        if self.init:
            words.append("--init")
        if self.mode == "invoke":
            words.append("--invoke")
        if self.daemons:
            words.append("--daemon=wait" if self.wait else "--daemon")
        if self.method is not None:
            words.append(f"--method={self.method}")
        words += [f"--plugin={name}" for name in self.plugins]
        if self.parallel:
            words += ["--interactive", "--parallel"] if self.verbose else ["--parallel"]
        if self.interactive:
            words += ["--parallel", "--interactive", "--interactive-mode-requires=nobody,,nothing"]
        if self.randomize is not None:
            words.append(f"--randomize={self.randomize}" if self.randomize else "--randomize")
        words += [name for name, on in (("--trace", self.trace), ("--verbose", self.verbose)) if on]
        words += ["--plugin-flags=" + ",".join(flags) for flags in self.flags]
        words += [f"--run-once={name}" for name in self.run_once]
        if self.disable:
            words.append("--disable-plugins=" + ",,".join(self.disable))
        if self.directory is not None:
            words.append(f"--plugin-directory={self.directory}")
        if self.dump is not None:
            words.append(f"--dump-dependency-tree={self.dump}" if self.dump else "--dump-dependency-tree")
        return words


@dataclasses.dataclass
class HostPlan:
    seed: int
    files: list[PluginFile]
    debug: list[DebugLine]
    scripts: list[Script]
    listing: list[Script | str]  # the lines of chkconfig: a Script, or a text that is no entry
    runs: list[Run]
    processors: int
    stateless: bool
    host_profile: str | None  # "xml" or "xml.gz"
    services: bool  # the syslog daemon and the observation daemon are there
    syslog_configuration: bool
    syslog_pid: str | None  # content of the pid file
