"""A small host with a plugin of every kind, and the runs that are made on it."""
import gzip
import json
import pathlib
import re
import shutil
import stat
from typing import Any

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


def mark(text: str) -> str:
    return f"echo {text} >>/{MARKS}"


def document(commands: list[str], **metadata: Any) -> str:
    return json.dumps({"metadata": {"version": 4, "run_once": False, "plugin_version": "1", **metadata},
                       "operations": {"start": commands}})


class Root:
    """A host root whose few files that a run changes can be put back quickly."""

    def __init__(self, path: pathlib.Path, template: pathlib.Path, build: pathlib.Path) -> None:
        self.path = path
        shutil.rmtree(path, ignore_errors=True)
        shutil.copytree(template, path, symlinks=True, copy_function=shutil.copy2, ignore=self.list_devices)
        for node in self.devices:
            (path / "dev" / node).touch()
        control.install(path, build / "tests" / "faults" / "faults.so")
        self.add_plugins(build)
        self.add_host()
        self.pristine = self.known = set()
        self.reset()
        self.pristine = self.known = self.paths()

    def list_devices(self, directory: str, names: list[str]) -> list[str]:
        """Device nodes are not copied: the room binds the machine's own over plain files."""
        if not directory.endswith("/dev"):
            return []
        self.devices = names
        return names

    def write(self, path: str, content: bytes | str, mode: int = 0o644) -> None:
        target = self.path / path
        target.parent.mkdir(parents=True, exist_ok=True)
        target.write_bytes(content.encode() if isinstance(content, str) else content)
        target.chmod(mode)

    def write_script(self, path: str, body: str) -> None:
        self.write(path, f"#!/bin/sh\n{body}\n", 0o755)

    def add_plugins(self, build: pathlib.Path) -> None:
        self.write("etc/tessel/lofter/debug.conf",
                   f"first::early:{mark('debug.first')}\nlast:late::{mark('debug.last')}\nfails:late::exit 3\n")
        self.write(f"{PLUGINS}/host.json",
                   document(["mark --text=host.one", "mark --text=host.two", "int fail", "sub mark --text='host.three  four'"],
                            requires=["early"], provides=["middle"]))
        self.write(f"{PLUGINS}/once.json", document(["mark --text=once.one"], requires=["middle"], provides=["late"], run_once=True))
        self.write(f"{PLUGINS}/damaged.json", '{"metadata": {')
        self.write(f"{PLUGINS}/hello.so", (build / "sdk" / "examples" / "hello.so").read_bytes())
        self.write(f"{PLUGINS}/README", "no plugin\n")
        for name in ("mark", "sub.mark"):
            self.write_script(f"usr/lib/tessel/qorcli/{name}", f'echo "${{1#--text=}}" >>/{MARKS}; echo said')
        self.write_script("usr/lib/tessel/qorcli/int/int.fail", "echo the reason >&2; exit 3")

    def add_host(self) -> None:
        self.write_script("usr/lib/tessel/tssyslog/bin/tssyslogd", mark("tssyslogd"))
        self.write_script("usr/lib/tessel/tssyslog/bin/upgrade-syslog.conf.sh", mark("upgrade"))
        self.write("etc/syslog.conf", "")
        for name in ("hxed", "one", "two"):
            self.write_script(f"etc/init.d/{name}", mark(f"{name}.$1"))
        self.write_script("etc/init.d/three", "exit 3")
        (self.path / "usr/bin/chkconfig").unlink(missing_ok=True)
        self.write_script("usr/bin/chkconfig",
                         "for line in 'one 1' 'two 2' 'three 2' 'hxed 9'; do echo /etc/init.d/$line; done")

    def reset(self) -> None:
        """As a host comes up: old logs, an empty run directory."""
        shutil.rmtree(self.path / "run")
        (self.path / "run/tessel").mkdir(parents=True)
        # The syslog daemon is the namespace's first process, which no signal ends.
        self.write("run/tessel/tssyslogd.pid", "1\n")
        self.write(PROFILE, OLD_PROFILE, 0o640)
        self.write(RECORD, gzip.compress(OLD_RECORD.encode(), mtime=0))
        self.write(KERNEL_LOG, "")
        for path in self.paths() - self.pristine if self.pristine else ():
            (self.path / path).unlink(missing_ok=True)

    def read(self, path: str) -> str:
        try:
            return (self.path / path).read_bytes().decode(errors="replace")
        except FileNotFoundError:
            return ""

    def record(self) -> str | None:
        """None for an archive that cannot be read."""
        try:
            return gzip.decompress((self.path / RECORD).read_bytes()).decode()
        except (OSError, EOFError, UnicodeDecodeError):
            return None

    def paths(self) -> set[str]:
        found: set[str] = set()
        for top in ("bootbank", "etc", "root", "run", "tmp", "usr/lib/tessel", "usr/libexec", "var"):
            found.update(str(path.relative_to(self.path)) for path in (self.path / top).rglob("*"))
        return found

    def learn(self) -> None:
        """What is there after an undisturbed run may be there after any."""
        self.known = self.known | self.paths()

    def unexpected(self) -> list[str]:
        return sorted(self.paths() - self.known - ALERT)

    def mode(self) -> int:
        return stat.S_IMODE((self.path / PROFILE).stat().st_mode)
