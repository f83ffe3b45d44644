"""Native plugins as a host sees them: what they do, and what their faults cost."""
import os
import re
import select
import signal
import subprocess
from collections.abc import Iterator

import pytest

from lofterdev.host import BUILD, Host
from lofterdev.processes import processes_below
from lofterdev.syslog import ERROR, WARNING

FIXTURES = BUILD / "tests" / "unit" / "fixtures" / "native"
EXAMPLES = BUILD / "sdk" / "examples"
PLUGINS = "/usr/libexec/lofter/plugins"
EXECUTOR = "/usr/lib/tessel/lofter/nativeExecutor"


def actor(host: Host, name: str) -> None:
    """A plugin whose operation does what its name says."""
    host.plugin(f"{name}.so", (FIXTURES / "acts.so").read_bytes())


def example(host: Host, *names: str) -> None:
    for name in names:
        host.plugin(f"{name}.so", (EXAMPLES / f"{name}.so").read_bytes())


class Boot:
    """A boot of the host from its beginning to its end."""

    def __init__(self, host: Host, *arguments: str, **settings: int) -> None:
        syslog = host.syslog()
        host.kernel_log()
        self.outcome = host.lofter("--init", *arguments, **settings)
        assert self.outcome.status == 0, self.outcome.output
        self.errors = syslog.texts(ERROR)
        self.warnings = syslog.texts(WARNING)
        self.kernel = [line.split("lofter: ", 1)[1] for line in host.kernel_lines()]

    def expect_activated(self, name: str) -> None:
        assert [line for line in self.kernel if f" {name}" in line] == \
            [f"Activating Lofter plugin {name}.", f"Lofter plugin {name} activated."]
        assert not [line for line in self.errors if name in line]

    def expect_failed(self, name: str, reason: str, method: str = "start") -> None:
        failure = f"{name}->{method}() failed: {reason}"
        assert [line for line in self.errors if name in line] == [f"Method invocation failed: {failure}"]
        assert f"Lofter plugin {name} activation failed: {failure}" in self.kernel
        assert not self.outcome.leftovers


class Meeting:
    """The ends of the named pipes at which operations say that they are there, and wait to be let go."""

    def __init__(self, host: Host) -> None:
        self.folder = host.path(PLUGINS)
        for name in ("arrived", "go"):
            os.mkfifo(self.folder / name)
        self.arrived = os.open(self.folder / "arrived", os.O_RDWR)
        self.go: int | None = None

    def expect(self, count: int, seconds: int = 30) -> None:
        for number in range(count):
            assert select.select([self.arrived], [], [], seconds)[0], f"{number} of {count} operations are there"
            os.read(self.arrived, 1)

    def let_go(self) -> None:
        self.go = os.open(self.folder / "go", os.O_RDWR)

    def close(self) -> None:
        for descriptor in filter(None, (self.arrived, self.go)):
            os.close(descriptor)


@pytest.fixture
def meeting(host: Host) -> Iterator[Meeting]:
    made = Meeting(host)
    yield made
    made.close()


# What operations may do.

def test_an_operation_that_returns_zero_has_succeeded(host: Host) -> None:
    actor(host, "return 0")
    Boot(host).expect_activated("return 0")


@pytest.mark.parametrize("name, reason", [
    ("abort", "exited with signal: 6"),
    ("kill itself", "exited with signal: 9"),
    ("return 3", "exited with code 3"),
    ("return 256", "exited with code 1"),
    ("exit 9", "exited with code 9"),
    ("exit 7 while loading", "exited with code 7"),
    ("exit 0 while loading", "exited with code 125"),
])
def test_a_fault_of_an_operation_costs_only_its_plugin(host: Host, name: str, reason: str) -> None:
    actor(host, name)
    example(host, "hello", "inventory")
    boot = Boot(host)
    boot.expect_failed(name, reason)
    boot.expect_activated("hello")
    boot.expect_activated("inventory")


def test_an_operation_has_the_streams_of_the_boot_and_no_environment(host: Host) -> None:
    actor(host, "report")
    Boot(host).expect_activated("report")
    lines = host.read(f"{PLUGINS}/report").splitlines()
    assert lines[:5] == [f"argument {EXECUTOR}", f"argument {PLUGINS}/report.so", "argument report", "argument start",
                         "environment empty"]
    assert [line.split(":")[0] for line in lines[5:8]] == ["stream 0", "stream 1", "stream 2"]
    assert lines[8:] == ["descriptors 3"]


