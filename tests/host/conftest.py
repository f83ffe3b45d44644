"""Fixtures: every test gets a host root of its own, copied with hard links from one that is assembled once."""
import fcntl
import os
import re
import shutil
import subprocess

import pytest

from support.host import BUILD, MKHOST, Host


def MakeTemplate(testrun_uid, name, *options):
    """Assembled once for each run of the tests, by whichever of its processes comes first; one after the other, because
    they fetch packages into the same place."""
    path = BUILD / "host-tests" / name
    made = path.with_suffix(".run")
    path.parent.mkdir(exist_ok=True)
    with open(path.parent / "templates.lock", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if not made.exists() or made.read_text() != testrun_uid:
            subprocess.run([MKHOST, "--build", BUILD, "--dest", path, *options], check=True)
            made.write_text(testrun_uid)
    return path


@pytest.fixture(scope="session")
def template(testrun_uid):
    return MakeTemplate(testrun_uid, "template", "--bare")


@pytest.fixture(scope="session")
def demo_template(testrun_uid):
    return MakeTemplate(testrun_uid, "demo-template")


def Provide(request, template):
    """A root that the test has for itself. Sanitizer reports of whatever ran in it fail the test."""
    work = BUILD / "host-tests" / (re.sub(r"\W+", "-", request.node.name)[:80] + f".{os.getpid()}")
    shutil.rmtree(work, ignore_errors=True)
    work.mkdir()
    subprocess.run(["cp", "-al", template, work / "root"], check=True)
    host = Host(work / "root", work)
    try:
        yield host
    finally:
        host.Close()
        reports = host.SanitizerReports()
        shutil.rmtree(work)
    assert reports == ""


@pytest.fixture
def host(request, template):
    yield from Provide(request, template)


@pytest.fixture
def demo_host(request, demo_template):
    yield from Provide(request, demo_template)
