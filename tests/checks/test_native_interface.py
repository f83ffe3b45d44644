"""The layout of a native plugin's two symbols stands in the plugin header, once, and in its manual page."""
import pathlib
import re

from lofterdev.repository import REPOSITORY
from sources import tracked

METADATA = ["version", "requires", "provides", "plugin_version", "run_once", "required_flags", "disabling_flags"]
OPERATIONS = ["start", "apply_host_profile"]
# A member of the interface may not have the name of a C++ keyword.
OTHER_NAMES = {"required_barriers": "requires", "provided_barriers": "provides"}


def text(path: pathlib.PurePosixPath | str) -> str:
    return (REPOSITORY / path).read_text()


def asserted(text: str, block: str) -> tuple[dict[str, int], int]:
    """{member: offset} of a block, and its size, from the assertions that the compiler checks."""
    condition = r"\(offsetof\((?:struct )?" + block + r", (\w+)\) == (\d+)\);"
    offsets = {OTHER_NAMES.get(member, member): int(offset) for member, offset in re.findall(condition, text)}
    size, = re.findall(r"\(sizeof\((?:struct )?" + block + r"\) == (\d+)\);", text)
    return offsets, int(size)


def members_of(text: str, block: str) -> list[str]:
    """The members of a block in the order in which it declares them."""
    body, = re.findall(r"^struct (?:\w+::)?" + block + r" \{\n(.*?)^\};", text, re.MULTILINE | re.DOTALL)
    body = re.sub(r"/\*.*?\*/|//[^\n]*", "", body, flags=re.DOTALL)
    # The last word, but for a pointer to a function: `void (*start)()`.
    names = re.findall(r"(\w+)(?:\)\(\w*\))?;", body)
    return [OTHER_NAMES.get(name, name) for name in names]


def offsets(page: str, symbol: str) -> list[int]:
    """The numbers of one of the manual page's tables."""
    table = page[page.index(f"[[ *{symbol}*\n"):]
    return [int(number) for number in re.findall(r"^\|  (\d+)$", table[:table.index("\n\n")], re.MULTILINE)]


HEADER = text("sdk/include/lofter/plugin.h")
PAGE = text("docs/man/lofter-plugin.7.scd")


def test_the_plugin_header_asserts_the_layout_of_all_its_members() -> None:
    for block, members in (("lofter_metadata", METADATA), ("lofter_operations", OPERATIONS)):
        offsets, size = asserted(HEADER, block)
        assert list(offsets) == members == members_of(HEADER, block)
        assert size == offsets[members[-1]] + 8


def test_the_manual_page_gives_the_same_offsets() -> None:
    assert offsets(PAGE, "metadata") == list(asserted(HEADER, "lofter_metadata")[0].values())
    assert offsets(PAGE, "operations") == list(asserted(HEADER, "lofter_operations")[0].values())


def test_nothing_else_lays_out_the_block() -> None:
    found = [path.as_posix() for path in tracked("apps", "platform", "posix", "sdk", "host", "bench")
             if path.suffix in (".h", ".hpp", ".c", ".cpp", ".cxx")
             and re.search(r"^\s*[\w*]+ (plugin_version|disabling_flags);", text(path), re.MULTILINE)]
    assert found == ["sdk/include/lofter/plugin.h"]