def test_an_operation_that_closes_its_streams_leaves_those_of_the_boot_alone(host: Host) -> None:
    actor(host, "close the streams")
    host.debug_configuration("hello:nothing::echo still there")
    boot = Boot(host)
    boot.expect_activated("close the streams")
    assert "still there\n" in boot.outcome.output
    assert "warning unable to open krxsyslogd pid file." in boot.outcome.log()


def test_a_child_that_an_operation_leaves_behind_is_not_waited_for(host: Host, meeting: Meeting) -> None:
    actor(host, "leave a child")
    boot = Boot(host, grace=1)
    boot.expect_activated("leave a child")
    meeting.expect(1)
    assert EXECUTOR in [line.split()[1] for line in boot.outcome.leftovers]


def test_an_operation_that_runs_for_ever_holds_up_the_boot_until_it_is_killed_from_outside(host: Host, meeting: Meeting) -> None:
    actor(host, "meet")
    syslog = host.syslog()
    host.kernel_log()
    lofter = host.start_lofter("--init")
    meeting.expect(1)
    with pytest.raises(subprocess.TimeoutExpired):
        lofter.process.wait(2)
    assert "Activating Lofter plugin meet." in host.kernel_lines()[-1]
    operations = [process for process, words in processes_below(lofter.process.pid) if words[0] == EXECUTOR]
    assert len(operations) == 1
    os.kill(operations[0], signal.SIGKILL)
    outcome = lofter.finish()
    assert outcome.status == 0
    assert syslog.texts(ERROR)[-1] == "Method invocation failed: meet->start() failed: exited with signal: 9"


def test_a_plugin_that_is_deleted_between_discovery_and_run_fails(host: Host) -> None:
    host.plugin("barriers.so", (FIXTURES / "barriers.so").read_bytes())  # requires "disk", provides "clock"
    host.debug_configuration(f"remove::disk:rm {PLUGINS}/barriers.so", "after:clock::touch /run/after")
    boot = Boot(host)
    boot.expect_failed("barriers", "exited with code 125")
    assert f"nativeExecutor: plugin barriers: {PLUGINS}/barriers.so: cannot open shared object file: " \
        "No such file or directory\n" in boot.outcome.errors
    assert host.exists("/run/after")


def test_eight_operations_run_at_once(host: Host, meeting: Meeting) -> None:
    host.write("/sys/devices/system/cpu/online", "0-7\n")
    names = [f"meet.{number}" for number in range(8)]
    for name in names:
        actor(host, name)
    syslog = host.syslog()
    host.kernel_log()
    lofter = host.start_lofter("--init", "--parallel")
    meeting.expect(8)
    meeting.let_go()
    assert lofter.finish().status == 0
    assert not [text for text in syslog.texts(ERROR) if "meet" in text]
    activated = re.findall(r"Lofter plugin (\S+) activated\.", host.read("/dev/kmsg"))
    assert sorted(activated) == names


# The program that runs them.

def test_a_missing_executor_is_reported_for_every_operation(host: Host) -> None:
    actor(host, "return 0")
    host.path(EXECUTOR).unlink()
    Boot(host).expect_failed("return 0", "failed to spawn: No such file or directory")


def test_an_executor_that_may_not_be_executed_is_reported(host: Host) -> None:
    actor(host, "return 0")
    host.write(EXECUTOR, host.path(EXECUTOR).read_bytes(), 0o644)
    Boot(host).expect_failed("return 0", "failed to spawn: Permission denied")


# Objects that are no plugins.

def test_objects_that_cannot_be_loaded_are_left_out_with_the_loaders_reason(host: Host) -> None:
    plugin = (FIXTURES / "barriers.so").read_bytes()
    host.plugin("text.so", "This is a text, and as a text it is quite long enough to hold what an object's header would hold.")
    host.plugin("empty.so", "")
    host.plugin("foreign.so", plugin[:18] + b"\x16\x00" + plugin[20:])  # the machine is an s390
    host.plugin("unresolved_data.so", (FIXTURES / "unresolved_data.so").read_bytes())
    host.path(f"{PLUGINS}/directory.so").mkdir()
    host.path(f"{PLUGINS}/dangling.so").symlink_to("nowhere")
    boot = Boot(host)
    reasons = {
        "text": "invalid ELF header",
        "empty": "file too short",
        "foreign": "cannot open shared object file: No such file or directory",
        "unresolved_data": "undefined symbol: nobody_has_this_data",
        "directory": "cannot read file data: Is a directory",
        "dangling": "cannot open shared object file: No such file or directory",
    }
    for name, reason in reasons.items():
        path = f"{PLUGINS}/{name}.so"
        assert f"exception occurred whilst loading plugin {name}.so: plugin `{path}' is invalid: {path}: {reason}" \
            in boot.warnings
    assert not [line for line in boot.kernel if "Activating" in line]


