"""Makes a host root of a plan: a copy of a template that is assembled once, plus the files of the plan."""
import pathlib
import subprocess

from plan import JsonFile, NativeFile, Script
from support.host import BUILD, MKHOST, REPOSITORY

SOURCE = pathlib.Path(__file__).resolve().parent / "plugin.c"
MARKER = b"@the text of a plugin@"
TEXT_SIZE = 16384
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
    def __init__(self, folder):
        self.folder = folder
        self.template = folder / "template"
        self.objects = {}

    def Compile(self, name, *options):
        target = self.folder / f"{name}.so"
        subprocess.run(["cc", "-std=gnu11", "-Wall", "-Werror", "-O1", "-shared", "-fPIC", "-Wl,-Bsymbolic", *options, "-o", target], check=True)
        self.objects[name] = target.read_bytes()

    def Prepare(self):
        """Once: the template, the commands, and the objects of which every native plugin is made."""
        self.folder.mkdir(parents=True, exist_ok=True)
        subprocess.run([MKHOST, "--build", BUILD, "--dest", self.template, "--bare"], check=True)
        for path, text in (("soak.mark", COMMAND), ("soak.deep.est", COMMAND), ("int/soak.inner", COMMAND), ("ext/soak.outer", COMMAND),
                           ("int/soak.mark", NEVER), ("int/ext/soak.inner", NEVER), ("ext/soak.mark", NEVER)):
            command = self.template / COMMANDS.lstrip("/") / path
            command.write_text(text)
            command.chmod(0o755)
        self.LoadObjects()

    def LoadObjects(self):
        self.Compile("whole", SOURCE)
        self.Compile("bare", "-xc", "/dev/null")
        half = self.folder / "half.c"
        half.write_text("int (*operations[2])(void);\n")
        self.Compile("half", half)

    def NativeBytes(self, plugin):
        if plugin.flaw in ("bare", "half"):
            return self.objects[plugin.flaw]
        if plugin.flaw == "text":
            return b"not an object\n"
        words = [f"v{plugin.version}"]
        words += [f"R{plugin.release}"] if plugin.release is not None else []
        words += ["o"] if plugin.runOnce else []
        for letter, names in (("r", plugin.requires), ("p", plugin.provides), ("n", plugin.requiredFlags), ("d", plugin.disablingFlags)):
            words += [letter + name for name in names]
        for letter, work in (("s", plugin.start), ("a", plugin.profile)):
            words += [f"{letter}{work.mark} {work.pause} {work.status} {work.signal}"] if work else []
        text = "".join(f"{word}\0" for word in words).encode()
        assert len(text) < TEXT_SIZE - 1
        whole = self.objects["whole"]
        place = whole.index(MARKER)
        patched = whole[:place] + text.ljust(TEXT_SIZE, b"\0") + whole[place + TEXT_SIZE:]
        return patched[:len(patched) // 2] if plugin.flaw == "truncated" else patched

    def Furnish(self, host, plan):
        for file in plan.files:
            if isinstance(file, JsonFile):
                host.Plugin(file.file, file.text)
            elif isinstance(file, NativeFile):
                host.Plugin(file.file, self.NativeBytes(file))
            else:
                host.Plugin(file.file, "")
        if plan.debug:
            host.DebugConfiguration(*[line.text for line in plan.debug])
        host.Write("/sys/devices/system/cpu/online", f"0-{plan.processors - 1}\n" if plan.processors > 1 else "0\n")
        if plan.stateless:
            host.Write("/stateless.tgz", "")
        if plan.hostProfile is not None:
            host.Write(f"/etc/tessel/hostprofile.{plan.hostProfile}", "")
        if plan.services:
            for path in ("/usr/lib/tessel/tssyslog/bin/tssyslogd", "/etc/init.d/hxed"):
                host.WriteScript(path, f'echo "{path} $*" >>/var/marks')
            host.WriteScript("/usr/lib/tessel/tssyslog/bin/upgrade-syslog.conf.sh", "echo upgrade >>/var/marks")
        if plan.syslogConfiguration:
            host.Write("/etc/syslog.conf", "")
        if plan.syslogPid is not None:
            host.Write("/run/tessel/tssyslogd.pid", plan.syslogPid)
        self.FurnishDaemons(host, plan)

    def FurnishDaemons(self, host, plan):
        for script in plan.scripts:
            if script.flaw != "missing":
                host.WriteScript(script.path, ScriptBody(script))
                host.Path(script.path).chmod(0o644 if script.flaw == "locked" else 0o755)
        lines = [f"{line.path} {line.priority}" if isinstance(line, Script) else line for line in plan.listing]
        host.Write("/etc/chkconfig.list", "".join(f"{line}\n" for line in lines))
        host.WriteScript("/bin/chkconfig", '[ "$*" = -p ] && cat /etc/chkconfig.list')


def ScriptBody(script):
    cases = ""
    for method, work in (("start", script.start), ("stop", script.stop)):
        signal = f"kill -{work.signal} $$; " if work.signal else ""
        cases += f"{method}) echo +{work.mark} >>/var/marks; echo -{work.mark} >>/var/marks; {signal}exit {work.status} ;;\n"
    return f'case "$*" in\n{cases}esac'
