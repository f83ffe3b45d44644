"""Fixtures: the companion is run on small directories and files that the test makes."""
import pathlib

import pytest

from companion import Analyze


@pytest.fixture
def analyze(tmp_path: pathlib.Path) -> Analyze:
    return Analyze(tmp_path)
