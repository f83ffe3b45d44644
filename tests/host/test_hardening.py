"""What the installed programs' own headers say about how they withstand faults and attacks."""
import pathlib
import re
import subprocess

import pytest

from lofterdev.host import BUILD

PROGRAMS = ["/usr/sbin/lofter", "/usr/lib/tessel/lofter/nativeExecutor"]


def read_elf(template: pathlib.Path, program: str, *options: str) -> str:
    path = template / program.lstrip("/")
    return subprocess.run(["readelf", "--wide", *options, path], check=True, stdout=subprocess.PIPE, text=True).stdout


def flags(dynamic: str, tag: str) -> set[str]:
    """The words of a flags entry of the dynamic section."""
    match = re.search(rf"\({tag}\) +(?:Flags: )?(.*)", dynamic)
    return set(match.group(1).split()) if match else set()


def imports_of(template: pathlib.Path, program: str) -> set[str]:
    """The functions that the program takes from its libraries, without their versions."""
    symbols = read_elf(template, program, "--dyn-syms")
    return set(re.findall(r" UND (\w+)", symbols))


def build_setting(name: str) -> str:
    return re.search(rf"^{name}:\w+=(.*)$", (BUILD / "CMakeCache.txt").read_text(), re.MULTILINE).group(1)


@pytest.mark.parametrize("program", PROGRAMS)
def test_a_program_can_be_loaded_anywhere(template: pathlib.Path, program: str) -> None:
    assert re.search(r"Type: +DYN ", read_elf(template, program, "--file-header"))
    assert "PIE" in flags(read_elf(template, program, "--dynamic"), "FLAGS_1")


@pytest.mark.parametrize("program", PROGRAMS)
def test_nothing_that_the_loader_resolved_can_be_overwritten(template: pathlib.Path, program: str) -> None:
    assert re.search(r"^ +GNU_RELRO ", read_elf(template, program, "--program-headers"), re.MULTILINE)
    dynamic = read_elf(template, program, "--dynamic")
    assert "BIND_NOW" in flags(dynamic, "FLAGS")
    assert "NOW" in flags(dynamic, "FLAGS_1")


@pytest.mark.parametrize("program", PROGRAMS)
def test_no_part_of_a_program_is_writable_and_executable(template: pathlib.Path, program: str) -> None:
    headers = read_elf(template, program, "--program-headers")
    segments = dict(re.findall(r"^ +(GNU_STACK|LOAD) .* ([R ][W ][E ]) +0x\w+$", headers, re.MULTILINE))
    assert segments.keys() == {"GNU_STACK", "LOAD"}
    assert segments["GNU_STACK"] == "RW "
    assert not re.search(r"^ +LOAD .* [R ]WE +0x", headers, re.MULTILINE)
    dynamic = read_elf(template, program, "--dynamic")
    assert "(TEXTREL)" not in dynamic
    assert "TEXTREL" not in flags(dynamic, "FLAGS")


@pytest.mark.parametrize("program", PROGRAMS)
def test_libraries_are_looked_for_in_the_hosts_own_directories_only(template: pathlib.Path, program: str) -> None:
    assert not re.search(r"\((RPATH|RUNPATH)\)", read_elf(template, program, "--dynamic"))


def test_containers_check_what_they_are_asked_for(template: pathlib.Path) -> None:
    assert any("__glibcxx_assert_fail" in name for name in imports_of(template, "/usr/sbin/lofter"))


def test_overruns_are_noticed(template: pathlib.Path) -> None:
    """By the compiler's and the C library's guards, or by the sanitizer of a build that has one."""
    imports = imports_of(template, "/usr/sbin/lofter")
    sanitizer = build_setting("LOFTER_SANITIZE").partition(",")[0]
    if sanitizer:
        assert {"address": "__asan_init", "thread": "__tsan_init"}[sanitizer] in imports
    else:
        assert "__stack_chk_fail" in imports
    if build_setting("CMAKE_BUILD_TYPE") == "Release":
        for program in PROGRAMS:
            assert any(re.fullmatch(r"__\w+_chk", name) for name in imports_of(template, program)), program
