"""What the installed programs' own headers say about how they withstand faults and attacks."""
import re
import subprocess

import pytest

from support.host import BUILD

PROGRAMS = ["/usr/sbin/lofter", "/usr/lib/tessel/lofter/nativeExecutor"]


def ReadElf(template, program, *options):
    path = template / program.lstrip("/")
    return subprocess.run(["readelf", "--wide", *options, path], check=True, stdout=subprocess.PIPE, text=True).stdout


def Flags(dynamic, tag):
    """The words of a flags entry of the dynamic section."""
    match = re.search(rf"\({tag}\) +(?:Flags: )?(.*)", dynamic)
    return set(match.group(1).split()) if match else set()


def Imports(template, program):
    """The functions that the program takes from its libraries, without their versions."""
    symbols = ReadElf(template, program, "--dyn-syms")
    return set(re.findall(r" UND (\w+)", symbols))


def BuildSetting(name):
    return re.search(rf"^{name}:\w+=(.*)$", (BUILD / "CMakeCache.txt").read_text(), re.MULTILINE).group(1)


@pytest.mark.parametrize("program", PROGRAMS)
def test_a_program_can_be_loaded_anywhere(template, program):
    assert re.search(r"Type: +DYN ", ReadElf(template, program, "--file-header"))
    assert "PIE" in Flags(ReadElf(template, program, "--dynamic"), "FLAGS_1")


@pytest.mark.parametrize("program", PROGRAMS)
def test_nothing_that_the_loader_resolved_can_be_overwritten(template, program):
    assert re.search(r"^ +GNU_RELRO ", ReadElf(template, program, "--program-headers"), re.MULTILINE)
    dynamic = ReadElf(template, program, "--dynamic")
    assert "BIND_NOW" in Flags(dynamic, "FLAGS")
    assert "NOW" in Flags(dynamic, "FLAGS_1")


@pytest.mark.parametrize("program", PROGRAMS)
def test_no_part_of_a_program_is_writable_and_executable(template, program):
    headers = ReadElf(template, program, "--program-headers")
    segments = dict(re.findall(r"^ +(GNU_STACK|LOAD) .* ([R ][W ][E ]) +0x\w+$", headers, re.MULTILINE))
    assert segments.keys() == {"GNU_STACK", "LOAD"}
    assert segments["GNU_STACK"] == "RW "
    assert not re.search(r"^ +LOAD .* [R ]WE +0x", headers, re.MULTILINE)
    dynamic = ReadElf(template, program, "--dynamic")
    assert "(TEXTREL)" not in dynamic
    assert "TEXTREL" not in Flags(dynamic, "FLAGS")


@pytest.mark.parametrize("program", PROGRAMS)
def test_libraries_are_looked_for_in_the_hosts_own_directories_only(template, program):
    assert not re.search(r"\((RPATH|RUNPATH)\)", ReadElf(template, program, "--dynamic"))


def test_containers_check_what_they_are_asked_for(template):
    assert any("__glibcxx_assert_fail" in name for name in Imports(template, "/usr/sbin/lofter"))


def test_overruns_are_noticed(template):
    """By the compiler's and the C library's guards, or by the sanitizer of a build that has one."""
    imports = Imports(template, "/usr/sbin/lofter")
    sanitizer = BuildSetting("LOFTER_SANITIZE").partition(",")[0]
    if sanitizer:
        assert {"address": "__asan_init", "thread": "__tsan_init"}[sanitizer] in imports
    else:
        assert "__stack_chk_fail" in imports
    if BuildSetting("CMAKE_BUILD_TYPE") == "Release":
        for program in PROGRAMS:
            assert any(re.fullmatch(r"__\w+_chk", name) for name in Imports(template, program)), program
