"""The schema of answers: what every command says in JSON is as the schema has it, on hosts of every sort."""
import copy
import json
import pathlib
from collections.abc import Callable
from typing import Any

import jsonschema
import pytest

from answers import COMMANDS, SCHEMA, faults
from companion import Analyze
from hosts import make_host, profiling_log

GOOD = """
    devices: provides devices ran 0 10000
    disks: requires devices provides storage ran 10000 30000
    network: requires storage nowhere provides network ran 30000 60000
    loopback: ran 60000 70000
    report: requires network ran 70000 75000
    idle: requires network"""
UNBOOTED = """
    devices: provides devices
    disks: requires devices"""
LOOP = """
    devices: requires disks provides devices
    disks: requires devices provides disks
    network: requires disks"""
CAPTURE = """[    1.000000] lofter: Activating Lofter plugin devices.
[    1.100000] lofter: Lofter plugin devices activated.
[    1.200000] lofter: Activating Lofter plugin disks.
"""
# What each command is asked, beside the host.
QUESTIONS: dict[str, list[list[str]]] = {
    "summary": [[]],
    "verify": [[], ["--disable-plugins=disks"], ["--plugin-flags=a,b"]],
    "plan": [[], ["--threads=3"], ["--parallel"]],
    "blame": [[]],
    "critical-chain": [[], ["disks"]],
    "why": [["disks"], ["devices", "disks"], ["disks", "devices"], ["disks", "--disable-plugins=disks"]],
    "whatif": [[], ["--threads=4", "--set=disks=1ms", "--add=devices:loopback"], ["--rank"]],
    "diff": [["one.log", "--", "two.log", "one.log"], ["--threshold=1%,1us", "one.log", "--", "two.log"]],
    "stuck": [["console.txt"]],
    "flags": [[]],
}
NEEDS_A_BOOT = ("blame", "critical-chain", "whatif")


@pytest.fixture
def answer(analyze: Analyze, tmp_path: pathlib.Path) -> Callable[..., dict[str, Any]]:
    """The answer to a command's question about the host, which `analyze` has held against the schema."""
    (tmp_path / "one.log").write_text(profiling_log(GOOD))
    (tmp_path / "two.log").write_text(profiling_log("devices: ran 0 90000\ndisks: ran 90000 91000\nnew: ran 91000 92000"))
    (tmp_path / "console.txt").write_text(CAPTURE)

    def ask(command: str, *question: str) -> dict[str, Any]:
        result = analyze(command, "--root=root", "--format=json", *question)
        assert result.status in (0, 1), result.errors
        assert result.answer["command"] == command
        return result.answer
    return ask


def test_the_schema_is_a_schema() -> None:
    jsonschema.Draft7Validator.check_schema(SCHEMA)
    assert SCHEMA["oneOf"] == [{"$ref": f"#/definitions/{command}"} for command in COMMANDS]
    assert list(QUESTIONS) == COMMANDS


@pytest.mark.parametrize("command", COMMANDS)
def test_answers_about_a_boot_are_as_the_schema_has_them(answer: Callable[..., dict[str, Any]], tmp_path: pathlib.Path, command: str) -> None:
    make_host(tmp_path, GOOD)
    for question in QUESTIONS[command]:
        given = answer(command, *question)
        jsonschema.Draft7Validator(SCHEMA).validate(given)
        assert all(value is not None or name in ("reason",) for name, value in given.items()), given


@pytest.mark.parametrize("command", [command for command in COMMANDS if command not in NEEDS_A_BOOT])
def test_answers_without_a_log_are_as_the_schema_has_them(answer: Callable[..., dict[str, Any]], tmp_path: pathlib.Path,
                                                          command: str) -> None:
    make_host(tmp_path, UNBOOTED)
    for question in QUESTIONS[command]:
        answer(command, *question)


@pytest.mark.parametrize("command", ["summary", "verify", "plan", "why", "stuck", "flags"])
def test_answers_about_plugins_that_wait_for_ever_are_as_the_schema_has_them(answer: Callable[..., dict[str, Any]],
                                                                             tmp_path: pathlib.Path, command: str) -> None:
    make_host(tmp_path, LOOP)
    for question in QUESTIONS[command]:
        answer(command, *question)


@pytest.mark.parametrize("command", COMMANDS)
def test_what_is_not_as_it_should_be_is_found(answer: Callable[..., dict[str, Any]], tmp_path: pathlib.Path, command: str) -> None:
    make_host(tmp_path, GOOD)
    given = answer(command, *QUESTIONS[command][0])
    for member in given:
        without = {name: value for name, value in given.items() if name != member}
        assert faults(without) != [], member
        wrong = copy.deepcopy(given)
        wrong[member] = {"no": "answer"}
        assert faults(wrong) != [], member
    assert faults(given | {"surplus": 1}) != []


def members(schema: dict[str, Any]) -> list[tuple[str, dict[str, Any]]]:
    """Every member that the schema describes, with its name."""
    found = []
    for name, part in schema.get("properties", {}).items():
        found += [(name, part), *members(part)]
    return found + (members(schema["items"]) if isinstance(schema.get("items"), dict) else [])


def test_times_are_named_as_such_and_everything_is_described() -> None:
    for command in COMMANDS:
        for name, part in members(SCHEMA["definitions"][command]):
            assert "description" in part or "const" in part or "enum" in part, f"{command}: {name}"
            is_number = "integer" in json.dumps(part.get("type"))
            counts = name in ("threads", "depth", "line", "column", "ran", "did_not_run", "errors", "warnings", "notes")
            assert name.endswith("_us") == (is_number and not counts), f"{command}: {name}"
