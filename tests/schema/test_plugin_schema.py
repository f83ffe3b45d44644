"""The schema of plugin files accepts exactly what the loader accepts (the loader's half: PluginCorpus_test.cpp)."""
import json
import pathlib
from collections.abc import Iterator
from typing import Any

import jsonschema
import pytest

from lofterdev.repository import REPOSITORY

SCHEMA = json.loads((REPOSITORY / "sdk" / "schema" / "plugin.schema.json").read_text())
CORPUS = REPOSITORY / "tests" / "corpus" / "plugin-json"
VALIDATOR = jsonschema.Draft7Validator(SCHEMA)


def files(kind: str) -> list[pathlib.Path]:
    files = sorted((CORPUS / kind).glob("*.json"))
    assert len(files) > 10
    return files


def identify(path: pathlib.Path) -> str:
    return path.stem


@pytest.mark.parametrize("path", files("good"), ids=identify)
def test_good_files_are_valid(path: pathlib.Path) -> None:
    assert [error.message for error in VALIDATOR.iter_errors(json.loads(path.read_text()))] == []


@pytest.mark.parametrize("path", files("bad"), ids=identify)
def test_bad_files_are_not(path: pathlib.Path) -> None:
    assert not VALIDATOR.is_valid(json.loads(path.read_text()))


def test_the_demo_host_has_valid_plugins() -> None:
    paths = sorted((REPOSITORY / "host" / "demo").rglob("plugins/*.json"))
    assert len(paths) >= 6
    wrong = [path.name for path in paths if not VALIDATOR.is_valid(json.loads(path.read_text()))]
    assert wrong == []


def test_the_schema_is_a_schema() -> None:
    jsonschema.Draft7Validator.check_schema(SCHEMA)
    assert SCHEMA["$schema"] == "http://json-schema.org/draft-07/schema#"


def described(schema: dict[str, Any]) -> Iterator[tuple[Any, ...]]:
    """Every schema that an editor may show for a key or an element, by where it stands. Conditions show nothing."""
    for name, part in schema.get("properties", {}).items():
        yield name, part
        yield from described(part)
    if "items" in schema:
        yield "items", schema["items"]
    if "then" in schema:
        yield from ((name, part) for name, part in described(schema["then"]) if name != "metadata")


def test_every_key_has_a_title_and_a_description() -> None:
    parts = list(described(SCHEMA))
    assert {name for name, _ in parts} >= {
        "$schema", "metadata", "version", "requires", "provides", "required_flags", "disabling_flags", "run_once",
        "plugin_version", "operations", "start", "apply_host_profile"}
    assert [name for name, part in parts if not part.get("title") or not part.get("description")] == []
    assert SCHEMA["title"] and SCHEMA["description"]
