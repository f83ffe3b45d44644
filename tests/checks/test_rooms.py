"""Who may include whom: the table of docs/architecture.md, over headers and sources."""
import pathlib
import re

from sources import REPOSITORY, Tracked

ROOTS = (".", "apps/lofter", "apps/lofter-analyze", "platform/include", "platform/linux", "sdk/include")


def Table(text):
    """{folder: the folders that it may include}, "and what it may" being all that those may."""
    direct, passed_on = {}, set()
    for folder, allowed in re.findall(r"^\| `([^`]+)/` \| (.+) \|$", text, re.MULTILINE):
        direct[folder] = set(re.findall(r"`([^`]+)/`", allowed))
        if allowed.endswith("may"):
            passed_on.add(folder)
    rooms = {}
    for folder in direct:
        reached, ahead = set(), [folder]
        while ahead:
            room = ahead.pop()
            for below in direct[room] - reached:
                reached.add(below)
                if room in passed_on:
                    ahead.append(below)
        rooms[folder] = reached
    return rooms


ROOMS = Table((REPOSITORY / "docs" / "architecture.md").read_text())


def RoomOf(path):
    return next((room for room in sorted(ROOMS, key=len, reverse=True) if path.startswith(room + "/")), None)


def Includes(path):
    """The repository's files that a file includes; system headers are nobody's concern."""
    for name in re.findall(r'^\s*#\s*include\s*["<]([^">]+)[">]', (REPOSITORY / path).read_text(), re.MULTILINE):
        for root in (pathlib.PurePosixPath(path).parent, *ROOTS):
            candidate = (REPOSITORY / root / name).resolve()
            if candidate.is_file() and candidate.is_relative_to(REPOSITORY):
                yield candidate.relative_to(REPOSITORY).as_posix()
                break


def IsAllowed(path, included):
    return RoomOf(included) == RoomOf(path) or RoomOf(included) in ROOMS[RoomOf(path)]


def test_folders_include_only_what_they_may():
    files = [path.as_posix() for path in Tracked("apps", "platform", "posix", "sdk/include") if path.suffix in (".h", ".c", ".cpp")]
    assert len(files) > 100
    assert [path for path in files if RoomOf(path) is None] == []
    wrong = [f"{path} includes {included}" for path in files for included in Includes(path) if not IsAllowed(path, included)]
    assert wrong == []


def test_nothing_points_up():
    for room, below in ROOMS.items():
        assert room not in below, f"{room} reaches itself"


def test_the_table_is_read_as_it_is_meant():
    assert Table("| `a/` | nothing |\n| `b/` | `a/` |\n| `c/` | `b/` |\n| `d/` | `b/` and what it may |\n| `e/` | `d/` and what it may |") == {
        "a": set(), "b": {"a"}, "c": {"b"}, "d": {"b", "a"}, "e": {"d", "b", "a"}}
    assert IsAllowed("apps/lofter/plugins/JsonPlugin.cpp", "apps/lofter/executor/QorcliExecutor.h")
    assert IsAllowed("apps/lofter/hopper/CommandRunner.cpp", "posix/Descriptor.h")
    assert not IsAllowed("apps/lofter/graph/Node.cpp", "apps/lofter/plugins/Plugin.h")
    assert not IsAllowed("apps/lofter/plugins/description/JsonFile.cpp", "apps/lofter/graph/Graph.h")
    assert not IsAllowed("apps/lofter/console/Terminal.cpp", "apps/lofter/RunSequence.h")
    assert not IsAllowed("posix/File.cpp", "platform/include/tslibs/log.h")
    assert not IsAllowed("platform/linux/tslibs/Log.cpp", "apps/lofter/base/Paths.h")
