"""docs/architecture.md has a line for every source file."""
import itertools
import re

from sources import REPOSITORY, Tracked

FOLDERS = ("apps", "platform", "posix", "sdk", "host", "tests", "bench")


def Expand(name):
    """`graph/Node.{h,cpp}` stands for two files."""
    parts = [part.split(",") if index % 2 else [part] for index, part in enumerate(re.split(r"\{([^}]*)\}", name))]
    return {"".join(choice) for choice in itertools.product(*parts)}


def Listed():
    """A line is "- `path`: what lives there"; several paths may share one; a path that ends in a slash stands for what is below."""
    names = set()
    for line in (REPOSITORY / "docs" / "architecture.md").read_text().splitlines():
        if line.startswith("- `"):
            for name in re.findall(r"`([^`]+)`", line.split("`: ")[0] + "`"):
                names |= Expand(name)
    return names


def test_every_source_file_is_listed():
    listed = Listed()
    folders = tuple(name for name in listed if name.endswith("/"))
    missing = [path.as_posix() for path in Tracked(*FOLDERS)
               if path.as_posix() not in listed and not path.as_posix().startswith(folders)]
    assert missing == []


def test_what_is_listed_exists():
    assert [name for name in sorted(Listed()) if not (REPOSITORY / name).exists()] == []


def test_braces_expand():
    assert Expand("a/B.{h,cpp}") == {"a/B.h", "a/B.cpp"}
