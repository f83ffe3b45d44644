"""Processes of this machine, those in a root among them."""
import contextlib
import os


def processes_below(parent: int) -> list[tuple[int, list[str]]]:
    """(process id, words of the command line) of everything that a process has started."""
    children: dict[int, list[tuple[int, list[str]]]] = {}
    for name in filter(str.isdigit, os.listdir("/proc")):
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):
            with open(f"/proc/{name}/stat", "rb") as stat, open(f"/proc/{name}/cmdline", "rb") as words:
                above = int(stat.read().rpartition(b")")[2].split()[1])
                children.setdefault(above, []).append((int(name), words.read().decode(errors="replace").split("\0")))
    found, queue = [], [parent]
    while queue:
        below = children.get(queue.pop(), [])
        found += below
        queue += [process for process, _ in below]
    return found
