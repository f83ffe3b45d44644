"""Who may include whom."""
import pathlib
import re

from sources import REPOSITORY, Tracked

# A room, and the rooms it may include besides itself.
PLATFORM = "platform/include"
POSIX = "posix"
ROOMS = {
    "apps/lofter/plugins": {"apps/lofter/graph", "apps/lofter/executor", "apps/lofter/util", PLATFORM, POSIX},
    "apps/lofter/graph": {PLATFORM, POSIX},
    "apps/lofter/hopper": {"apps/lofter/plugins", "apps/lofter/graph", PLATFORM, POSIX},
    "apps/lofter/executor": {"apps/lofter/util", PLATFORM, POSIX},
    "apps/lofter/util": {POSIX},
    "apps/lofter": {"apps/lofter/plugins", "apps/lofter/graph", "apps/lofter/hopper", "apps/lofter/executor", "apps/lofter/util", PLATFORM,
                    POSIX},
    "apps/nativeExecutor": {"sdk"},
    "sdk": set(),
    "platform/include": set(),
    "platform/linux": {PLATFORM, POSIX},
    "posix": set(),
}
# These may be included from every room of apps/lofter, and include nothing of it themselves but each other.
LEAVES = {f"apps/lofter/{name}" for name in
          ("Settings.h", "Paths.h", "Logging.h", "KernelBootLog.h", "graph/GraphLock.h", "plugins/Exception.h")}
ROOTS = (".", "apps/lofter", "platform/include", "platform/linux", "sdk/include")


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
    if included in LEAVES and path.startswith("apps/lofter/"):
        return True
    if path in LEAVES:
        return not included.startswith("apps/lofter/")
    return RoomOf(included) == RoomOf(path) or RoomOf(included) in ROOMS[RoomOf(path)]


def test_folders_include_only_what_they_may():
    files = [path.as_posix() for path in Tracked("apps", "platform", "posix", "sdk") if path.suffix in (".h", ".c", ".cpp")]
    files = [path for path in files if RoomOf(path)]
    assert len(files) > 20
    wrong = [f"{path} includes {included}" for path in files for included in Includes(path) if not IsAllowed(path, included)]
    assert wrong == []


def test_the_table_is_enforced():
    assert IsAllowed("apps/lofter/plugins/JsonPlugin.cpp", "apps/lofter/executor/QorcliExecutor.h")
    assert IsAllowed("apps/lofter/executor/Server.cpp", "apps/lofter/Paths.h")
    assert not IsAllowed("apps/lofter/graph/Node.cpp", "apps/lofter/plugins/Plugin.h")
    assert not IsAllowed("apps/lofter/util/afstream.cpp", "platform/include/tslibs/log.h")
    assert not IsAllowed("apps/lofter/Paths.h", "apps/lofter/RunSequence.h")
    assert not IsAllowed("posix/File.cpp", "platform/include/tslibs/log.h")
    assert not IsAllowed("platform/linux/tslibs/Log.cpp", "apps/lofter/Paths.h")
