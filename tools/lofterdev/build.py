"""Configures and builds a preset. What fails has said why; the caller gets an exception of the command that failed."""
import os
import pathlib
import subprocess

from lofterdev.repository import REPOSITORY, say

PROCESSORS = os.cpu_count() or 1


def build(preset: str, *targets: str) -> pathlib.Path:
    """Returns the build tree. Without targets, everything is built."""
    say(f"{preset}: building")
    for command in (["cmake", "--preset", preset, "--log-level=WARNING"],
                    ["cmake", "--build", "--preset", preset, "--parallel", str(PROCESSORS),
                     *(["--target", *targets] if targets else [])]):
        subprocess.run(command, cwd=REPOSITORY, check=True)
    return REPOSITORY / "build" / preset
