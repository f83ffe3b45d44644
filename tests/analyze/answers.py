"""What every JSON answer has to look like: the schema that is installed beside the program."""
import json
from typing import Any

import jsonschema

from lofterdev.repository import REPOSITORY

SCHEMA: dict[str, Any] = json.loads((REPOSITORY / "apps" / "lofter-analyze" / "report" / "analyze.schema.json").read_text())
COMMANDS = list(SCHEMA["definitions"])


def closed(schema: Any) -> Any:
    """The same without room for members that it does not describe: readers ignore those, but a test does not."""
    if isinstance(schema, list):
        return [closed(part) for part in schema]
    if not isinstance(schema, dict):
        return schema
    copy = {name: closed(part) for name, part in schema.items()}
    return copy | {"additionalProperties": False} if schema.get("type") == "object" else copy


CLOSED = closed(SCHEMA)


def faults(answer: dict[str, Any]) -> list[str]:
    """What is wrong with an answer, each with its place in it."""
    command = answer.get("command")
    if command not in COMMANDS:
        return [f"command: {command!r} is none"]
    validator = jsonschema.Draft7Validator(CLOSED["definitions"][command])
    return [f"{'.'.join(map(str, error.path))}: {error.message}" for error in validator.iter_errors(answer)]
