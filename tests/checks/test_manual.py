"""The manual pages tell the operator of everything that the program reads, writes and complains of."""
import re
from collections.abc import Iterator

from lofterdev.repository import REPOSITORY
from sources import tracked

# Levels whose messages are for an operator; those of the third, informational one are for whoever follows a run.
COMPLAINTS = "kWarning|kError"
# Where a message is no more than another text, that text is made elsewhere.
MADE_ELSEWHERE: dict[str, list[str]] = {
    "apps/lofter/ProfilingLog.cpp": ["unable to log profiling information"],
    "apps/lofter/graph/Barriers.cpp": ["Lofter dependency error: Initialization barrier "],
    "apps/lofter/plugins/JSONPlugin.cpp": [],  # the reasons of failed host commands
    "apps/lofter/RunSequence.cpp": [],  # a run that cannot be set up says why
}


def read_page(name: str) -> str:
    """The text of a page on one line, without its marks of emphasis."""
    text = (REPOSITORY / "docs" / "man" / name).read_text()
    text = re.sub(r"\\(.)", r"\1", re.sub(r"[*_](?=\S)|(?<=\S)[*_]", "", text))
    return re.sub(r"\s+", " ", text)


def plain(text: str) -> str:
    return re.sub(r"\s+", " ", text.replace("_", "").replace("*", ""))


def sources() -> list[str]:
    return [path.as_posix() for path in tracked("apps/lofter") if path.suffix == ".cpp"]


def complaints(text: str) -> Iterator[str]:
    """The formats of all warnings and errors; empty for one that is not written in place."""
    literal = r'"((?:[^"\\]|\\.)*)"'
    for format in re.findall(r"Log_(?:Level|Syslog)\((?:lofter::)?(?:" + COMPLAINTS + r"),\s*((?:" + literal + r"\s*)+|\w+)", text):
        yield "".join(re.findall(literal, format[0]))


def longest_piece(message: str) -> str:
    """Of a format, what stands between the values: enough to look the message up."""
    return max(re.split(r"%#?[0-9]*l*[sdx]|\\n", message), key=len).strip(" .:()'-")


def test_the_manual_page_has_every_file() -> None:
    page = read_page("lofter.8.scd")
    paths = re.findall(r'"(/[^" ]+)', (REPOSITORY / "apps" / "lofter" / "base" / "Paths.h").read_text())
    assert len(paths) > 15
    assert [path for path in paths if plain(path) not in page] == []


def test_the_manual_page_has_every_warning_and_error() -> None:
    page = read_page("lofter.8.scd")
    unknown, seen, made = [], 0, set()
    for path in sources():
        text = (REPOSITORY / path).read_text()
        for message in complaints(text):
            seen += 1
            if message in ("%s\\n", ""):
                made.add(path)
                continue
            if plain(longest_piece(message)) not in page:
                unknown.append((path, message))
    assert unknown == []
    assert seen > 40
    assert made == set(MADE_ELSEWHERE)
    for path, messages in MADE_ELSEWHERE.items():
        text = (REPOSITORY / path).read_text()
        assert [message for message in messages if message not in text or message.strip() not in page] == []


def test_formats_are_found_whole() -> None:
    assert list(complaints('Log_Level(kWarning, "a \\"%s\\" "\n    "b: %d\\n", x); Log_Level(kInfo, "c\\n");')) == ['a \\"%s\\" b: %d\\n']
    assert longest_piece("ignoring plugin '%s' because: %#08x\\n") == "ignoring plugin"
