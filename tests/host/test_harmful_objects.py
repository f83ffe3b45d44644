"""Objects that would end the boot by being loaded, and damaged ones: each costs only itself, and is named."""
import os
import pathlib
import random
import re
import struct

import pytest

from lofterdev.host import BUILD, ENVIRONMENT, Host
from lofterdev.syslog import ERROR, WARNING

FIXTURES = BUILD / "tests" / "unit" / "fixtures" / "native"
EXAMPLES = BUILD / "sdk" / "examples"
PLUGINS = "/usr/libexec/lofter/plugins"

# Crashes on purpose are no finding of a sanitizer.
OWN_SIGNALS = "handle_segv=0:handle_sigbus=0:handle_sigfpe=0:handle_sigill=0:handle_abort=0"


def environment_with(**more: str) -> dict[str, str]:
    names = ("ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS")
    return {**{name: f"{ENVIRONMENT[name]}:{OWN_SIGNALS}" for name in names}, **more}


def fixture(host: Host, name: str, file: str | None = None) -> None:
    host.plugin(file or f"{name}.so", (FIXTURES / f"{name}.so").read_bytes())


def hello(host: Host, *names: str) -> None:
    for name in names:
        host.plugin(f"{name}.so", (EXAMPLES / "hello.so").read_bytes())


class Boot:
    """A boot that comes to its end, whatever is in the plugin directory."""

    def __init__(self, host: Host, *arguments: str, status: int = 0, **settings: int) -> None:
        syslog = host.syslog()
        host.kernel_log()
        self.outcome = host.lofter("--init", *arguments, environment=environment_with(), **settings)
        assert self.outcome.status == status, self.outcome.output + self.outcome.errors
        self.errors = syslog.texts(ERROR)
        self.loading = [text for text in syslog.texts(WARNING) if "loading plugin" in text]
        self.kernel = host.read("/dev/kmsg")
        self.activated = re.findall(r"Lofter plugin (\S+) activated\.", self.kernel)


def rejected(file: str, reason: str) -> str:
    return f"exception occurred whilst loading plugin {file}: plugin `{PLUGINS}/{file}' is invalid: {reason}"


def blamed(boot: Boot) -> set[str]:
    """What was rejected. What goes off after a while may do so while its own object is still being loaded, or later."""
    return {re.findall(r"\Aexception occurred whilst loading plugin (\w+)\.so: ", text)[0] for text in boot.loading}


SIGNALS = {"crash": "signal 11 (Segmentation fault)", "abort": "signal 6 (Aborted)", "bus": "signal 7 (Bus error)"}
HARM = {
    "exit_0_loading": "exited its loader with status 0",
    "exit_3_loading": "exited its loader with status 3",
    "exec_loading": "exited its loader with status 0",
    "throw_loading": f"ended its loader with {SIGNALS['abort']}",
    "abort_loading": f"ended its loader with {SIGNALS['abort']}",
    "crash_loading": f"ended its loader with {SIGNALS['crash']}",
    "leave_child_and_crash_loading": f"ended its loader with {SIGNALS['crash']}",
    "close_all_loading": "closed or replaced its loader's descriptors",
    "close_streams_loading": "closed or replaced its loader's descriptors",
    "replace_output_loading": "closed or replaced its loader's descriptors",
    "exit_0_unloading": "exited its loader with status 0",
    "crash_unloading": f"ended its loader with {SIGNALS['crash']}",
    "close_streams_unloading": "closed or replaced its loader's descriptors",
    "wild_list": f"ended its loader with {SIGNALS['crash']}",
    "wild_text": f"ended its loader with {SIGNALS['crash']}",
    "wild_release": f"ended its loader with {SIGNALS['crash']}",
}


