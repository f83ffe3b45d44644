"""Host roots, file by file, for what the files themselves say."""
import json
import os
import pathlib
import platform
import subprocess

from lofterdev.repository import REPOSITORY

PLUGINS = "usr/libexec/lofter/plugins"
PLUGIN_SOURCE = """
#include <lofter/plugin.h>
static int Start(void) { return 0; }
LOFTER_PLUGIN(Start, LOFTER_NONE, LOFTER_LIST("thing"));
"""
MACHINE_AT = 18  # where an object says which machine it is for
OWN, OTHER, OTHERS_NUMBER = ("AArch64", "x86-64", 62) if platform.machine() == "aarch64" else ("x86-64", "AArch64", 183)


class Root:
    """A host in which there is nothing but what the test writes. What it writes, its owner alone may write."""

    def __init__(self, path: pathlib.Path) -> None:
        self.path = path
        self.folder(PLUGINS)

    def folder(self, name: str) -> pathlib.Path:
        path = self.path
        for part in pathlib.PurePath(name).parts:
            path = path / part
            path.mkdir(exist_ok=True, parents=True)
            path.chmod(0o755)
        return path

    def file(self, name: str, content: str | bytes, mode: int = 0o644) -> pathlib.Path:
        path = self.folder(str(pathlib.PurePath(name).parent)) / pathlib.PurePath(name).name
        path.write_bytes(content.encode() if isinstance(content, str) else content)
        path.chmod(mode)
        return path

    def plugin(self, name: str, content: str | bytes, mode: int = 0o644) -> pathlib.Path:
        return self.file(f"{PLUGINS}/{name}", content, mode)

    def json(self, name: str, requires: list[str] | None = None, provides: list[str] | None = None, start: list[str] | None = None,
             version: int = 1, **metadata: object) -> pathlib.Path:
        """Of one line."""
        block = {"version": version, "requires": requires or [], "provides": provides or []} | metadata
        return self.plugin(f"{name}.json", json.dumps({"metadata": block, "operations": {"start": start or []}}))

    def object(self, name: str, source: str = PLUGIN_SOURCE, *options: str, machine: int | None = None) -> pathlib.Path:
        """A native plugin, said to be for another machine than it is."""
        path = self.folder(PLUGINS) / name
        build_object(path, source, *options)
        content = bytearray(path.read_bytes())
        if machine is not None:
            content[MACHINE_AT:MACHINE_AT + 2] = machine.to_bytes(2, "little")
        return self.plugin(name, bytes(content))

    def library(self, name: str, *options: str, folder: str = "lib") -> pathlib.Path:
        path = self.folder(folder) / name
        build_object(path, "int nothing;", *options)
        path.chmod(0o644)
        return path


def build_object(path: pathlib.Path, source: str, *options: str) -> None:
    """Without the C library, which it has no need of: nothing has to be found for it."""
    subprocess.run(["cc", "-shared", "-fPIC", "-nostdlib", "-xc", "-", "-xnone", f"-I{REPOSITORY / 'sdk' / 'include'}", "-o", path, *options],
                   input=source.encode(), check=True, timeout=120, env=os.environ)
