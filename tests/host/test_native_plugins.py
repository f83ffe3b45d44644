"""Native plugins as a host sees them: what they do, and what their faults cost."""
import os
import re
import select
import signal
import subprocess

import pytest

from support.host import BUILD
from support.processes import ProcessesBelow
from support.syslog import ERROR, WARNING
from support.waiting import Eventually

FIXTURES = BUILD / "tests" / "unit" / "fixtures" / "native"
EXAMPLES = BUILD / "sdk" / "examples"
PLUGINS = "/usr/libexec/lofter/plugins"
EXECUTOR = "/usr/lib/tessel/lofter/nativeExecutor"


def Actor(host, name):
    """A plugin whose operation does what its name says."""
    host.Plugin(f"{name}.so", (FIXTURES / "acts.so").read_bytes())


def Example(host, *names):
    for name in names:
        host.Plugin(f"{name}.so", (EXAMPLES / f"{name}.so").read_bytes())


class Boot:
    """A boot of the host from its beginning to its end."""

    def __init__(self, host, *arguments, **settings):
        syslog = host.Syslog()
        host.KernelLog()
        self.outcome = host.Lofter("--init", *arguments, **settings)
        assert self.outcome.status == 0, self.outcome.output
        self.errors = syslog.Texts(ERROR)
        self.warnings = syslog.Texts(WARNING)
        self.kernel = [line.split("lofter: ", 1)[1] for line in host.KernelLines()]

    def ExpectActivated(self, name):
        assert [line for line in self.kernel if f" {name}" in line] == \
            [f"Activating Lofter plugin {name}.", f"Lofter plugin {name} activated."]
        assert not [line for line in self.errors if name in line]

    def ExpectFailed(self, name, reason, method="start"):
        failure = f"{name}->{method}() failed: {reason}"
        assert [line for line in self.errors if name in line] == [f"Method invocation failed: {failure}"]
        assert f"Lofter plugin {name} activation failed: {failure}" in self.kernel
        assert not self.outcome.leftovers


class Meeting:
    """The ends of the named pipes at which operations say that they are there, and wait to be let go."""

    def __init__(self, host):
        self.folder = host.Path(PLUGINS)
        for name in ("arrived", "go"):
            os.mkfifo(self.folder / name)
        self.arrived = os.open(self.folder / "arrived", os.O_RDWR)
        self.go = None

    def Expect(self, count, seconds=30):
        for number in range(count):
            assert select.select([self.arrived], [], [], seconds)[0], f"{number} of {count} operations are there"
            os.read(self.arrived, 1)

    def LetGo(self):
        self.go = os.open(self.folder / "go", os.O_RDWR)

    def Close(self):
        for descriptor in filter(None, (self.arrived, self.go)):
            os.close(descriptor)


@pytest.fixture
def meeting(host):
    made = Meeting(host)
    yield made
    made.Close()


# What operations may do.

def test_an_operation_that_returns_zero_has_succeeded(host):
    Actor(host, "return 0")
    Boot(host).ExpectActivated("return 0")


@pytest.mark.parametrize("name, reason", [
    ("abort", "exited with signal: 6"),
    ("kill itself", "exited with signal: 9"),
    ("return 3", "exited with code 3"),
    ("return 256", "exited with code 1"),
    ("exit 9", "exited with code 9"),
    ("exit 7 while loading", "exited with code 7"),
    ("exit 0 while loading", "exited with code 125"),
])
def test_a_fault_of_an_operation_costs_only_its_plugin(host, name, reason):
    Actor(host, name)
    Example(host, "hello", "inventory")
    boot = Boot(host)
    boot.ExpectFailed(name, reason)
    boot.ExpectActivated("hello")
    boot.ExpectActivated("inventory")


def test_an_operation_has_the_streams_of_the_boot_and_no_environment(host):
    Actor(host, "report")
    Boot(host).ExpectActivated("report")
    lines = host.Read(f"{PLUGINS}/report").splitlines()
    assert lines[:5] == [f"argument {EXECUTOR}", f"argument {PLUGINS}/report.so", "argument report", "argument start",
                         "environment empty"]
    assert [line.split(":")[0] for line in lines[5:8]] == ["stream 0", "stream 1", "stream 2"]
    assert lines[8:] == ["descriptors 3"]


