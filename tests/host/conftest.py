"""Fixtures: every test gets a host root of its own."""
import pathlib
from collections.abc import Iterator

import pytest

from lofterdev.host import Host
from lofterdev.templates import make_template, provide


@pytest.fixture(scope="session")
def template(testrun_uid: str) -> pathlib.Path:
    return make_template(testrun_uid, "template", bare=True)


@pytest.fixture(scope="session")
def demo_template(testrun_uid: str) -> pathlib.Path:
    return make_template(testrun_uid, "demo-template")


@pytest.fixture
def host(request: pytest.FixtureRequest, template: pathlib.Path) -> Iterator[Host]:
    yield from provide(request.node.name, template)


@pytest.fixture
def demo_host(request: pytest.FixtureRequest, demo_template: pathlib.Path) -> Iterator[Host]:
    yield from provide(request.node.name, demo_template)
