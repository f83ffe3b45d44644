"""What an operator reads and types: the manual pages and the completion of the command line."""
import os
import pathlib
import re
import subprocess
from collections.abc import Sequence

import pytest

from lofterdev.host import BUILD, Host
from lofterdev.repository import REPOSITORY

PAGES = {"chkconfig": 8, "lofter": 8, "lofter-analyze": 1, "lofter-command": 7, "lofter-debug.conf": 5, "lofter-plugin": 7,
         "lofter-plugin-json": 5, "lofter-profile": 5}


def read_page(host: Host, name: str) -> pathlib.Path:
    if name == "chkconfig":  # which a bare host has not
        return BUILD / "docs" / f"{name}.{PAGES[name]}"
    return host.path(f"/usr/share/man/man{PAGES[name]}/{name}.{PAGES[name]}")


def rendered(host: Host, name: str) -> str:
    """The page as a reader sees it, without emphasis, on one line."""
    command = ["mandoc", "-T", "utf8", "-O", "width=900", str(read_page(host, name))]
    text = subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout
    return re.sub(r"\s+", " ", re.sub(".\b", "", text))


def documented_options(host: Host) -> list[str]:
    """What the program itself says it knows, and the two options that it keeps to itself."""
    usage = host.lofter("--help").output
    return sorted({*re.findall(r"^ +(?:-h,)?(--[a-z-]+)", usage, re.MULTILINE), "--run-once", "--plugin-directory"})


@pytest.mark.parametrize("name", PAGES)
def test_manual_pages_are_well_formed(host: Host, name: str) -> None:
    check = subprocess.run(["mandoc", "-T", "lint", "-W", "warning", read_page(host, name)], stdout=subprocess.PIPE,
                           stderr=subprocess.STDOUT, text=True)
    # The page generator puts a paragraph in front of headings and lists, which a formatter leaves out.
    complaints = [line for line in check.stdout.splitlines() if "skipping paragraph macro" not in line]
    assert complaints == []


def test_every_manual_page_is_checked(host: Host) -> None:
    written = {path.stem for path in (REPOSITORY / "docs" / "man").glob("*.scd")}
    assert written == {f"{name}.{section}" for name, section in PAGES.items()}
    installed = {path.name for path in host.path("/usr/share/man").glob("man?/*")}
    assert installed == written - {"chkconfig.8"}


def test_pages_that_point_to_each_other_do_so_both_ways(host: Host) -> None:
    pointers = {(name, other) for name in PAGES
                for other in re.findall(r"([\w.-]+)\(\d\)", rendered(host, name).split("SEE ALSO")[1]) if other in PAGES and other != name}
    assert {(name, "lofter") for name in PAGES if name != "lofter"} <= pointers
    assert {(one, other) for one, other in pointers if (other, one) not in pointers} == set()


@pytest.mark.parametrize("name", PAGES)
def test_options_can_be_copied_and_searched(host: Host, name: str) -> None:
    for width in (60, 70, 80):
        environment = {**os.environ, "LC_ALL": "C.UTF-8"}
        command = ["groff", "-man", "-Tutf8", f"-rLL={width}n", str(read_page(host, name))]
        text = subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True, env=environment).stdout
        assert "\u2010" not in text and "\u2212" not in text
        assert [line for line in text.splitlines() if re.search(r"\w-$", line)] == []


def test_the_manual_page_explains_every_option(host: Host) -> None:
    page = rendered(host, "lofter")
    options = page[page.index(" MODES "):page.index(" DAEMONS ")]
    assert [option for option in documented_options(host) if option not in options] == []


def test_the_manual_page_names_no_option_that_does_not_exist(host: Host) -> None:
    known = documented_options(host)
    assert [option for option in re.findall(r"--[a-z][a-z-]+", rendered(host, "lofter")) if option not in known] == []


def complete(host: Host, *words: pathlib.Path | str, plugins: Sequence[str] = ()) -> list[str]:
    """What bash offers for the last of these words."""
    script = """source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _lofter; printf '%s\\n' "${COMPREPLY[@]}" """
    completion = host.path("/usr/share/bash-completion/completions/lofter")
    outcome = subprocess.run(["bash", "-c", script, "bash", completion, "lofter", *map(str, words)], check=True,
                             stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    assert outcome.stderr == ""
    return sorted(filter(None, outcome.stdout.splitlines()))


def test_completion_offers_every_option(host: Host) -> None:
    offered = sorted(word.rstrip("=") for word in complete(host, ""))
    assert offered == sorted([*documented_options(host), "-h"])
    assert complete(host, "--daemon") == ["--daemon", "--daemon-wait-timeout="]


def test_completion_knows_the_values_of_options(host: Host) -> None:
    assert complete(host, "--method", "=") == ["apply_host_profile", "start", "stop"]
    assert complete(host, "--method", "=", "st") == ["start", "stop"]
    assert complete(host, "--daemon", "=", "n") == ["nowait"]


def test_completion_finds_plugins_behind_the_last_comma(host: Host) -> None:
    directory = host.path("/plugins")
    for name in ("net.json", "libdisk.so", "README"):
        host.write(f"/plugins/{name}", "")
    where = ("--plugin-directory", "=", directory)
    assert complete(host, *where, "--plugin", "=") == ["libdisk.so", "net.json"]
    assert complete(host, *where, "--plugin", "=", "net.json,l") == ["net.json,libdisk.so"]
    assert complete(host, *where, "--disable-plugins", "=") == ["disk", "net"]


def test_completion_finds_directories_and_files(host: Host) -> None:
    host.write("/place/file", "")
    assert complete(host, "--plugin-directory", "=", host.path("/pla")) == [str(host.path("/place"))]
    assert complete(host, "--dump-dependency-tree", "=", host.path("/place/f")) == [str(host.path("/place/file"))]
