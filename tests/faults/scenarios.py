"""A small host with a plugin of every kind, and the runs that are made on it."""
import gzip
import json
import re
import shutil
import stat

import control

MARKS = "run/marks"
PROFILE = "var/log/sysboot.log"
RECORD = "bootbank/loftsave.gz"
KERNEL_LOG = "dev/kmsg"
# What the login prompt shows of a barrier that nobody provides, because its provider could not be loaded.
ALERT = {"run/issue.d", "run/issue.d/50-lofter.issue"}
EXECUTOR_LOG = "var/log/lofter-qorcli-stdout.log"
PLUGINS = "usr/libexec/lofter/plugins"

TIME = r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6}"
SETTINGS = " Verbose: [01]\n Parallel: [01]\n Randomize: [01]\n Interactive Mode: [01]\n Random Seed: -?\\d+\n"
BOOT_SECTION = re.compile(
    rf"Krxkernel Initialization Time: \d+\n(\[{TIME} - {TIME}\] sysboot: [\w.]+\n)*"
    rf"=== Lofter configuration info ===\n Start: {TIME}\n End: {TIME}\n{SETTINGS}")
DAEMON_SECTION = re.compile(
    rf"(\[{TIME} - {TIME}\] daemon: [\w.]+\n)*=== Daemon configuration info ===\n Start Daemon: {TIME}\n End Daemon: {TIME}\n{SETTINGS}")

OLD_PROFILE = """Krxkernel Initialization Time: 1000000
[2024-01-02 07:03:09.000005 - 2024-01-02 07:03:09.000006] sysboot: old
=== Lofter configuration info ===
 Start: 2024-01-02 07:03:08.000000
 End: 2024-01-02 07:03:10.000000
 Verbose: 0
 Parallel: 0
 Randomize: 0
 Interactive Mode: 0
 Random Seed: 1704178988
"""
EMPTY_RECORD = "lofter.run-once=\n"
OLD_RECORD = "lofter.run-once=old.json@1,\n"

# Arguments by name; `parallel` is for what only threads call.
RUNS = {
    "boot": ["--init", "--verbose"],
    "parallel": ["--init", "--parallel", "--trace"],
    "invoke": ["--invoke", "--method=start", "--plugin=host.json,hello.so"],
    "daemon-start": ["--daemon=wait", "--method=start"],
    "daemon-stop": ["--daemon", "--method=stop"],
}


def Mark(text):
    return f"echo {text} >>/{MARKS}"


def Document(commands, **metadata):
    return json.dumps({"metadata": {"version": 4, "run_once": False, "plugin_version": "1", **metadata},
                       "operations": {"start": commands}})


class Root:
    """A host root whose few files that a run changes can be put back quickly."""

    def __init__(self, path, template, build):
        self.path = path
        shutil.rmtree(path, ignore_errors=True)
        shutil.copytree(template, path, symlinks=True, copy_function=shutil.copy2, ignore=self.Devices)
        for node in self.devices:
            (path / "dev" / node).touch()
        control.Install(path, build / "tests" / "faults" / "faults.so")
        self.AddPlugins(build)
        self.AddHost()
        self.pristine = self.known = set()
        self.Reset()
        self.pristine = self.known = self.Paths()

    def Devices(self, directory, names):
        """Device nodes are not copied: the room binds the machine's own over plain files."""
        if not directory.endswith("/dev"):
            return []
        self.devices = names
        return names

    def Write(self, path, content, mode=0o644):
        target = self.path / path
        target.parent.mkdir(parents=True, exist_ok=True)
        target.write_bytes(content.encode() if isinstance(content, str) else content)
        target.chmod(mode)

    def WriteScript(self, path, body):
        self.Write(path, f"#!/bin/sh\n{body}\n", 0o755)

    def AddPlugins(self, build):
        self.Write("etc/tessel/lofter/debug.conf",
                   f"first::early:{Mark('debug.first')}\nlast:late::{Mark('debug.last')}\nfails:late::exit 3\n")
        self.Write(f"{PLUGINS}/host.json",
                   Document(["mark --text=host.one", "mark --text=host.two", "int fail", "sub mark --text='host.three  four'"],
                            requires=["early"], provides=["middle"]))
        self.Write(f"{PLUGINS}/once.json", Document(["mark --text=once.one"], requires=["middle"], provides=["late"], run_once=True))
        self.Write(f"{PLUGINS}/damaged.json", '{"metadata": {')
        self.Write(f"{PLUGINS}/hello.so", (build / "sdk" / "examples" / "hello.so").read_bytes())
        self.Write(f"{PLUGINS}/README", "no plugin\n")
        for name in ("mark", "sub.mark"):
            self.WriteScript(f"usr/lib/tessel/qorcli/{name}", f'echo "${{1#--text=}}" >>/{MARKS}; echo said')
        self.WriteScript("usr/lib/tessel/qorcli/int/int.fail", "echo the reason >&2; exit 3")

    def AddHost(self):
        self.WriteScript("usr/lib/tessel/tssyslog/bin/tssyslogd", Mark("tssyslogd"))
        self.WriteScript("usr/lib/tessel/tssyslog/bin/upgrade-syslog.conf.sh", Mark("upgrade"))
        self.Write("etc/syslog.conf", "")
        for name in ("hxed", "one", "two"):
            self.WriteScript(f"etc/init.d/{name}", Mark(f"{name}.$1"))
        self.WriteScript("etc/init.d/three", "exit 3")
        (self.path / "usr/bin/chkconfig").unlink(missing_ok=True)
        self.WriteScript("usr/bin/chkconfig",
                         "for line in 'one 1' 'two 2' 'three 2' 'hxed 9'; do echo /etc/init.d/$line; done")

    def Reset(self):
        """As a host comes up: old logs, an empty run directory."""
        shutil.rmtree(self.path / "run")
        (self.path / "run/tessel").mkdir(parents=True)
        # The syslog daemon is the namespace's first process, which no signal ends.
        self.Write("run/tessel/tssyslogd.pid", "1\n")
        self.Write(PROFILE, OLD_PROFILE, 0o640)
        self.Write(RECORD, gzip.compress(OLD_RECORD.encode(), mtime=0))
        self.Write(KERNEL_LOG, "")
        for path in self.Paths() - self.pristine if self.pristine else ():
            (self.path / path).unlink(missing_ok=True)

    def Read(self, path):
        try:
            return (self.path / path).read_bytes().decode(errors="replace")
        except FileNotFoundError:
            return ""

    def Record(self):
        """None for an archive that cannot be read."""
        try:
            return gzip.decompress((self.path / RECORD).read_bytes()).decode()
        except (OSError, EOFError, UnicodeDecodeError):
            return None

    def Paths(self):
        found = set()
        for top in ("bootbank", "etc", "root", "run", "tmp", "usr/lib/tessel", "usr/libexec", "var"):
            found.update(str(path.relative_to(self.path)) for path in (self.path / top).rglob("*"))
        return found

    def Learn(self):
        """What is there after an undisturbed run may be there after any."""
        self.known = self.known | self.Paths()

    def Unexpected(self):
        return sorted(self.Paths() - self.known - ALERT)

    def Mode(self):
        return stat.S_IMODE((self.path / PROFILE).stat().st_mode)
