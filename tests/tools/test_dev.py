"""./dev on a fresh clone, and on machines that lack something. The tools that it calls are stood in for, so nothing is built."""
import os
import pathlib
import platform
import re
import shutil
import subprocess
from typing import Any

import pytest

from lofterdev.repository import REPOSITORY
from sources import tracked

VM = "release" if platform.machine() == "aarch64" else "aarch64"
# The words of a call, and the preset with whose configuration its work begins.
COMMANDS = {
    "boot": (["boot"], "release"), "test": (["test"], "release"), "soak": (["soak", "1"], "release"), "vm": (["vm"], VM),
    "bench": (["bench"], "release"), "coverage": (["coverage"], "coverage"), "valgrind": (["valgrind"], "release"),
    "fuzz": (["fuzz"], "fuzz"), "faults": (["faults", "--short"], "release"), "lint": (["lint", "cppcheck"], "debug"),
}
QUIET_BEFORE_THEIR_BUILD = ["soak", "bench"]
# In place of the ones of this machine.
INSTALLED = """sed 's/ .*//; s/$/ installed/' debian-packages.txt"""
OUT_OF_ORDER = """[ -d build ] && echo "$*" >>"$CALLS"; echo "cmake: out of order" >&2; exit 1"""
APT = """case " $* " in
*" -s "*) echo "Inst zlib1g-dev (1 Debian:12 [arm64])" ;;
*" download "*) : >zlib1g-dev.deb ;;
esac"""
APT_OUT_OF_ORDER = 'echo "E: out of order" >&2; exit 100'
EMPTY_ARCHIVE = "tar -cf - -T /dev/null"


@pytest.fixture(scope="session")
def clone(tmp_path_factory: pytest.TempPathFactory) -> pathlib.Path:
    """What a clone of this tree has in it."""
    clone = tmp_path_factory.mktemp("clone")
    for path in tracked():
        (clone / path.parent).mkdir(parents=True, exist_ok=True)
        shutil.copy2(REPOSITORY / path, clone / path, follow_symlinks=False)
    subprocess.run(["git", "init", "-q", clone], check=True)
    return clone


class Machine:
    def __init__(self, clone: pathlib.Path, folder: pathlib.Path) -> None:
        shutil.rmtree(clone / "build", ignore_errors=True)
        self.clone, self.tools, self.calls = clone, folder / "tools", folder / "calls"
        self.tools.mkdir()
        self.path = f"{self.tools}:/usr/sbin:/usr/bin:/sbin:/bin"
        self.tool("dpkg-query", INSTALLED)
        self.tool("cmake", OUT_OF_ORDER)
        self.tool("apt-get", APT)
        self.tool("dpkg-deb", EMPTY_ARCHIVE)
        self.tool("gcovr", "exit 1")

    def tool(self, name: str, body: str) -> None:
        path = self.tools / name
        path.write_text(f"#!/bin/sh\n{body}\n")
        path.chmod(0o755)

    def has_only(self, *tools: str) -> None:
        """Of what this machine has; and of what stands in for it, all."""
        for name in tools:
            if not (self.tools / name).exists():
                (self.tools / name).symlink_to(shutil.which(name) or name)
        self.path = str(self.tools)

    def run(self, *words: str, **settings: Any) -> subprocess.CompletedProcess[str]:
        settings.setdefault("stdout", subprocess.PIPE)
        environment = {"PATH": self.path, "HOME": "/", "CALLS": str(self.calls)}
        return subprocess.run(words, cwd=self.clone, env=environment, stdin=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True,
                              timeout=120, **settings)

    def dev(self, *words: str, **settings: Any) -> subprocess.CompletedProcess[str]:
        return self.run("./dev", *words, **settings)

    def called(self) -> list[str]:
        return self.calls.read_text().splitlines() if self.calls.exists() else []


@pytest.fixture
def machine(clone: pathlib.Path, tmp_path: pathlib.Path) -> Machine:
    return Machine(clone, tmp_path)