def test_an_operation_that_closes_its_streams_leaves_those_of_the_boot_alone(host):
    Actor(host, "close the streams")
    host.DebugConfiguration("hello:nothing::echo still there")
    boot = Boot(host)
    boot.ExpectActivated("close the streams")
    assert "still there\n" in boot.outcome.output
    assert "warning unable to open krxsyslogd pid file." in boot.outcome.Log()


def test_a_child_that_an_operation_leaves_behind_is_not_waited_for(host, meeting):
    Actor(host, "leave a child")
    boot = Boot(host, grace=1)
    boot.ExpectActivated("leave a child")
    meeting.Expect(1)
    assert EXECUTOR in [line.split()[1] for line in boot.outcome.leftovers]


def test_an_operation_that_runs_for_ever_holds_up_the_boot_until_it_is_killed_from_outside(host, meeting):
    Actor(host, "meet")
    syslog = host.Syslog()
    host.KernelLog()
    lofter = host.StartLofter("--init")
    meeting.Expect(1)
    with pytest.raises(subprocess.TimeoutExpired):
        lofter.process.wait(2)
    assert "Activating Lofter plugin meet." in host.KernelLines()[-1]
    operations = [process for process, words in ProcessesBelow(lofter.process.pid) if words[0] == EXECUTOR]
    assert len(operations) == 1
    os.kill(operations[0], signal.SIGKILL)
    outcome = lofter.Finish()
    assert outcome.status == 0
    assert syslog.Texts(ERROR)[-1] == "Method invocation failed: meet->start() failed: exited with signal: 9"


def test_a_plugin_that_is_deleted_between_discovery_and_run_fails(host):
    host.Plugin("barriers.so", (FIXTURES / "barriers.so").read_bytes())  # requires "disk", provides "clock"
    host.DebugConfiguration(f"remove::disk:rm {PLUGINS}/barriers.so", "after:clock::touch /run/after")
    boot = Boot(host)
    boot.ExpectFailed("barriers", "exited with code 125")
    assert f"nativeExecutor: plugin barriers: {PLUGINS}/barriers.so: cannot open shared object file: " \
        "No such file or directory\n" in boot.outcome.errors
    assert host.Exists("/run/after")


def test_eight_operations_run_at_once(host, meeting):
    host.Write("/sys/devices/system/cpu/online", "0-7\n")
    names = [f"meet.{number}" for number in range(8)]
    for name in names:
        Actor(host, name)
    syslog = host.Syslog()
    host.KernelLog()
    lofter = host.StartLofter("--init", "--parallel")
    meeting.Expect(8)
    meeting.LetGo()
    assert lofter.Finish().status == 0
    assert not [text for text in syslog.Texts(ERROR) if "meet" in text]
    activated = re.findall(r"Lofter plugin (\S+) activated\.", host.Read("/dev/kmsg"))
    assert sorted(activated) == names


# The program that runs them.

def test_a_missing_executor_is_reported_for_every_operation(host):
    Actor(host, "return 0")
    host.Path(EXECUTOR).unlink()
    Boot(host).ExpectFailed("return 0", "failed to spawn: No such file or directory")


def test_an_executor_that_may_not_be_executed_is_reported(host):
    Actor(host, "return 0")
    host.Write(EXECUTOR, host.Path(EXECUTOR).read_bytes(), 0o644)
    Boot(host).ExpectFailed("return 0", "failed to spawn: Permission denied")


# Objects that are no plugins.

def test_objects_that_cannot_be_loaded_are_left_out_with_the_loaders_reason(host):
    plugin = (FIXTURES / "barriers.so").read_bytes()
    host.Plugin("text.so", "This is a text, and as a text it is quite long enough to hold what an object's header would hold.")
    host.Plugin("empty.so", "")
    host.Plugin("foreign.so", plugin[:18] + b"\x16\x00" + plugin[20:])  # the machine is an s390
    host.Plugin("unresolved_data.so", (FIXTURES / "unresolved_data.so").read_bytes())
    host.Path(f"{PLUGINS}/directory.so").mkdir()
    host.Path(f"{PLUGINS}/dangling.so").symlink_to("nowhere")
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


