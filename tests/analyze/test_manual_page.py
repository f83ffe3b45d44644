"""What a person reads and types: the manual page, the usage text, and the completion of the command line."""
import pathlib
import re
import shlex
import subprocess

import pytest

from answers import COMMANDS as JSON_COMMANDS
from companion import Analyze
from hosts import make_host, profiling_log
from lofterdev.repository import REPOSITORY

PAGE = (REPOSITORY / "docs" / "man" / "lofter-analyze.1.scd").read_text()
COMPLETION = REPOSITORY / "docs" / "completion" / "lofter-analyze"
HOST = """
    devices: provides devices ran 0 10000
    disks: requires devices provides storage ran 10000 30000
    network: requires storage provides network ran 30000 60000
    loopback: ran 60000 70000
    report: requires network ran 70000 75000"""


def commands(analyze: Analyze) -> list[str]:
    usage = analyze("--help").output
    return re.findall(r"^  ([a-z-]+) ", usage[usage.index("Subcommands:"):], re.MULTILINE)


def options(analyze: Analyze, *command: str) -> set[str]:
    return set(re.findall(r"^ +(?:-[a-z],)?(--[a-z-]+)", analyze(*command, "--help").output, re.MULTILINE))


def sections(page: str) -> dict[str, str]:
    """What the manual page says of each command."""
    text = page[page.index("# COMMANDS"):page.index("# FINDINGS")]
    return dict(re.findall(r"^## ([a-z-]+)\n(.*?)(?=^## |\Z)", text, re.MULTILINE | re.DOTALL))


def examples() -> list[list[str]]:
    """The arguments of every example of the manual page."""
    found = []
    lines = re.findall(r"^(?:\t)?((?:\w+ \| )?lofter-analyze\b.*)$", PAGE[PAGE.index("# COMMANDS"):], re.MULTILINE)
    for line in lines:
        words = shlex.split(line.removesuffix("++"), posix=True)
        start = words.index("lofter-analyze") + 1
        end = next((index for index in range(start, len(words)) if words[index] == "|" or words[index].startswith(">")), len(words))
        found.append(words[start:end])
    return found


def test_the_manual_page_explains_every_command_in_the_order_of_the_usage_text(analyze: Analyze) -> None:
    assert list(sections(PAGE)) == commands(analyze)
    assert set(JSON_COMMANDS) == set(commands(analyze)) - {"chart", "dot"}


def test_the_manual_page_explains_every_option_in_its_place(analyze: Analyze) -> None:
    general = options(analyze)
    before = PAGE[:PAGE.index("# COMMANDS")]
    assert [option for option in general if f"*{option}" not in before] == []
    for command, text in sections(PAGE).items():
        own = options(analyze, command) - general
        explained = {option for option in own if re.search(rf"\*{option}\b", text) or option == "--output" and "*chart -o*" in text}
        assert explained == own, command
        assert set(re.findall(r"^\*(--[a-z-]+)", text, re.MULTILINE)) <= own, command


def test_the_manual_page_has_examples_of_every_command(analyze: Analyze) -> None:
    named = [next((word for word in example if word in sections(PAGE)), "summary") for example in examples()]
    assert set(named) == set(commands(analyze))


@pytest.mark.parametrize("example", examples(), ids=" ".join)
def test_the_examples_are_good_usage(analyze: Analyze, tmp_path: pathlib.Path, example: list[str]) -> None:
    make_host(tmp_path, HOST)
    for name in ("old-1", "old-2", "old-3", "new-1", "new-2", "old", "new", "sysboot.log"):
        (tmp_path / name).write_text(profiling_log(HOST))
    (tmp_path / "boot.dot").write_text('digraph g {\n1 [label="devices"];\n}\n')
    (tmp_path / "console.txt").write_text("[    1.000000] lofter: Activating Lofter plugin devices.\n")
    here = [word.replace("/mnt/host", "root").replace("build/root", "root") for word in example]
    if not any(word.startswith(("--root", "--graph")) for word in here):
        here.insert(0, "--root=root")
    result = analyze(*here, stdin="[    1.000000] lofter: Activating Lofter plugin devices.\n")
    assert result.status in (0, 1), result.errors


def complete(*words: str) -> list[str]:
    """What bash offers for the last of these words."""
    script = """source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _lofter_analyze; printf '%s\\n' "${COMPREPLY[@]}" """
    process = subprocess.run(["bash", "-c", script, "bash", str(COMPLETION), "lofter-analyze", *words], check=True, capture_output=True,
                             text=True)
    assert process.stderr == ""
    return sorted(filter(None, process.stdout.splitlines()))


def test_completion_offers_every_command_and_option(analyze: Analyze) -> None:
    known = commands(analyze)
    assert [word for word in complete("") if not word.startswith("-")] == sorted(known)
    for command in [list[str](), *([name] for name in known)]:
        offered = {word.rstrip("=") for word in complete(*command, "-")} - {"-h", "-o", "--"}
        assert offered == options(analyze, *command) | options(analyze), command


def test_completion_knows_the_values_of_options() -> None:
    assert complete("blame", "--format", "=", "") == ["json", "text"]
    assert complete("verify", "--format", "=") == ["json", "sarif", "text"]
    assert complete("--color", "=", "a") == ["always", "auto"]
    assert complete("verify", "--fail-on", "=") == ["error", "note", "warning"]
    assert complete("verify", "--disable", "=", "cycle,un") == [
        "cycle,unknown-command", "cycle,unknown-member", "cycle,unreadable", "cycle,unsafe-mode", "cycle,unused-barrier"]


def test_completion_knows_every_rule() -> None:
    rules = re.findall(r"^\*([a-z-]+)\* \((?:error|warning|note)\)$", PAGE, re.MULTILINE)
    assert len(rules) == 16
    assert complete("verify", "--disable", "=") == sorted(rules)


def test_completion_finds_the_plugins_of_the_root(tmp_path: pathlib.Path) -> None:
    root = make_host(tmp_path, HOST)
    where = ("--root", "=", str(root))
    assert complete(*where, "why", "d") == ["devices", "disks"]
    assert complete(*where, "dot", "--from", "=", "d") == ["devices", "disks"]
    assert complete(*where, "--plugin", "=", "report.json,d") == ["report.json,devices.json", "report.json,disks.json"]
    assert complete("--plugin-directory", str(root / "usr/libexec/lofter/plugins"), "critical-chain", "l") == ["loopback"]


def test_completion_finds_files_where_a_command_takes_them(tmp_path: pathlib.Path) -> None:
    (tmp_path / "one.log").write_text("")
    (tmp_path / "folder").mkdir()
    for words in (("stuck",), ("diff",), ("--log", "="), ("chart", "-o")):
        assert complete(*words, f"{tmp_path}/") == [f"{tmp_path}/folder", f"{tmp_path}/one.log"]
    assert complete("--root", "=", f"{tmp_path}/") == [f"{tmp_path}/folder"]


def test_a_value_that_is_called_like_a_command_is_none() -> None:
    assert "--cycles-only" not in complete("--disable-plugins", "dot", "-")
    assert "--cycles-only" not in complete("--disable-plugins", "=", "dot", "-")
    assert "--cycles-only" in complete("--disable-plugins", "=", "dot", "dot", "-")