def is_plain(outcome: subprocess.CompletedProcess[str]) -> bool:
    """Nobody has to know how it is made to read it."""
    said = f"{outcome.stdout}{outcome.stderr}"
    return "Traceback" not in said and not re.search(r"^(\S*/)?(sh|dev|fetch|apt|sysroot|boot): \d+: ", said, re.MULTILINE) and \
        "No such file" not in said


def test_every_command_is_among_those_that_are_tried(machine: Machine) -> None:
    usage = machine.dev("help").stdout
    assert sorted(re.findall(r"^  (\w+) ", usage, re.MULTILINE)) == sorted([*COMMANDS, "package"])


@pytest.mark.parametrize("words, preset", COMMANDS.values(), ids=COMMANDS)
def test_a_command_comes_as_far_as_its_build_on_a_fresh_clone(machine: Machine, words: list[str], preset: str) -> None:
    outcome = machine.dev(*words)
    assert machine.called()[:1] and f"--preset {preset}" in machine.called()[0], outcome
    assert outcome.returncode == 1
    assert "cmake: out of order" in outcome.stdout + outcome.stderr
    assert is_plain(outcome), outcome


def test_packages_are_built_of_what_is_in_the_tree(machine: Machine) -> None:
    machine.tool("dpkg-buildpackage", 'ls -A . debian; echo "dpkg-buildpackage: out of order"; exit 1')
    outcome = machine.dev("package")
    assert outcome.returncode == 1
    assert is_plain(outcome), outcome
    *listing, reason, last = outcome.stderr.splitlines()
    assert {"CMakeLists.txt", "apps", "debian", "control", "rules"} <= set(listing) and "build" not in listing
    assert reason == "dpkg-buildpackage: out of order"
    assert last == "package: the packages do not build; all of it is in build/debian/build.log"


@pytest.mark.parametrize("words", [words for name, (words, _) in COMMANDS.items() if name not in QUIET_BEFORE_THEIR_BUILD])
def test_a_reader_who_has_gone_ends_a_command_with_one_line(machine: Machine, words: list[str]) -> None:
    reader, writer = os.pipe()
    os.close(reader)
    machine.tool("cmake", OUT_OF_ORDER.replace('echo "cmake: out of order" >&2; ', ""))
    try:
        outcome = machine.dev(*words, stdout=writer)
    finally:
        os.close(writer)
    assert outcome.returncode == 141, outcome
    assert outcome.stderr == f"./dev {words[0]}: whoever read its output has gone. To keep all of it: ./dev {words[0]} >{words[0]}.log\n"


# What installs packages.

SHELL = ("sh", "env", "dirname", "sed", "cat", "grep", "uname")
ONE_IS_MISSING = INSTALLED + " | grep -vx 'scdoc installed'"


def test_nothing_is_installed_where_nothing_is_missing(machine: Machine) -> None:
    machine.tool("apt-get", 'echo "$*" >>"$CALLS"')
    machine.dev("test")
    assert not any("install" in call for call in machine.called())


def test_what_is_missing_is_installed(machine: Machine) -> None:
    machine.tool("dpkg-query", ONE_IS_MISSING)
    machine.tool("id", "echo 0")
    machine.tool("apt-get", 'echo "apt-get $*" >>"$CALLS"')
    outcome = machine.dev("test")
    assert "==> installing scdoc\n" in outcome.stdout
    assert machine.called()[:2] == ["apt-get update -qq", "apt-get install -y -qq --no-install-recommends scdoc"]


def test_a_machine_without_sudo_is_told_what_root_has_to_do(machine: Machine) -> None:
    machine.tool("dpkg-query", ONE_IS_MISSING)
    machine.tool("id", "echo 1000")
    machine.has_only(*SHELL)
    outcome = machine.dev("test")
    assert (outcome.returncode, outcome.stdout) == (1, "")
    assert outcome.stderr == "dev: packages are missing, and there is no sudo to install them with. As root: apt-get install scdoc\n"