def test_an_object_without_a_symbol_or_of_an_unknown_version_is_left_out(host):
    for name in ("no_operations", "no_metadata", "version0", "version5"):
        host.Plugin(f"{name}.so", (FIXTURES / f"{name}.so").read_bytes())
    boot = Boot(host)
    for symbol in ("operations", "metadata"):
        path = f"{PLUGINS}/no_{symbol}.so"
        assert f"exception occurred whilst loading plugin no_{symbol}.so: Failed loading symbol: {symbol} " \
            f"Located at: {path} Reason: {path}: undefined symbol: {symbol}" in boot.warnings
    for name in ("version0", "version5"):
        assert f"exception occurred whilst loading plugin {name}.so: " \
            f"plugin `{PLUGINS}/{name}.so' is invalid: Unsupported API version" in boot.warnings


def test_a_function_that_is_missing_shows_when_the_operation_runs(host):
    host.Plugin("unresolved_function.so", (FIXTURES / "unresolved_function.so").read_bytes())
    boot = Boot(host)
    boot.ExpectFailed("unresolved_function", "exited with code 125")
    assert f"nativeExecutor: plugin unresolved_function: {PLUGINS}/unresolved_function.so: undefined symbol: " \
        "nobody_has_this_function\n" in boot.outcome.errors


def test_null_lists_are_empty_lists(host):
    host.Plugin("null_lists.so", (FIXTURES / "null_lists.so").read_bytes())
    Boot(host).ExpectActivated("null_lists")


# The worked examples.

def test_the_inventory_is_taken_after_hello(host):
    Example(host, "inventory", "hello")
    boot = Boot(host)
    boot.ExpectActivated("inventory")
    assert "hello from a native plugin\n" in boot.outcome.output
    assert boot.kernel.index("Lofter plugin hello activated.") < boot.kernel.index("Activating Lofter plugin inventory.")
    system = os.uname()
    assert host.Read("/run/inventory") == f"kernel {system.release}\nmachine {system.machine}\n"


def test_an_exception_of_the_inventory_ends_as_an_exit_code(host):
    Example(host, "inventory")
    host.Path("/run/inventory").mkdir()
    boot = Boot(host)
    boot.ExpectFailed("inventory", "exited with code 1")
    assert "\ninventory: " in "\n" + boot.outcome.errors


def test_the_identity_is_drawn_once(host):
    Example(host, "identity")
    Boot(host).ExpectActivated("identity")
    identity = host.Read("/etc/host-identity")
    assert re.fullmatch(r"[0-9a-f]{32}\n", identity)
    assert "identity1.0" in host.ReadGzip("/bootbank/loftsave.gz")


def test_the_identity_is_kept_when_the_host_boots_for_rescue(host):
    Example(host, "identity")
    boot = Boot(host, "--plugin-flags=rescue")
    assert "ignoring plugin 'identity', disabled due to boot flags: rescue ." in boot.warnings
    assert not host.Exists("/etc/host-identity")


@pytest.mark.parametrize("profile, banner", [(None, "Welcome\n"), ("<profile>\n  <banner>Staff only</banner>\n", "Staff only\n")])
def test_the_banner_is_the_host_profiles_when_there_is_one(host, profile, banner):
    Example(host, "banner")
    if profile is not None:
        host.Write("/etc/tessel/hostprofile.xml", profile)
    Boot(host).ExpectActivated("banner")
    assert host.Read("/run/banner") == banner


def test_a_host_profile_without_a_banner_fails_the_operation_for_it(host):
    Example(host, "banner")
    host.Write("/etc/tessel/hostprofile.xml", "<profile/>\n")
    Boot(host).ExpectFailed("banner", "exited with code 1", "apply_host_profile")


def test_the_demo_host_runs_the_examples(demo_host):
    boot = demo_host.Lofter("--init", grace=0)  # the host's daemons stay
    assert boot.status == 0
    assert demo_host.Read("/run/banner") == "Welcome\n"
    assert demo_host.Exists("/run/inventory")
    assert demo_host.Exists("/etc/host-identity")
    assert "hello from a native plugin\n" in boot.output
