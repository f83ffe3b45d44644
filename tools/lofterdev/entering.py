"""Runs a command in a host root, in mount and process namespaces of its own, so that nothing of it outlives the call.

Where the kernel grants namespaces, an ordinary user gets them through a user namespace in which he is root. Root on a
machine that grants none gets a plain chroot. Either way the caller waits for the command, what daemons leave behind is
reaped, what is still running is ended, and the exit status is the command's (128 + N after signal N).

util-linux makes the namespaces, its mount their file systems, and supervise.py looks after the command in them. Bubblewrap
would not do in their place: it ends everything with the command, before anybody can see what the command left behind; its
programs can never gain a privilege, which those of a host may; and it has no way for a kernel that grants no namespaces.
"""
import argparse
import functools
import os
import pathlib
import shlex
import stat
import subprocess
import sys
from collections.abc import Iterable, Sequence

from lofterdev.console import run_on_own_console

UNSHARE = ["/usr/bin/unshare", "--mount", "--uts", "--pid"]
SUPERVISE = ["/usr/bin/python3", "-I", "-S", str(pathlib.Path(__file__).resolve().with_name("supervise.py"))]
HEEDING_MODES = ["/usr/bin/setpriv", "--bounding-set", "-dac_override,-dac_read_search"]
DEVICES = ("null", "zero", "full", "random", "urandom", "tty")

Pairs = Iterable[tuple[str | pathlib.Path, str | pathlib.Path]]


