"""Makes a host root of a plan: a copy of a template that is assembled once, plus the files of the plan."""
import pathlib
import struct
import subprocess

from elf import SharedObject
from lofterdev.host import BUILD, Host
from lofterdev.roots import assemble
from plan import HostPlan, JsonFile, NativeFile, Script

SOURCE = pathlib.Path(__file__).resolve().parent / "plugin.c"
TEXT_SIZE, ENTRIES, POINTER = 16384, 64, 8
VERSION, LISTS, RELEASE, RUN_ONCE, FLAGS = 0, 8, 24, 32, 40  # in the metadata
COMMANDS = "/usr/lib/tessel/qorcli"
PLUGINS = "/usr/libexec/lofter/plugins"

# One script is all host commands: what it does is in its options.
COMMAND = """#!/bin/sh
for option; do
    value=${option#*=}
    case $option in
    --id=*) id=$value ;; --pause=*) pause=$value ;; --lines=*) lines=$value ;;
    --signal=*) signal=$value ;; --status=*) status=$value ;;
    esac
done
echo "$id" >>/var/marks
[ -z "$pause" ] || sleep "$pause"
number=0
while [ $number -lt ${lines:-0} ]; do
    number=$((number + 1))
    echo "line $number of $id" >&2
done
[ -z "$signal" ] || kill "-$signal" $$
exit ${status:-0}
"""
NEVER = "#!/bin/sh\necho shadowed >>/var/marks\n"


class Workshop:
    def __init__(self, folder: pathlib.Path) -> None:
        self.folder = folder
        self.template = folder / "template"
        self.objects: dict[str, bytes] = {}

    def compile_object(self, name: str, *options: pathlib.Path | str) -> None:
        target = self.folder / f"{name}.so"
        subprocess.run(["cc", "-std=gnu11", "-Wall", "-Werror", "-O1", "-shared", "-fPIC", "-Wl,-Bsymbolic", "-Wl,-z,nocombreloc", *options, "-o", target],
                       check=True)
        self.objects[name] = target.read_bytes()

    def prepare(self) -> None:
        """Once: the template, the commands, and the objects of which every native plugin is made."""
        self.folder.mkdir(parents=True, exist_ok=True)
        assemble(BUILD, self.template, bare=True)
        for path, text in (("soak.mark", COMMAND), ("soak.deep.est", COMMAND), ("int/soak.inner", COMMAND), ("ext/soak.outer", COMMAND),
                           ("int/soak.mark", NEVER), ("int/ext/soak.inner", NEVER), ("ext/soak.mark", NEVER)):
            command = self.template / COMMANDS.lstrip("/") / path
            command.write_text(text)
            command.chmod(0o755)
        self.load_objects()

    def load_objects(self) -> None:
        self.compile_object("whole", SOURCE)
        self.compile_object("bare", "-xc", "/dev/null")
        half = self.folder / "half.c"
        half.write_text("int (*operations[2])(void);\n")
        self.compile_object("half", half)

    def native_bytes(self, plugin: NativeFile) -> bytes:
        if plugin.flaw in ("bare", "half"):
            return self.objects[plugin.flaw]
        if plugin.flaw == "text":
            return b"not an object\n"
        whole = written(self.objects["whole"], plugin)
        return whole[:len(whole) // 2] if plugin.flaw == "truncated" else whole

    def furnish(self, host: Host, plan: HostPlan) -> None:
        for file in plan.files:
            if isinstance(file, JsonFile):
                host.plugin(file.file, file.text)
            elif isinstance(file, NativeFile):
                host.plugin(file.file, self.native_bytes(file))
            else:
                host.plugin(file.file, "")
        if plan.debug:
            host.debug_configuration(*[line.text for line in plan.debug])
        host.write("/sys/devices/system/cpu/online", f"0-{plan.processors - 1}\n" if plan.processors > 1 else "0\n")
        if plan.stateless:
            host.write("/stateless.tgz", "")
        if plan.host_profile is not None:
            host.write(f"/etc/tessel/hostprofile.{plan.host_profile}", "")
        if plan.services:
            for path in ("/usr/lib/tessel/tssyslog/bin/tssyslogd", "/etc/init.d/hxed"):
                host.write_script(path, f'echo "{path} $*" >>/var/marks')
            host.write_script("/usr/lib/tessel/tssyslog/bin/upgrade-syslog.conf.sh", "echo upgrade >>/var/marks")
        if plan.syslog_configuration:
            host.write("/etc/syslog.conf", "")
        if plan.syslog_pid is not None:
            host.write("/run/tessel/tssyslogd.pid", plan.syslog_pid)
        self.furnish_daemons(host, plan)

    def furnish_daemons(self, host: Host, plan: HostPlan) -> None:
        for script in plan.scripts:
            if script.flaw != "missing":
                host.write_script(script.path, script_body(script))
                host.path(script.path).chmod(0o644 if script.flaw == "locked" else 0o755)
        lines = [f"{line.path} {line.priority}" if isinstance(line, Script) else line for line in plan.listing]
        host.write("/etc/chkconfig.list", "".join(f"{line}\n" for line in lines))
        host.write_script("/bin/chkconfig", '[ "$*" = -p ] && cat /etc/chkconfig.list')


def written(whole: bytes, plugin: NativeFile) -> bytes:
    """The object as this plugin."""
    file = SharedObject(whole)
    metadata, entries = file.symbols["metadata"], file.symbols["entries"]
    text = bytearray()

    def refer(pointer: int, string: str | None) -> None:
        if string is None:
            file.clear(pointer)
            return
        file.point(pointer, file.symbols["text"] + len(text))
        text.extend(string.encode() + b"\0")

    file.write(metadata + VERSION, struct.pack("<I", plugin.version & 0xffffffff))
    file.write(metadata + RUN_ONCE, bytes([plugin.run_once]))
    refer(metadata + RELEASE, plugin.release)
    for number, names in enumerate((plugin.requires, plugin.provides, plugin.required_flags, plugin.disabling_flags)):
        assert len(names) < ENTRIES
        for place in range(ENTRIES):
            refer(entries + POINTER * (ENTRIES * number + place), names[place] if place < len(names) else None)
        if not names and plugin.run_once:  # no list and an empty one mean the same; both occur
            file.clear(metadata + (LISTS if number < 2 else FLAGS) + POINTER * (number % 2))
    for number, work in enumerate((plugin.start, plugin.profile)):
        refer(file.symbols["work"] + POINTER * number, f"{work.mark} {work.pause} {work.status} {work.signal}" if work else None)
    if plugin.profile is None:
        file.clear(file.symbols["operations"] + POINTER)
    assert len(text) <= TEXT_SIZE
    file.write(file.symbols["text"], bytes(text))
    return bytes(file.content)


def script_body(script: Script) -> str:
    cases = ""
    for method, work in (("start", script.start), ("stop", script.stop)):
        signal = f"kill -{work.signal} $$; " if work.signal else ""
        cases += f"{method}) echo +{work.mark} >>/var/marks; echo -{work.mark} >>/var/marks; {signal}exit {work.status} ;;\n"
    return f'case "$*" in\n{cases}esac'
