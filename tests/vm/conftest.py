"""Fixtures: disks that outlive the boots of one test module."""
import pathlib

import pytest

from consoles import make_disks


@pytest.fixture(scope="module")
def disks(tmp_path_factory: pytest.TempPathFactory) -> list[pathlib.Path]:
    return make_disks(tmp_path_factory.mktemp("disks"))
