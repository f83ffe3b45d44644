"""Assembles a complete, small host root in a directory.

The root holds an installed build, the shared libraries it needs, a busybox userland, device nodes, and, unless it is
to be bare, the host's own parts: services (a syslog daemon, the observation daemon) and the demo configuration.
Nothing is run from the root and libraries are found by reading ELF headers, so a cross-built root is made the same way.
"""
import argparse
import os
import pathlib
import re
import shutil
import stat
import subprocess
import sys
from collections.abc import Sequence

from lofterdev.ending import call
from lofterdev.repository import HOST, output

MARKER = "etc/host-root"

DIRECTORIES = """
    bootbank dev etc/init.d proc root run/tessel sys tmp
    usr/bin usr/lib usr/lib64 usr/sbin var/lib var/log var/tmp
""".split()
MERGED = {"bin": "usr/bin", "sbin": "usr/sbin", "lib": "usr/lib", "lib64": "usr/lib64", "var/run": "../run"}

# Of a Debian package in a host root.
PACKAGE_PARTS_LEFT_OUT = ["usr/share/doc", "usr/share/man", "usr/share/locale", "usr/share/lintian", "usr/bin/dpkg"]

# Name, major, minor, mode.
NODES = [
    ("null", 1, 3, 0o666),
    ("zero", 1, 5, 0o666),
    ("full", 1, 7, 0o666),
    ("random", 1, 8, 0o666),
    ("urandom", 1, 9, 0o666),
    ("tty", 5, 0, 0o666),
]


class Root:
    """The directory that becomes the host."""

    def __init__(self, path: pathlib.Path) -> None:
        self.path = path

    def clear(self) -> None:
        if self.path.exists():
            if any(self.path.iterdir()) and not (self.path / MARKER).exists():
                sys.exit(f"mkhost: {self.path} is not empty and not a host root; not touching it")
            shutil.rmtree(self.path)
        self.path.mkdir(parents=True)

    def make_skeleton(self) -> None:
        for directory in DIRECTORIES:
            (self.path / directory).mkdir(parents=True, exist_ok=True)
        for link, target in MERGED.items():
            (self.path / link).symlink_to(target)
        for directory in ("tmp", "var/tmp"):
            (self.path / directory).chmod(0o1777)
        (self.path / MARKER).write_text("assembled by host/mkhost\n")

    def make_nodes(self) -> None:
        """An ordinary user may not make nodes: empty files then, over which host/enter binds the real ones."""
        for name, major, minor, mode in NODES:
            path = self.path / "dev" / name
            try:
                os.mknod(path, stat.S_IFCHR | mode, os.makedev(major, minor))
            except PermissionError:
                path.touch()
            path.chmod(mode)

    def copy_tree(self, source: pathlib.Path, left_out: Sequence[str] = ()) -> None:
        def ignore(directory: str, names: list[str]) -> list[str]:
            path = pathlib.Path(directory).relative_to(source)
            links = [name for name in names if (pathlib.Path(directory) / name).is_symlink()]
            for name in links:  # which copytree does not replace
                (self.path / path / name).unlink(missing_ok=True)
            return [name for name in names if str(path / name) in left_out]
        shutil.copytree(source, self.path, symlinks=True, dirs_exist_ok=True, copy_function=replace_file, ignore=ignore)

    def install(self, build: pathlib.Path, *options: str) -> None:
        environment = dict(os.environ, DESTDIR=str(self.path))
        subprocess.run(["cmake", "--install", build, *options], check=True, stdout=subprocess.DEVNULL, env=environment)

    def add_program(self, source: pathlib.Path, destination: str) -> None:
        target = self.path / destination
        target.parent.mkdir(parents=True, exist_ok=True)
        replace_file(source, target)

    def add_busybox(self, busybox: pathlib.Path) -> None:
        self.add_program(busybox, "usr/bin/busybox")
        for applet in output("busybox", "--list-full").split():
            path = self.path / (applet if applet.startswith("usr/") else f"usr/{applet}")
            if not path.exists() and path.name != "busybox":
                path.symlink_to(os.path.relpath(self.path / "usr/bin/busybox", path.parent))

    def add_daemons(self, architecture: str) -> None:
        """Daemons as Debian packages them, and the priorities and settings that their installation would have left."""
        lines = (HOST / "daemons" / "packages").read_text().splitlines()
        packages = [line for line in lines if line and not line.startswith("#")]
        for package in fetch(packages, architecture):
            self.copy_tree(package, PACKAGE_PARTS_LEFT_OUT)
        self.copy_tree(HOST / "daemons" / "root")

    def add_libraries(self, directories: Sequence[pathlib.Path]) -> None:
        """Follows the NEEDED entries of everything in the root until nothing is missing."""
        queue = [path for path in self.path.rglob("*") if path.is_file() and not path.is_symlink() and is_elf(path)]
        while queue:
            interpreter, needed, machine = read_elf(queue.pop())
            wanted = [(interpreter, interpreter.lstrip("/"))] if interpreter else []
            wanted += [(name, f"usr/lib/{machine}/{name}") for name in needed]
            for name, destination in wanted:
                target = self.path / destination
                if not target.exists():
                    self.add_program(find_library(name, machine, directories).resolve(), destination)
                    queue.append(target)


