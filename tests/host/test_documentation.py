"""What an operator reads and types: the manual pages and the completion of the command line."""
import re
import subprocess

import pytest

PAGES = {"lofter": 8, "lofter-debug.conf": 5, "lofter-plugin": 7, "lofter-plugin-json": 5}


def Page(host, name):
    return host.Path(f"/usr/share/man/man{PAGES[name]}/{name}.{PAGES[name]}")


def Rendered(host, name):
    """The page as a reader sees it, without emphasis, on one line."""
    command = ["mandoc", "-T", "utf8", "-O", "width=900", Page(host, name)]
    text = subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout
    return re.sub(r"\s+", " ", re.sub(".\b", "", text))


def Options(host):
    """What the program itself says it knows, and the two options that it keeps to itself."""
    usage = host.Lofter("--help").output
    return sorted({*re.findall(r"^ +(?:-h,)?(--[a-z-]+)", usage, re.MULTILINE), "--run-once", "--plugin-directory"})


@pytest.mark.parametrize("name", PAGES)
def test_manual_pages_are_well_formed(host, name):
    check = subprocess.run(["mandoc", "-T", "lint", "-W", "warning", Page(host, name)], stdout=subprocess.PIPE,
                           stderr=subprocess.STDOUT, text=True)
    # The page generator puts a paragraph in front of headings and lists, which a formatter leaves out.
    complaints = [line for line in check.stdout.splitlines() if "skipping paragraph macro" not in line]
    assert complaints == []


def test_every_manual_page_is_checked(host):
    installed = {path.name for path in host.Path("/usr/share/man").glob("man?/*")}
    assert installed == {f"{name}.{section}" for name, section in PAGES.items()}


def test_the_manual_page_explains_every_option(host):
    page = Rendered(host, "lofter")
    options = page[page.index(" MODES "):page.index(" DAEMONS ")]
    assert [option for option in Options(host) if option not in options] == []


def test_the_manual_page_names_no_option_that_does_not_exist(host):
    known = Options(host)
    assert [option for option in re.findall(r"--[a-z][a-z-]+", Rendered(host, "lofter")) if option not in known] == []


def Complete(host, *words, plugins=()):
    """What bash offers for the last of these words."""
    script = """source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _lofter; printf '%s\\n' "${COMPREPLY[@]}" """
    completion = host.Path("/usr/share/bash-completion/completions/lofter")
    outcome = subprocess.run(["bash", "-c", script, "bash", completion, "lofter", *map(str, words)], check=True,
                             stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    assert outcome.stderr == ""
    return sorted(filter(None, outcome.stdout.splitlines()))


def test_completion_offers_every_option(host):
    offered = sorted(word.rstrip("=") for word in Complete(host, ""))
    assert offered == sorted([*Options(host), "-h"])
    assert Complete(host, "--daemon") == ["--daemon", "--daemon-wait-timeout="]


def test_completion_knows_the_values_of_options(host):
    assert Complete(host, "--method", "=") == ["apply_host_profile", "start", "stop"]
    assert Complete(host, "--method", "=", "st") == ["start", "stop"]
    assert Complete(host, "--daemon", "=", "n") == ["nowait"]


def test_completion_finds_plugins_behind_the_last_comma(host):
    directory = host.Path("/plugins")
    for name in ("net.json", "libdisk.so", "README"):
        host.Write(f"/plugins/{name}", "")
    where = ("--plugin-directory", "=", directory)
    assert Complete(host, *where, "--plugin", "=") == ["libdisk.so", "net.json"]
    assert Complete(host, *where, "--plugin", "=", "net.json,l") == ["net.json,libdisk.so"]
    assert Complete(host, *where, "--disable-plugins", "=") == ["disk", "net"]


def test_completion_finds_directories_and_files(host):
    host.Write("/place/file", "")
    assert Complete(host, "--plugin-directory", "=", host.Path("/pla")) == [str(host.Path("/place"))]
    assert Complete(host, "--dump-dependency-tree", "=", host.Path("/place/f")) == [str(host.Path("/place/file"))]
