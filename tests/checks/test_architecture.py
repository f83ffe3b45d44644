"""docs/architecture.md is a map: one line for every source file, in its own folder's section."""
import collections
import itertools
import re
from collections.abc import Iterator

from lofterdev.repository import REPOSITORY
from sources import tracked

FOLDERS = ("apps", "platform", "posix", "sdk", "host", "tests", "bench", "scripts", "tools")


def expand(name: str) -> list[str]:
    """`graph/Node.{h,cpp}` stands for two files."""
    parts = [part.split(",") if index % 2 else [part] for index, part in enumerate(re.split(r"\{([^}]*)\}", name))]
    return ["".join(choice) for choice in itertools.product(*parts)]


def lines() -> Iterator[tuple[str, str]]:
    """(section, path) for each path of the lines "- `path`: what lives there"."""
    section = ""
    for line in (REPOSITORY / "docs" / "architecture.md").read_text().splitlines():
        if heading := re.match(r"##+ ([\w./-]+): ", line):
            section = heading.group(1)
        elif entry := re.match(r"- `([^`]+)`: ", line):
            yield from ((section, name) for name in expand(entry.group(1)))


LINES = list(lines())
SECTIONS = {section for section, _ in LINES}


def section_of(path: str) -> str:
    """The section of the nearest folder around; the last one also has what lies at the root."""
    around = [section for section in SECTIONS if path.startswith(section + "/")]
    return max(around, key=len, default="docs")


def test_every_source_file_is_listed() -> None:
    listed = {name for _, name in LINES}
    folders = tuple(name for name in listed if name.endswith("/"))
    missing = [path.as_posix() for path in tracked(*FOLDERS)
               if path.as_posix() not in listed and not path.as_posix().startswith(folders)]
    assert missing == []


def test_what_is_listed_exists() -> None:
    assert [name for _, name in LINES if not (REPOSITORY / name).exists()] == []


def test_nothing_is_listed_twice() -> None:
    assert [name for name, times in collections.Counter(name for _, name in LINES).items() if times > 1] == []


def test_every_line_is_in_its_own_section() -> None:
    assert [f"{name} in {section}" for section, name in LINES if section != section_of(name)] == []


def test_the_lines_of_a_section_are_in_order() -> None:
    for section in SECTIONS:
        names = [name.lower() for where, name in LINES if where == section]
        assert [name.rsplit(".", 1)[0] for name in names] == sorted(name.rsplit(".", 1)[0] for name in names), section


def test_braces_expand() -> None:
    assert expand("a/B.{h,cpp}") == ["a/B.h", "a/B.cpp"]
