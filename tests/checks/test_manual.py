"""The manual pages tell the operator of everything that the program reads, writes and complains of."""
import re

from sources import REPOSITORY, Tracked

# Levels whose messages are for an operator; those of the third, informational one are for whoever follows a run.
COMPLAINTS = "kWarning|kError"
# Where a message is no more than another text, that text is made elsewhere.
MADE_ELSEWHERE = {
    "apps/lofter/ProfilingLog.cpp": ["unable to log profiling information"],
    "apps/lofter/graph/Barriers.cpp": ["Lofter dependency error: Initialization barrier "],
    "apps/lofter/plugins/JSONPlugin.cpp": [],  # the reasons of failed host commands
    "apps/lofter/RunSequence.cpp": [],  # a run that cannot be set up says why
}


def Page(name):
    """The text of a page on one line, without its marks of emphasis."""
    text = (REPOSITORY / "docs" / "man" / name).read_text()
    text = re.sub(r"\\(.)", r"\1", re.sub(r"[*_](?=\S)|(?<=\S)[*_]", "", text))
    return re.sub(r"\s+", " ", text)


def Plain(text):
    return re.sub(r"\s+", " ", text.replace("_", "").replace("*", ""))


def Sources():
    return [path.as_posix() for path in Tracked("apps/lofter") if path.suffix == ".cpp"]


def Complaints(text):
    """The formats of all warnings and errors; empty for one that is not written in place."""
    literal = r'"((?:[^"\\]|\\.)*)"'
    for format in re.findall(r"Log_(?:Level|Syslog)\((?:lofter::)?(?:" + COMPLAINTS + r"),\s*((?:" + literal + r"\s*)+|\w+)", text):
        yield "".join(re.findall(literal, format[0]))


def LongestPiece(message):
    """Of a format, what stands between the values: enough to look the message up."""
    return max(re.split(r"%#?[0-9]*l*[sdx]|\\n", message), key=len).strip(" .:()'-")


def test_the_manual_page_has_every_file():
    page = Page("lofter.8.scd")
    paths = re.findall(r'"(/[^" ]+)', (REPOSITORY / "apps" / "lofter" / "base" / "Paths.h").read_text())
    assert len(paths) > 15
    assert [path for path in paths if Plain(path) not in page] == []


def test_the_manual_page_has_every_warning_and_error():
    page = Page("lofter.8.scd")
    unknown, seen, made = [], 0, set()
    for path in Sources():
        text = (REPOSITORY / path).read_text()
        for message in Complaints(text):
            seen += 1
            if message in ("%s\\n", ""):
                made.add(path)
                continue
            if Plain(LongestPiece(message)) not in page:
                unknown.append((path, message))
    assert unknown == []
    assert seen > 40
    assert made == set(MADE_ELSEWHERE)
    for path, messages in MADE_ELSEWHERE.items():
        text = (REPOSITORY / path).read_text()
        assert [message for message in messages if message not in text or message.strip() not in page] == []


def test_formats_are_found_whole():
    assert list(Complaints('Log_Level(kWarning, "a \\"%s\\" "\n    "b: %d\\n", x); Log_Level(kInfo, "c\\n");')) == ['a \\"%s\\" b: %d\\n']
    assert LongestPiece("ignoring plugin '%s' because: %#08x\\n") == "ignoring plugin"