def test_an_object_without_a_symbol_or_of_an_unknown_version_is_left_out(host: Host) -> None:
    for name in ("no_operations", "no_metadata", "version0", "version5"):
        host.plugin(f"{name}.so", (FIXTURES / f"{name}.so").read_bytes())
    boot = Boot(host)
    for symbol in ("operations", "metadata"):
        path = f"{PLUGINS}/no_{symbol}.so"
        assert f"exception occurred whilst loading plugin no_{symbol}.so: Failed loading symbol: {symbol} " \
            f"Located at: {path} Reason: {path}: undefined symbol: {symbol}" in boot.warnings
    for name in ("version0", "version5"):
        assert f"exception occurred whilst loading plugin {name}.so: " \
            f"plugin `{PLUGINS}/{name}.so' is invalid: Unsupported API version" in boot.warnings


def test_a_function_that_is_missing_shows_when_the_operation_runs(host: Host) -> None:
    host.plugin("unresolved_function.so", (FIXTURES / "unresolved_function.so").read_bytes())
    boot = Boot(host)
    boot.expect_failed("unresolved_function", "exited with code 125")
    assert f"nativeExecutor: plugin unresolved_function: {PLUGINS}/unresolved_function.so: undefined symbol: " \
        "nobody_has_this_function\n" in boot.outcome.errors


def test_null_lists_are_empty_lists(host: Host) -> None:
    host.plugin("null_lists.so", (FIXTURES / "null_lists.so").read_bytes())
    Boot(host).expect_activated("null_lists")


# The worked examples.

def test_the_inventory_is_taken_after_hello(host: Host) -> None:
    example(host, "inventory", "hello")
    boot = Boot(host)
    boot.expect_activated("inventory")
    assert "hello from a native plugin\n" in boot.outcome.output
    assert boot.kernel.index("Lofter plugin hello activated.") < boot.kernel.index("Activating Lofter plugin inventory.")
    system = os.uname()
    assert host.read("/run/inventory") == f"kernel {system.release}\nmachine {system.machine}\n"


def test_an_exception_of_the_inventory_ends_as_an_exit_code(host: Host) -> None:
    example(host, "inventory")
    host.path("/run/inventory").mkdir()
    boot = Boot(host)
    boot.expect_failed("inventory", "exited with code 1")
    assert "\ninventory: " in "\n" + boot.outcome.errors


def test_the_identity_is_drawn_once(host: Host) -> None:
    example(host, "identity")
    Boot(host).expect_activated("identity")
    identity = host.read("/etc/host-identity")
    assert re.fullmatch(r"[0-9a-f]{32}\n", identity)
    assert "identity1.0" in host.read_gzip("/bootbank/loftsave.gz")


def test_the_identity_is_kept_when_the_host_boots_for_rescue(host: Host) -> None:
    example(host, "identity")
    boot = Boot(host, "--plugin-flags=rescue")
    assert "ignoring plugin 'identity', disabled due to boot flags: rescue ." in boot.warnings
    assert not host.exists("/etc/host-identity")


@pytest.mark.parametrize("profile, banner", [(None, "Welcome\n"), ("<profile>\n  <banner>Staff only</banner>\n", "Staff only\n")])
def test_the_banner_is_the_host_profiles_when_there_is_one(host: Host, profile: str | None, banner: str) -> None:
    example(host, "banner")
    if profile is not None:
        host.write("/etc/tessel/hostprofile.xml", profile)
    Boot(host).expect_activated("banner")
    assert host.read("/run/banner") == banner


def test_a_host_profile_without_a_banner_fails_the_operation_for_it(host: Host) -> None:
    example(host, "banner")
    host.write("/etc/tessel/hostprofile.xml", "<profile/>\n")
    Boot(host).expect_failed("banner", "exited with code 1", "apply_host_profile")


def test_the_demo_host_runs_the_examples(demo_host: Host) -> None:
    boot = demo_host.lofter("--init", grace=0)  # the host's daemons stay
    assert boot.status == 0
    assert demo_host.read("/run/banner") == "Welcome\n"
    assert demo_host.exists("/run/inventory")
    assert demo_host.exists("/etc/host-identity")
    assert "hello from a native plugin\n" in boot.output
