"""Roots for tests: copies with hard links of a few that are assembled once."""
import fcntl
import os
import pathlib
import re
import shutil
import subprocess
from collections.abc import Iterator

from lofterdev.host import BUILD, Host
from lofterdev.roots import assemble


def make_template(testrun_uid: str, name: str, *, bare: bool = False, daemons: bool = False) -> pathlib.Path:
    """Assembled once for each run of the tests, by whichever of its processes comes first; one after the other, because
    they fetch packages into the same place."""
    path = BUILD / "host-tests" / name
    made = path.with_suffix(".run")
    path.parent.mkdir(exist_ok=True)
    with open(path.parent / "templates.lock", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if not made.exists() or made.read_text() != testrun_uid:
            assemble(BUILD, path, bare=bare, daemons=daemons)
            made.write_text(testrun_uid)
    return path


def provide(test: str, template: pathlib.Path) -> Iterator[Host]:
    """A root that the test has for itself. Sanitizer reports of whatever ran in it fail the test."""
    work = BUILD / "host-tests" / (re.sub(r"\W+", "-", test)[:80] + f".{os.getpid()}")
    shutil.rmtree(work, ignore_errors=True)
    work.mkdir()
    subprocess.run(["cp", "-al", template, work / "root"], check=True)
    host = Host(work / "root", work)
    try:
        yield host
    finally:
        host.close()
        reports = host.sanitizer_reports()
        shutil.rmtree(work)
    assert reports == ""