@functools.cache
def namespaces() -> list[str] | None:
    """The command that makes namespaces, as far as this kernel grants them; None where there is only a plain chroot."""
    for way in ([], ["--map-root-user"]) if os.geteuid() == 0 else (["--map-root-user"],):
        probe = subprocess.run([*UNSHARE, *way, "/bin/true"], stdin=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
        if probe.returncode == 0:
            return [*UNSHARE, *way]
    reason = probe.stderr.strip().removeprefix("unshare: ")
    if os.geteuid() == 0:
        try:
            os.chroot("/")
            return None
        except PermissionError as error:
            reason = str(error)
    raise SystemExit(f"enter: this kernel grants neither namespaces nor a chroot here ({reason})."
                     " Try as the machine's root, or allow user namespaces, see sysctl user.max_user_namespaces")


def inside(root: str, path: str | pathlib.Path) -> str:
    return os.path.join(root, str(path).lstrip("/"))


def setup_script(root: str, bind: Pairs = (), tmpfs: Iterable[tuple[str, str]] = (), read_only: Iterable[str] = ()) -> str:
    """What the first process of the namespaces has done before it enters the root."""
    lines: list[str] = []

    def line(*words: str) -> None:
        lines.append(shlex.join(words))

    def mount(*words: str) -> None:
        line("mount", "--no-mtab", "--no-canonicalize", *words)

    def bind_one(source: str, target: str) -> None:
        """The mount point is made when it is missing, as the kind of thing that is bound."""
        if os.path.isdir(source):
            line("mkdir", "-p", target)
        elif not os.path.lexists(target):
            lines.append(f": >{shlex.quote(target)}")
        mount("--rbind", source, target)

    for name in DEVICES:
        target = inside(root, f"dev/{name}")
        if os.path.exists(target) and not is_usable_device(target):
            bind_one(f"/dev/{name}", target)
    for source, place in bind:
        bind_one(str(source), inside(root, place))
    for folder, size in tmpfs:
        mount("-t", "tmpfs", "-o", f"size={size or '16m'},mode=0755", "tmpfs", inside(root, folder))
    for part in read_only:
        mount("--bind", "-o", "ro", inside(root, part), inside(root, part))
    host_name = inside(root, "etc/hostname")
    if os.path.exists(host_name) and os.path.getsize(host_name) > 0:
        line("hostname", "-F", host_name)
    # A container that hides parts of its own /proc gives no fresh one to an ordinary user: better the outer one than none.
    proc = shlex.quote(inside(root, "proc"))
    lines.append(f"mount -n -t proc proc {proc} 2>/dev/null || mount -n --rbind /proc {proc}")
    return "\n".join(lines)


def is_usable_device(path: str) -> bool:
    return stat.S_ISCHR(os.lstat(path).st_mode) and not os.statvfs(path).f_flag & os.ST_NODEV


def entry_command(root: str | pathlib.Path, command: Sequence[object], *, bind: Pairs = (), tmpfs: Iterable[tuple[str, str]] = (),
                  read_only: Iterable[str] = (), net: bool = False, heed_modes: bool = False, plain: bool = False,
                  wait: bool = False, leftovers: int | None = None, grace: float = 0) -> list[str]:
    """The words of a command that runs `command` in the root.

    bind: (path on this machine, path in the root) pairs. tmpfs: (path, size) pairs. read_only: paths.
    net: a network of its own, without interfaces. heed_modes: file modes hold for root, too. plain: no namespaces.
    wait: for the daemons that the command leaves behind, rather than ending them.
    leftovers: a descriptor, on which a line is written for every process that the command left behind.
    grace: seconds that those may take to end by themselves.
    """
    directory = os.path.realpath(root)
    if plain and os.geteuid() != 0:
        raise SystemExit("enter: a plain chroot needs root")
    around = None if plain else namespaces()
    options = [f"root={directory}", f"grace={grace}"]
    if around is not None:
        options.append(f"setup={setup_script(directory, bind, tmpfs, read_only)}")
    elif any((*bind, *tmpfs, *read_only, net)):
        raise SystemExit("enter: mounts and networks need namespaces, which this kernel does not grant here")
    options += ["wait=1"] if wait else []
    options += [f"leftovers={leftovers}"] if leftovers is not None else []
    return [*(around or []), *(["--net"] if net else []), *(HEEDING_MODES if heed_modes else []),
            *SUPERVISE, *options, "--", *map(str, command)]


def first_process_command(root: str | pathlib.Path, command: Sequence[object]) -> list[str]:
    """The words of a command that is the first process of a root's namespaces, outside of the root, without a network.

    It lives as long as what it is called by at the most, and everything in the namespaces as long as it.
    """
    around = namespaces()
    if around is None:
        raise SystemExit("enter: first processes need namespaces, which this kernel does not grant here")
    setup = setup_script(os.path.realpath(root))
    return [*around, "--net", "--fork", "--kill-child", "/bin/sh", "-euc", f'{setup}\nexec "$@"', "sh", *map(str, command)]


def pair(text: str) -> tuple[str, str]:
    first, _, second = text.partition(":")
    return first, second


def parse_arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(usage="enter [options] ROOT [--] COMMAND [ARGUMENT...]",
                                     description="Runs a command in a host root.")
    add = parser.add_argument
    add("--bind", action="append", default=[], type=pair, metavar="FROM:TO", help="bind a file or directory of this machine into the root")
    add("--tmpfs", action="append", default=[], type=pair, metavar="PATH:SIZE", help="a memory file system of that size")
    add("--read-only", action="append", default=[], metavar="PATH", help="make that part of the root read-only")
    add("--heed-modes", action="store_true", help="file modes hold for root, too")
    add("--net", action="store_true", help="a network of its own, without interfaces")
    add("--console", action="store_true", help="a terminal of its own that is also /dev/console (when called from a terminal)")
    add("--plain", action="store_true", help="a plain chroot, no namespaces")
    add("root", metavar="ROOT")
    add("command", nargs=argparse.REMAINDER, metavar="COMMAND")
    options = parser.parse_args()
    if options.command[:1] == ["--"]:
        del options.command[0]
    if not options.command:
        parser.error("a command is needed")
    options.bind = [(source, target or source) for source, target in options.bind]
    return options


def main() -> None:
    os.environ.pop("PYTHONPATH", None)  # which has led here, and is nothing to the command
    options = vars(parse_arguments())
    console = options.pop("console")
    if not os.path.isdir(options["root"]):
        sys.exit(f"enter: no such directory: {os.path.realpath(options['root'])}")
    if console and os.isatty(0) and not options["plain"]:
        def enter_with(terminal: str) -> list[str]:
            options["bind"].append((terminal, "/dev/console"))
            return entry_command(**options)
        sys.exit(run_on_own_console(enter_with))
    command = entry_command(**options)
    os.execv(command[0], command)


if __name__ == "__main__":
    main()