@pytest.mark.parametrize("name", HARM)
def test_an_object_that_ends_its_loader_costs_only_itself(host: Host, name: str) -> None:
    hello(host, "before", "after")
    fixture(host, name)
    host.debug_configuration("debug:hello::touch /run/debug")
    boot = Boot(host, f"--plugin=before.so,{name}.so,after.so")
    assert boot.loading == [rejected(f"{name}.so", HARM[name])]
    assert boot.activated == ["before", "after"]
    assert not boot.outcome.leftovers


def test_many_harmful_objects_in_one_boot_cost_only_themselves(host: Host) -> None:
    for name in HARM:
        fixture(host, name)
    hello(host, "hello")
    host.debug_configuration("debug:hello::true")
    boot = Boot(host)
    assert sorted(boot.loading) == sorted(rejected(f"{name}.so", reason) for name, reason in HARM.items())
    assert boot.activated == ["hello", "debug"]
    assert not boot.outcome.leftovers


def test_objects_that_never_finish_loading_are_given_up(host: Host) -> None:
    names = ["sleep_loading", "close_all_and_sleep_loading"]
    for name in names:
        fixture(host, name)
    os.mkfifo(host.path(f"{PLUGINS}/pipe.so"))
    hello(host, "hello")
    boot = Boot(host, timeout=120)
    assert sorted(boot.loading) == sorted(rejected(f"{name}.so", "did not load within 10 s") for name in [*names, "pipe"])
    assert boot.activated == ["hello"]
    assert not boot.outcome.leftovers


def test_a_child_that_an_object_leaves_behind_ends_with_its_loader(host: Host) -> None:
    fixture(host, "leave_child_loading", "orphan.so")
    boot = Boot(host, "--invoke", "--method=none", "--plugin=orphan.so", grace=1)
    assert boot.loading == []
    assert boot.outcome.leftovers == []


def test_an_object_that_goes_on_twice_boots_the_host_once(host: Host) -> None:
    fixture(host, "go_on_twice_loading", "twice.so")
    host.debug_configuration("debug:clock::echo once >>/run/count")
    boot = Boot(host, "--plugin=twice.so,debug.debug")
    assert boot.loading == []
    assert boot.activated == ["twice", "debug"]
    assert host.read("/run/count") == "once\n"
    assert boot.outcome.output.count("Lofter executor signalled") <= 1


def test_what_an_object_changes_in_its_loader_reaches_nobody_else(host: Host) -> None:
    fixture(host, "change_process_loading", "change.so")
    host.write_script("/usr/bin/report", "umask; pwd; echo ${LEFT_BY-nothing} $PATH; ulimit -a; grep Sig[BI] /proc/self/status")
    host.debug_configuration("look:::report >/run/before", "wait:clock::sleep 0.5", "look again:clock::report >/run/after")
    assert host.lofter("--init", "--plugin=look.debug").status == 0
    host.restart()
    boot = Boot(host, "--plugin=change.so,wait.debug,look again.debug")
    assert blamed(boot) <= {"change"}
    assert "Lofter plugin look again activated." in boot.kernel
    assert host.read("/run/after") == host.read("/run/before")


@pytest.mark.parametrize("name", ["leave_thread_loading", "stay_and_sleep"])
def test_what_an_object_leaves_behind_does_not_end_the_boot(host: Host, name: str) -> None:
    fixture(host, name)
    host.debug_configuration("wait:::sleep 0.5")
    # It is not run: what it does to the process that runs it is its own affair.
    boot = Boot(host, f"--plugin={name}.so,wait.debug", f"--disable-plugins={name}")
    assert blamed(boot) <= {name}
    assert boot.activated == ["wait"]


def test_an_object_is_not_blamed_for_what_one_before_it_left_behind(host: Host) -> None:
    """The first leaves a thread that crashes, its code being gone, while the next is loaded, which takes its time."""
    fixture(host, "leave_thread_loading")
    fixture(host, "slow_loading")
    boot = Boot(host, "--plugin=leave_thread_loading.so,slow_loading.so")
    assert blamed(boot) <= {"leave_thread_loading"}
    assert "slow_loading" in boot.activated


