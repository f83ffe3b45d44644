"""The companion as its tests see it: a program that reads files and answers."""
import dataclasses
import json
import os
import pathlib
import subprocess
from typing import Any

from answers import faults
from lofterdev.repository import REPOSITORY

BUILD = pathlib.Path(os.environ.get("LOFTER_BUILD", REPOSITORY / "build" / "release"))
PROGRAM = BUILD / "apps" / "lofter-analyze" / "lofter-analyze"
BOUND = 120


@dataclasses.dataclass
class Result:
    status: int
    output: str
    errors: str

    @property
    def answer(self) -> dict[str, Any]:
        """Of `--format=json`."""
        return json.loads(self.output)


class Analyze:
    """Runs the program in a folder, which is what relative paths in its arguments are relative to."""

    def __init__(self, folder: pathlib.Path) -> None:
        self.folder = folder

    def __call__(self, *arguments: str | pathlib.Path, stdin: str = "", **variables: str) -> Result:
        environment = {name: value for name, value in os.environ.items() if name != "NO_COLOR"} | variables
        process = subprocess.run([PROGRAM, *map(str, arguments)], cwd=self.folder, env=environment, input=stdin.encode(),
                                 capture_output=True, timeout=BOUND)
        result = Result(process.returncode, process.stdout.decode(errors="surrogateescape"), process.stderr.decode(errors="surrogateescape"))
        if "--format=json" in arguments and result.output:
            assert faults(result.answer) == []
        return result
