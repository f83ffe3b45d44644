"""Small hosts, written as text.

    make_host(tmp_path, '''
        hw:  provides disk ran 0 10
        net: requires disk provides link ran 10 25''')

One line a plugin: its name and a colon, then any of "requires <barriers>", "provides <barriers>" and "ran <start> <end>" in
microseconds since lofter's start. A host in which something ran has the profiling log of that boot, in the order of the lines.
"""
import dataclasses
import datetime
import json
import pathlib
from typing import Any

START = datetime.datetime(2026, 1, 2, 3, 4, 5)
NEVER = datetime.datetime(1970, 1, 1)


@dataclasses.dataclass
class Plugin:
    name: str
    requires: list[str] = dataclasses.field(default_factory=list)
    provides: list[str] = dataclasses.field(default_factory=list)
    ran: list[int] = dataclasses.field(default_factory=list)


def read_plugins(text: str) -> list[Plugin]:
    plugins: list[Plugin] = []
    for line in text.strip().splitlines():
        name, _, clauses = line.strip().partition(":")
        plugin = Plugin(name)
        target: list[Any] = []
        for word in clauses.split():
            if word in ("requires", "provides", "ran"):
                target = getattr(plugin, word)
            else:
                target.append(int(word) if target is plugin.ran else word)
        plugins.append(plugin)
    return plugins


def time_stamp(microseconds: int) -> str:
    return (START + datetime.timedelta(microseconds=microseconds)).strftime("%Y-%m-%d %H:%M:%S.%f")


def profiling_log(text: str, parallel: bool = False) -> str:
    """The boot section, as the program writes it."""
    never = NEVER.strftime("%Y-%m-%d %H:%M:%S.%f")
    plugins = read_plugins(text)
    lines = ["Krxkernel Initialization Time: 2000000"]
    for plugin in plugins:
        start, end = map(time_stamp, plugin.ran) if plugin.ran else (never, never)
        lines.append(f"[{start} - {end}] sysboot: {plugin.name}")
    end_of_run = max((plugin.ran[1] for plugin in plugins if plugin.ran), default=0) + 500
    lines += ["=== Lofter configuration info ===", f" Start: {time_stamp(0)}", f" End: {time_stamp(end_of_run)}", " Verbose: 0",
              f" Parallel: {int(parallel)}", " Randomize: 0", " Interactive Mode: 0", " Random Seed: 1"]
    return "\n".join(lines) + "\n"


def make_host(folder: pathlib.Path, text: str, parallel: bool = False) -> pathlib.Path:
    """The host's root, which is made within the folder."""
    root = folder / "root"
    directory = root / "usr" / "libexec" / "lofter" / "plugins"
    directory.mkdir(parents=True)
    plugins = read_plugins(text)
    for plugin in plugins:
        content = {"metadata": {"version": 1, "requires": plugin.requires, "provides": plugin.provides}, "operations": {"start": []}}
        (directory / f"{plugin.name}.json").write_text(json.dumps(content))
    if any(plugin.ran for plugin in plugins):
        log = root / "var" / "log" / "sysboot.log"
        log.parent.mkdir(parents=True)
        log.write_text(profiling_log(text, parallel))
    return root
