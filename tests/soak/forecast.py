"""What the companion says of a run, before it and after it, beside the run's own profiling log.

The order of the plan has to be the order in which the plugins of a serial run began: without a log, when nothing is known
but the files, and with the log that the run left.
"""
import json
import pathlib
import re
import subprocess

from lofterdev.host import BUILD, Host
from model import Expectation
from plan import Run
from workshop import PLUGINS

PROGRAM = BUILD / "apps" / "lofter-analyze" / "lofter-analyze"
LINE = re.compile(r"\[(\S+ \S+) - (\S+ \S+)\] sysboot: (.*)", re.DOTALL)
DEBUG_CONFIGURATION = "/etc/tessel/lofter/debug.conf"
NEVER = "1970-01-01 00:00:00.000000"
SELECTION = ("--plugin=", "--plugin-flags=", "--run-once=", "--disable-plugins=")


def is_foretold(run: Run, expected: Expectation) -> bool:
    """Whether the order of the run is one that can be known before it."""
    return expected.profile == "boot" and expected.exact and expected.status == 0 and run.dump is None and run.randomize is None \
        and run.mode in ("boot", "plain") and run.directory is None


def planned(run: Run, *inputs: str | pathlib.Path) -> list[str] | str:
    """The names, or what is wrong."""
    selection = [argument for argument in run.arguments() if argument.startswith(SELECTION)]
    result = subprocess.run([PROGRAM, "plan", "--threads=1", "--format=json", *selection, *inputs], capture_output=True)
    if result.returncode != 0:
        return f"exit status {result.returncode}: {result.stderr.decode(errors='replace')}"
    return [step["plugin"] for step in json.loads(result.stdout)["steps"]]


def files_of(host: Host) -> list[str | pathlib.Path]:
    """The inputs that there are before the first run, without the log of an earlier one."""
    files: list[str | pathlib.Path] = ["--plugin-directory", host.path(PLUGINS)]
    return [*files, "--debug-configuration", host.path(DEBUG_CONFIGURATION)] if host.exists(DEBUG_CONFIGURATION) else files


def began(log: str) -> list[str]:
    """In the order of the log's times; of two that begin at one instant the log does not say which was first."""
    spans = [match.groups() for match in map(LINE.fullmatch, log.split("\n")) if match]
    return [name for _, _, name in sorted((span for span in spans if span[0] != NEVER), key=lambda span: span[:2])]


class Foretelling:
    """Made before the run, asked after it."""

    def __init__(self, host: Host, run: Run, expected: Expectation) -> None:
        self.host, self.run, self.is_foretold = host, run, is_foretold(run, expected)
        self.before = planned(run, *files_of(host)) if self.is_foretold else []

    def problems(self, log: str | None) -> list[str]:
        if not self.is_foretold:
            return []
        actual = began(log or "")
        plans = (("before", self.before), ("after", planned(self.run, "--root", self.host.root)))
        return [f"the plan made {when} the run is {plan}, and the run was {actual}" for when, plan in plans if plan != actual]
