"""Fixtures: disks that outlive the boots of one test module."""
import pytest

from consoles import MakeDisks


@pytest.fixture(scope="module")
def disks(tmp_path_factory):
    return MakeDisks(tmp_path_factory.mktemp("disks"))
