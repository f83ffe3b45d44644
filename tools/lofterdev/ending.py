"""How a tool ends when something beside it has gone wrong: with one line that says what, where Python would show a traceback."""
import os
import signal
import subprocess
import sys
from collections.abc import Callable


def call(main: Callable[[], object], name: str | None = None) -> None:
    """Calls a program's entry. Without a name of its own, the program is a part of another tool, which says the rest.

    A program that it called, and that failed, has said why already.
    """
    try:
        main()
        sys.stdout.flush()
    except subprocess.CalledProcessError as error:
        if name:
            print(f"{name}: {error.cmd[0]} has failed, for the reason above", file=sys.stderr)
        sys.exit(1)
    except BrokenPipeError:
        # What is left of the output has nowhere to go, at the end of the process neither.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        if name:
            print(f"{name}: whoever read its output has gone. To keep all of it: {name} >{name.split()[-1]}.log", file=sys.stderr)
        sys.exit(128 + signal.SIGPIPE)
