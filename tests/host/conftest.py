"""Fixtures: every test gets a host root of its own, copied with hard links from one that is assembled once."""
import os
import re
import shutil
import subprocess

import pytest

from support.host import BUILD, MKHOST, Host


def MakeTemplate(name, *options):
    path = BUILD / "host-tests" / name
    subprocess.run([MKHOST, "--build", BUILD, "--dest", path, *options], check=True)
    return path


@pytest.fixture(scope="session")
def template():
    return MakeTemplate("template", "--bare")


@pytest.fixture(scope="session")
def demo_template():
    return MakeTemplate("demo-template")


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