def replace_file(source: pathlib.Path | str, target: pathlib.Path | str) -> pathlib.Path | str:
    """Copies onto a name, never through a link that stands there (a busybox applet, say)."""
    pathlib.Path(target).unlink(missing_ok=True)
    return shutil.copy2(source, target, follow_symlinks=False)


def is_elf(path: pathlib.Path) -> bool:
    with open(path, "rb") as stream:
        return stream.read(4) == b"\x7fELF"


def read_elf(path: pathlib.Path) -> tuple[str | None, list[str], str]:
    """Returns the dynamic loader's path or None, the names of the libraries needed, and the machine's Debian triplet."""
    text = output("readelf", "--wide", "--file-header", "--program-headers", "--dynamic", path)
    machine = "".join(re.findall(r"Machine: +(.*)", text))
    triplet = "aarch64-linux-gnu" if "AArch64" in machine else "x86_64-linux-gnu" if "X86-64" in machine else None
    if triplet is None:
        sys.exit(f"mkhost: {path} is for an unknown machine: {machine}")
    interpreter = re.search(r"program interpreter: (.*)\]", text)
    needed = re.findall(r"\(NEEDED\).*\[(.*)\]", text)
    return interpreter.group(1) if interpreter else None, needed, triplet


def find_library(name: str, machine: str, directories: Sequence[pathlib.Path]) -> pathlib.Path:
    """A name is a file name, or the absolute path of the dynamic loader."""
    name = name.lstrip("/")
    base = os.path.basename(name)
    places = [pathlib.Path(directory) / base for directory in directories]
    places += [pathlib.Path(folder) / machine / base for folder in ("/usr/lib", "/lib")]
    places += [pathlib.Path("/usr") / machine / "lib" / base, pathlib.Path("/") / name]
    for place in places:
        if place.is_file():
            return place
    sys.exit(f"mkhost: library {base} for {machine} found in none of: {' '.join(map(str, places))}")


def debian_architecture(build: pathlib.Path) -> str:
    machine = read_elf(pathlib.Path(build) / "apps" / "lofter")[2]
    return {"aarch64-linux-gnu": "arm64", "x86_64-linux-gnu": "amd64"}[machine]


def fetch(packages: list[str], architecture: str) -> list[pathlib.Path]:
    native = output("dpkg", "--print-architecture").strip()
    names = packages if architecture == native else [f"{package}:{architecture}" for package in packages]
    return [pathlib.Path(line) for line in output(HOST / "fetch", *names).splitlines()]


def parse_arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="mkhost", description="Assembles a host root in a directory.")
    parser.add_argument("--build", required=True, type=pathlib.Path, help="the build tree to install")
    parser.add_argument("--dest", required=True, type=pathlib.Path, help="the directory to make; an older root there is replaced")
    parser.add_argument("--bare", action="store_true", help="without the host's services and the demo configuration")
    parser.add_argument("--daemons", action="store_true", help="with real daemons, as Debian packages them (see host/daemons)")
    parser.add_argument("--busybox", type=pathlib.Path, help="a static busybox (default: Debian's, for the build's machine)")
    parser.add_argument("--libraries", action="append", type=pathlib.Path, default=[],
                        help="a directory to look for libraries in, before the usual ones")
    return parser.parse_args()


def assemble(build: pathlib.Path, dest: pathlib.Path, *, bare: bool = False, daemons: bool = False, busybox: pathlib.Path | None = None,
             libraries: Sequence[pathlib.Path] = ()) -> None:
    """Makes a root of an installed build; the arguments are those of the program. An older root there is replaced."""
    architecture = debian_architecture(build)
    root = Root(dest.absolute())
    root.clear()
    root.make_skeleton()
    root.make_nodes()
    root.copy_tree(HOST / "base")
    root.add_busybox(busybox or fetch(["busybox-static"], architecture)[0] / "bin/busybox")
    root.install(build)
    if not bare:
        root.install(build, "--component", "host")
        root.install(build, "--component", "demo")
        root.add_program(fetch(["inetutils-syslogd"], architecture)[0] / "usr/sbin/syslogd", "usr/sbin/syslogd")
        root.copy_tree(HOST / "demo")
    if daemons:
        root.install(build, "--component", "host")
        root.add_daemons(architecture)
    root.add_libraries(libraries)


def main() -> None:
    assemble(**vars(parse_arguments()))


if __name__ == "__main__":
    call(main)
