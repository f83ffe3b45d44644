"""The file that the preloaded library shares with the processes of a run: what is to fail, and what happened."""
import pathlib
import struct
from collections.abc import Sequence

LIBRARY = "usr/lib/faults.so"
PRELOADED = "etc/ld.so.preload"
FILE = "var/lib/faults"

# In the library's order.
KINDS = ("open", "write", "read", "fsync", "rename", "mkstemp", "fork", "daemon", "posix_spawn", "system", "popen",
         "pthread_create", "pthread_cond_init", "socket", "bind", "listen", "connect", "accept", "send", "recv", "waitpid",
         "signal", "malloc")

PROCESSES = 64
FRAMES = 30
HEAD = struct.Struct(f"=IIIiQIIIIIIQ{FRAMES}Q")
CALLS = struct.Struct(f"={PROCESSES * len(KINDS)}Q")


def order(kind: str | None = None, number: int = 0, process: int = 0, error: int = 0, storm: Sequence[str] = (),
          trace: bool = False) -> bytes:
    """The file's content before a run: one call that fails, or kinds of call that are all interrupted once."""
    head = HEAD.pack(kind is not None, KINDS.index(kind) if kind else 0, process, error, number,
                     sum(1 << KINDS.index(name) for name in storm), trace, *([0] * (5 + FRAMES)))
    return head + bytes(CALLS.size)


class Record:
    """The file's content after a run."""

    def __init__(self, content: bytes) -> None:
        _, _, _, _, _, _, _, self.hits, self.processes, self.killed_by, count, base, *frames = HEAD.unpack(content[:HEAD.size])
        # Return addresses; the calls are before them.
        self.frames = [frame - base - 1 for frame in frames[:count]]
        counts = CALLS.unpack(content[HEAD.size:])
        self.calls = {}
        for process in range(self.processes):
            row = counts[process * len(KINDS):(process + 1) * len(KINDS)]
            self.calls.update({(kind, process): count for kind, count in zip(KINDS, row) if count > 0})


def install(root: pathlib.Path, library: pathlib.Path) -> None:
    """Every program that starts in the root from now on has the library, lofter's native runner included."""
    root.joinpath(LIBRARY).write_bytes(library.read_bytes())
    root.joinpath(PRELOADED).write_text(f"/{LIBRARY}\n")