def test_a_machine_without_apt_is_told_what_is_missing(machine: Machine) -> None:
    machine.tool("dpkg-query", ONE_IS_MISSING)
    (machine.tools / "apt-get").unlink()
    machine.has_only(*SHELL)
    outcome = machine.dev("test")
    assert (outcome.returncode, outcome.stdout) == (1, "")
    assert outcome.stderr == "dev: packages are missing, and there is no apt-get to install them with. By other means, install: scdoc\n"


def test_an_apt_that_fails_is_left_with_its_own_reason_and_what_to_do(machine: Machine) -> None:
    machine.tool("dpkg-query", ONE_IS_MISSING)
    machine.tool("id", "echo 0")
    machine.tool("apt-get", APT_OUT_OF_ORDER)
    outcome = machine.dev("test")
    assert (outcome.returncode, outcome.stdout) == (1, "==> installing scdoc\n")
    assert outcome.stderr == "E: out of order\n" \
        "dev: apt-get has failed, for the reason above. Once that is mended, repeat the command, or as root: apt-get install scdoc\n"


# What fetches packages.

@pytest.mark.parametrize("root", [True, False], ids=["root", "ordinary user"])
def test_a_package_that_cannot_be_fetched_costs_one_line_behind_apts(machine: Machine, root: bool) -> None:
    machine.tool("id", "case $1 in -u) echo %d ;; *) echo user ;; esac" % (0 if root else 1000))
    machine.tool("sudo", '"$@"')
    machine.tool("apt-get", APT_OUT_OF_ORDER)
    outcome = machine.run("host/fetch", "busybox-static", "inetutils-syslogd")
    assert (outcome.returncode, outcome.stdout) == (1, "")
    assert outcome.stderr.splitlines()[-1] == \
        "fetch: apt cannot download busybox-static inetutils-syslogd, for the reason above." \
        " Look at the network and at /etc/apt/sources.list*"
    assert set(outcome.stderr.splitlines()[:-1]) == {"E: out of order"}


def test_lists_of_packages_that_cannot_be_renewed_without_sudo(machine: Machine) -> None:
    machine.tool("id", "case $1 in -u) echo 1000 ;; *) echo user ;; esac")
    machine.tool("apt-get", APT_OUT_OF_ORDER)
    machine.has_only(*SHELL, "dpkg", "mkdir", "mktemp", "rm")
    outcome = machine.run("host/fetch", "busybox-static")
    assert (outcome.returncode, outcome.stdout) == (1, "")
    assert outcome.stderr == "fetch: apt's lists of packages are missing or old, and there is no sudo. As root: apt-get update\n"


def test_a_root_whose_packages_cannot_be_fetched_is_not_assembled(machine: Machine) -> None:
    machine.tool("apt-get", APT_OUT_OF_ORDER)
    program = machine.clone / "build/release/apps/lofter"
    program.parent.mkdir(parents=True)
    shutil.copy("/bin/true", program)
    outcome = machine.run("host/mkhost", "--build", "build/release", "--dest", "build/root")
    assert outcome.returncode == 1
    assert outcome.stderr.splitlines()[-1].startswith("fetch: apt cannot download busybox-static, for the reason above.")
    assert is_plain(outcome), outcome


def test_a_cross_build_whose_libraries_cannot_be_fetched_is_not_begun(machine: Machine) -> None:
    machine.tool("apt-get", APT_OUT_OF_ORDER)
    machine.tool("dpkg", "echo amd64")
    outcome = machine.run("host/machine/sysroot")
    assert (outcome.returncode, outcome.stdout) == (1, "")
    assert outcome.stderr == "E: out of order\n" \
        "apt: no lists of packages for arm64, for the reason above. Look at the network, and whether the mirror carries arm64\n"
    assert not (machine.clone / "build/sysroot-arm64").exists()