def test_a_truncated_object_costs_only_itself(host: Host) -> None:
    plugin = (FIXTURES / "barriers.so").read_bytes()
    host.plugin("cut.so", plugin[:len(plugin) // 2])
    hello(host, "hello")
    boot = Boot(host)
    assert boot.loading == [rejected("cut.so", f"ended its loader with {SIGNALS['bus']}")]
    assert boot.activated == ["hello"]


def empty_segment(plugin: bytes) -> bytes:
    """The object with a load segment of no bytes beyond its end, in place of its note segment."""
    offset, count = struct.unpack_from("<Q", plugin, 32)[0], struct.unpack_from("<H", plugin, 56)[0]
    headers = [list(struct.unpack_from("<IIQQQQQQ", plugin, offset + 56 * index)) for index in range(count)]
    loads = [header for header in headers if header[0] == 1]
    spare = next(header for header in headers if header[0] in (4, 0x6474e553, 0x6474e550))  # notes
    headers.remove(spare)
    end = (max(header[3] + header[6] for header in loads) + 0xffff) & ~0xffff
    headers.insert(headers.index(loads[-1]) + 1, [1, 4, len(plugin) + 0x100000 & ~0xfff, end, end, 0, 0x1000, 0x1000])
    return plugin[:offset] + b"".join(struct.pack("<IIQQQQQQ", *header) for header in headers) + plugin[offset + 56 * count:]


def test_an_empty_segment_beyond_the_end_of_the_file_is_no_damage(host: Host) -> None:
    host.plugin("empty_segment.so", empty_segment((EXAMPLES / "hello.so").read_bytes()))
    boot = Boot(host)
    assert boot.loading == []
    assert boot.activated == ["empty_segment"]


# Damage.

def flipped(plugin: bytes, bit: int) -> bytes:
    damaged = bytearray(plugin)
    damaged[bit // 8] ^= 1 << bit % 8
    return bytes(damaged)


def zeroed(plugin: bytes, sector: int) -> bytes:
    return plugin[:512 * sector] + bytes(len(plugin[512 * sector:512 * (sector + 1)])) + plugin[512 * (sector + 1):]


@pytest.mark.parametrize("folder, name", [(FIXTURES, "release3"), (EXAMPLES, "inventory"), (EXAMPLES, "banner")])
def test_a_damaged_object_never_ends_a_boot(host: Host, folder: pathlib.Path, name: str) -> None:
    plugin = (folder / f"{name}.so").read_bytes()
    chosen = random.Random(name)
    damaged = {f"flip{bit}": flipped(plugin, bit) for bit in chosen.sample(range(8 * len(plugin)), 200)}
    damaged.update({f"sector{number}": zeroed(plugin, number) for number in range((len(plugin) + 511) // 512)})
    for name, content in damaged.items():
        host.plugin(f"{name}.so", content)
    hello(host, "hello")
    # Reports of what reading them does to a process are of no interest; and a damaged name may close a cycle, so nothing is run.
    environment = {name: f"{options}:log_path=/tmp/report" for name, options in environment_with().items()}
    outcome = host.lofter("--init", "--plugin-flags=a,b", "--dump-dependency-tree=/tmp/graph", environment=environment, timeout=120)
    assert outcome.status == 0, outcome.output + outcome.errors
    graph = host.read("/tmp/graph")
    loaded = set(re.findall(r'\[label="((?:flip|sector)\d+|hello)"', graph))
    ignored = set(re.findall(r"ignoring plugin '(\w+)', disabled", outcome.output))
    rejected = set(re.findall(r"exception occurred whilst loading plugin (\w+)\.so: ", outcome.output))
    assert loaded | ignored | rejected == {*damaged, "hello"}
    assert not loaded & rejected
    assert "hello" in loaded
    assert "ended its loader with" in outcome.output
