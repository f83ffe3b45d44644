"""Who may include whom: the table of docs/architecture.md, over headers and sources."""
import pathlib
import re
from collections.abc import Iterator

from lofterdev.repository import REPOSITORY
from sources import tracked

ROOTS = (".", "apps/lofter", "apps/lofter-analyze", "platform/include", "platform/linux", "sdk/include")


def table(text: str) -> dict[str, set[str]]:
    """{folder: the folders that it may include}, "and what it may" being all that those may."""
    direct: dict[str, set[str]] = {}
    passed_on = set()
    for folder, allowed in re.findall(r"^\| `([^`]+)/` \| (.+) \|$", text, re.MULTILINE):
        direct[folder] = set(re.findall(r"`([^`]+)/`", allowed))
        if allowed.endswith("may"):
            passed_on.add(folder)
    rooms = {}
    for folder in direct:
        reached: set[str] = set()
        ahead = [folder]
        while ahead:
            room = ahead.pop()
            for below in direct[room] - reached:
                reached.add(below)
                if room in passed_on:
                    ahead.append(below)
        rooms[folder] = reached
    return rooms


ROOMS = table((REPOSITORY / "docs" / "architecture.md").read_text())


def room_of(path: str) -> str:
    return next((room for room in sorted(ROOMS, key=len, reverse=True) if path.startswith(room + "/")), "")


def includes(path: str) -> Iterator[str]:
    """The repository's files that a file includes; system headers are nobody's concern."""
    for name in re.findall(r'^\s*#\s*include\s*["<]([^">]+)[">]', (REPOSITORY / path).read_text(), re.MULTILINE):
        for root in (str(pathlib.PurePosixPath(path).parent), *ROOTS):
            candidate = (REPOSITORY / root / name).resolve()
            if candidate.is_file() and candidate.is_relative_to(REPOSITORY):
                yield candidate.relative_to(REPOSITORY).as_posix()
                break


def is_allowed(path: str, included: str) -> bool:
    return room_of(included) == room_of(path) or room_of(included) in ROOMS[room_of(path)]


def test_folders_include_only_what_they_may() -> None:
    files = [path.as_posix() for path in tracked("apps", "platform", "posix", "sdk/include") if path.suffix in (".h", ".c", ".cpp")]
    assert len(files) > 100
    assert [path for path in files if room_of(path) == ""] == []
    wrong = [f"{path} includes {included}" for path in files for included in includes(path) if not is_allowed(path, included)]
    assert wrong == []


def test_nothing_points_up() -> None:
    for room, below in ROOMS.items():
        assert room not in below, f"{room} reaches itself"


def test_the_table_is_read_as_it_is_meant() -> None:
    assert table("| `a/` | nothing |\n| `b/` | `a/` |\n| `c/` | `b/` |\n"
                 "| `d/` | `b/` and what it may |\n| `e/` | `d/` and what it may |") == {
        "a": set(), "b": {"a"}, "c": {"b"}, "d": {"b", "a"}, "e": {"d", "b", "a"}}
    assert is_allowed("apps/lofter/plugins/JsonPlugin.cpp", "apps/lofter/executor/QorcliExecutor.h")
    assert is_allowed("apps/lofter/hopper/CommandRunner.cpp", "posix/Descriptor.h")
    assert not is_allowed("apps/lofter/graph/Node.cpp", "apps/lofter/plugins/Plugin.h")
    assert not is_allowed("apps/lofter/plugins/description/JsonFile.cpp", "apps/lofter/graph/Graph.h")
    assert not is_allowed("apps/lofter/console/Terminal.cpp", "apps/lofter/RunSequence.h")
    assert not is_allowed("posix/File.cpp", "platform/include/tslibs/log.h")
    assert not is_allowed("platform/linux/tslibs/Log.cpp", "apps/lofter/base/Paths.h")
