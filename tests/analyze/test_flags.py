"""flags: what each boot flag keeps out or lets in, and what nobody provides then."""
import pathlib
from typing import Any

import pytest

from answers import faults
from companion import Analyze
from roots import PLUGINS, Root

RELEASE: dict[str, Any] = {"version": 3, "run_once": False, "plugin_version": "1"}
BROKEN = f"lofter-analyze: warning: /{PLUGINS}/broken.json:1:14: metadata is corrupt (unable to parse run_once)\n"


@pytest.fixture
def root(tmp_path: pathlib.Path) -> Root:
    root = Root(tmp_path / "root")
    root.json("hw", [], ["disk", "bus"], **RELEASE, disabling_flags=["rescue", "quiet"])
    root.json("mock", ["disk"], ["bus"], **RELEASE, required_flags=["test"], disabling_flags=["rescue"])
    root.json("net", ["bus"], [], **RELEASE, disabling_flags=["quiet"])
    root.plugin("broken.json", '{"metadata": {"version": 3, "requires": [], "provides": [], "required_flags": ["never"]}}')
    return root


def test_every_flag_is_told_with_its_effect(analyze: Analyze, root: Root) -> None:
    result = analyze("flags", "--root=root", "--plugin=hw.json,mock.json,net.json,broken.json")
    assert (result.status, result.errors) == (0, BROKEN)
    assert result.output == """\
FLAG    EFFECT      PLUGINS OR BARRIERS
quiet   keeps out   hw, net
        unprovided  disk
rescue  keeps out   hw, mock
        unprovided  bus, disk
test    lets in     mock
"""


def test_the_answer_for_programs_says_the_same(analyze: Analyze, root: Root) -> None:
    result = analyze("flags", "--root=root", "--plugin=hw.json,mock.json,net.json", "--format=json")
    assert faults(result.answer) == []
    assert result.answer == {
        "schema": "lofter-analyze/1", "command": "flags",
        "flags": [
            {"flag": "quiet", "lets_in": [], "keeps_out": ["hw", "net"], "unprovided": ["disk"]},
            {"flag": "rescue", "lets_in": [], "keeps_out": ["hw", "mock"], "unprovided": ["bus", "disk"]},
            {"flag": "test", "lets_in": ["mock"], "keeps_out": [], "unprovided": []},
        ]}


def test_a_host_whose_plugins_name_no_flag_has_none(analyze: Analyze, root: Root) -> None:
    result = analyze("flags", "--root=root", "--plugin=broken.json")
    assert (result.status, result.output, result.errors) == (0, "no plugin names a boot flag\n", BROKEN)


def test_a_dump_does_not_hold_flags(analyze: Analyze, root: Root, tmp_path: pathlib.Path) -> None:
    (tmp_path / "dump").write_text("digraph g {\n}\n")
    result = analyze("flags", "--graph=dump")
    assert (result.status, result.output, result.errors) == (4, "", "lofter-analyze: a dump does not hold boot flags\n")


def test_there_is_no_such_answer_for_code_review(analyze: Analyze, root: Root) -> None:
    result = analyze("flags", "--root=root", "--format=sarif")
    assert (result.status, result.output) == (2, "")
