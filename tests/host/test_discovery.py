"""Which plugins a host has: what lies in the plugin directory, what the debug configuration adds, and what is left out."""
import json
import os
import pathlib
import re
from collections.abc import Callable, Sequence
from typing import Any

import pytest

from lofterdev.host import Host

PLUGINS = "/usr/libexec/lofter/plugins"
CONFIGURATION = "/etc/tessel/lofter/debug.conf"
PROFILE = "/var/log/sysboot.log"
TRACE = "/run/trace"


class Boot:
    """A run from its beginning to its end: its log, and the plugins that it had and activated."""

    def __init__(self, host: Host, *arguments: str, status: int = 0, **settings: bool) -> None:
        host.kernel_log()
        self.host = host
        self.outcome = host.lofter(*(arguments or ("--init",)), **settings)
        assert (self.outcome.status, self.outcome.leftovers) == (status, [])
        host.restart()
        records = re.split(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} (?=\w+ lofter: )", self.outcome.output)
        self.log = [record.replace(" lofter: ", " ", 1).rstrip("\n") for record in records[1:]]
        self.warnings = [record[8:] for record in self.log if record.startswith("warning ")]
        self.ignored = [record for record in self.log if re.match(r"\w+ (ignoring|skipping) ", record)]
        matches = [re.fullmatch(r"<6>lofter: Lofter plugin (.*) activated\.", line, re.DOTALL) for line in host.kernel_lines()]
        self.activated = [match.group(1) for match in matches if match]

    def profiled(self) -> list[str]:
        return re.findall(r"^\[.{26} - .{26}\] sysboot: (.*)$", self.host.read(PROFILE), re.MULTILINE)


def json_plugin(host: Host, file_name: str, requires: Sequence[str] = (), provides: Sequence[str] = (), **metadata: Any) -> None:
    """A plugin without commands; members of the metadata by their names."""
    complete = {"version": 3, "requires": list(requires), "provides": list(provides), "run_once": False, "plugin_version": "",
                **metadata}
    host.plugin(file_name, json.dumps({"metadata": complete, "operations": {"start": []}}))


def saved_plugins(host: Host) -> str:
    return host.read_gzip("/bootbank/loftsave.gz")


# File names.

@pytest.mark.parametrize("name, kind", [
    ("notes.txt", "txt"), ("ends.", ""), ("a.b.json5", "json5"), ("upper.SO", "SO"), ("upper.JSON", "JSON"), (".hidden", "hidden"),
    ("per%scent.n%n", "n%n"), ("it's \"quoted\".x y", "x y"), ("größe.ü", "ü"), ("two\nlines.t", "t")])
def test_a_file_of_another_kind_is_left_out_with_its_type(host: Host, name: str, kind: str) -> None:
    host.plugin(name, "")
    assert Boot(host).ignored == [f"warning ignoring plugin '{name}' of unknown type ({kind})..."]


@pytest.mark.parametrize("name", ["README", "no extension", "50%s"])
def test_a_file_without_extension_is_left_out(host: Host, name: str) -> None:
    host.plugin(name, "")
    assert Boot(host).ignored == [f"warning ignoring plugin '{name}' of unspecified type..."]


def test_directories_and_other_things_are_told_by_their_names_too(host: Host) -> None:
    for name in ("sub", "sub.d"):
        host.path(f"{PLUGINS}/{name}").mkdir()
    os.mkfifo(host.path(f"{PLUGINS}/pipe.fifo"))
    host.path(f"{PLUGINS}/broken.lnk").symlink_to("/no/such")
    json_plugin(host, "sub/inner.json")
    boot = Boot(host)
    assert sorted(boot.ignored) == [
        "warning ignoring plugin 'broken.lnk' of unknown type (lnk)...", "warning ignoring plugin 'pipe.fifo' of unknown type (fifo)...",
        "warning ignoring plugin 'sub' of unspecified type...", "warning ignoring plugin 'sub.d' of unknown type (d)..."]
    assert boot.activated == []


@pytest.mark.parametrize("file_name, name", [("net.json", "net"), ("libnet.json", "net"), ("a.b.json", "a.b"), ("liblib.json", "lib"),
                                            ("lib.json", ""), (".json", ""), ("grün 100%s.json", "grün 100%s")])
def test_a_plugin_is_named_by_its_file(host: Host, file_name: str, name: str) -> None:
    json_plugin(host, file_name)
    boot = Boot(host)
    assert boot.activated == [name]
    assert boot.profiled() == [name]
    assert f"info executing start plugin: {name}".rstrip() in [line.rstrip() for line in boot.log]


# Lists of plugins.

def test_a_list_loads_nothing_but_what_it_names(host: Host) -> None:
    json_plugin(host, "net.json")
    json_plugin(host, "disk.json")
    host.debug_configuration("debug:::true")
    host.plugin("notes.txt", "")
    boot = Boot(host, "--init", "--plugin=net.json")
    assert (boot.activated, boot.ignored) == (["net"], [])


def test_a_list_is_in_its_own_order_and_may_name_things_twice(host: Host) -> None:
    host.debug_configuration("a:::true", "b:::true", "a:::true")
    for arguments in (["--plugin=b.debug,liba.debug,,b.debug"], ["--plugin=b.debug", "--plugin=a.debug,b.debug"]):
        assert Boot(host, *arguments).profiled() == ["b", "a", "a", "b"]


@pytest.mark.parametrize("listed, complaint", [
    ("net", "warning ignoring plugin 'net' of unspecified type..."),
    (" net.json ", "warning ignoring plugin ' net.json ' of unknown type (json )..."),
    ("unknown.debug", None),
])
def test_a_list_names_files_with_their_extensions(host: Host, listed: str, complaint: str | None) -> None:
    json_plugin(host, "net.json")
    boot = Boot(host, f"--plugin={listed}")
    assert boot.activated == []
    assert boot.ignored == [complaint] * bool(complaint)


def test_a_listed_file_that_is_missing_costs_a_warning(host: Host) -> None:
    boot = Boot(host, "--plugin=missing.json,missing.so")
    assert [line.split(":")[0] for line in boot.warnings if "whilst loading" in line] == [
        "exception occurred whilst loading plugin missing.json", "exception occurred whilst loading plugin missing.so"]


def test_a_listed_name_is_below_the_plugin_directory_whatever_it_begins_with(host: Host) -> None:
    json_plugin(host, "inner.json")
    host.path("/elsewhere.json").write_bytes(host.path(f"{PLUGINS}/inner.json").read_bytes())
    boot = Boot(host, "--plugin=/inner.json,/elsewhere.json")
    assert boot.activated == ["/inner"]
    assert [f"plugin `{PLUGINS}/elsewhere.json'" in line for line in boot.warnings if "whilst loading" in line] == [True]


def test_debug_plugins_come_last_and_those_of_a_file_at_its_place(host: Host) -> None:
    host.debug_configuration("a:::true", "b:::true")
    host.plugin("b.debug", "")
    json_plugin(host, "net.json")
    profiled = Boot(host).profiled()
    assert sorted(profiled[:2]) == ["b", "net"] and profiled[2:] == ["a", "b"]


# Filters.

def test_a_disabled_plugin_is_named_by_its_name_and_holds_up_nobody(host: Host) -> None:
    json_plugin(host, "libnet.json", provides=["network"])
    json_plugin(host, "user.json", requires=["network"])
    boot = Boot(host, "--init", "--disable-plugins=net")
    assert boot.activated == ["user"]
    assert boot.ignored == ["info ignoring plugin 'net' due to blacklist."]
    assert not [line for line in boot.log if "dependency error" in line]
    assert sorted(Boot(host, "--disable-plugins=libnet.json,net.json,libnet").activated) == ["net", "user"]


def test_debug_plugins_are_not_subject_to_filters(host: Host) -> None:
    host.debug_configuration("a:::true")
    host.plugin("a.debug", "")
    assert Boot(host, "--disable-plugins=a", "--plugin-flags=x").activated == ["a", "a"]


DISABLED = "warning ignoring plugin 'p', disabled due to boot flags: {}."
MISSING = "warning ignoring plugin 'p', disabled due to missing required boot flags: {}."


@pytest.mark.parametrize("required, disabling, flags, complaints", [
    ([], ["x"], "x,y", [DISABLED.format("x ")]),
    ([], ["z", "y", "x"], "x,y,w", [DISABLED.format("x y ")]),
    (["b", "a"], [], "a", [MISSING.format("b ")]),
    (["b", "a"], [], "c", [MISSING.format("a b ")]),
    (["a"], ["x"], "x", [DISABLED.format("x "), MISSING.format("a ")]),
    (["a"], ["x"], "a", []),
    (["a", "b"], [], "b,a,c", []),
    ([], [], "x", []),
], ids=str)
def test_boot_flags_decide_and_holds_up_nobody(host: Host, required: list[str], disabling: list[str], flags: str,
                                                  complaints: list[str]) -> None:
    json_plugin(host, "p.json", provides=["network"], required_flags=required, disabling_flags=disabling)
    json_plugin(host, "user.json", requires=["network"])
    boot = Boot(host, "--init", "--plugin-flags=gone", f"--plugin-flags={flags}")
    assert boot.ignored == complaints
    assert sorted(boot.activated) == (["user"] if complaints else ["p", "user"])
    assert not [line for line in boot.log if "dependency error" in line]


def test_a_plugin_that_runs_once_is_recorded_by_a_boot_and_left_out_of_an_invocation(host: Host) -> None:
    json_plugin(host, "net.json", provides=["network"], run_once=True, plugin_version="1.0")
    json_plugin(host, "user.json", requires=["network"])
    boot = Boot(host)
    assert sorted(boot.activated) == ["net", "user"]
    assert saved_plugins(host) == "lofter.run-once=net1.0,\n"

    invoke = ["--invoke", "--method=start", "--plugin=net.json,user.json"]
    boot = Boot(host, *invoke)
    assert boot.activated == ["user"]
    assert boot.ignored == ["info ignoring plugin 'net' because version '1.0'  has already been run."]
    assert saved_plugins(host) == "lofter.run-once=net1.0,\n"

    # A boot does not read the record: the plugin runs again, unless its key comes from the command line.
    assert sorted(Boot(host).activated) == ["net", "user"]
    assert Boot(host, "--init", "--run-once=net1.0").activated == ["user"]
    assert Boot(host, "--init", "--run-once=net1.0").profiled() != []  # it stays in the list


def test_a_key_with_characters_that_a_record_cannot_hold_is_never_recognised(host: Host) -> None:
    json_plugin(host, "net.json", run_once=True, plugin_version="1.0 beta,ü")
    invoke = ["--invoke", "--method=start", "--plugin=net.json"]
    for _ in range(2):
        assert Boot(host, *invoke).activated == ["net"]
        assert saved_plugins(host) == "lofter.run-once=net1.0beta,\n"


def test_a_plugin_that_fails_to_load_does_not_hold_up_those_behind_it(host: Host) -> None:
    host.plugin("broken.json", json.dumps({"metadata": {"version": 1, "requires": ["power"], "provides": ["network"]}}))
    json_plugin(host, "user.json", requires=["network"])
    boot = Boot(host)
    assert [line for line in boot.warnings if "whilst loading plugin broken.json" in line]
    assert boot.activated == ["user"]
    # What it would have provided counts as provided.
    assert not [line for line in boot.log if '"network" is not provided' in line]


# Plugin directories that are none.

def loop(path: pathlib.Path) -> None:
    path.symlink_to(path.name)


@pytest.mark.parametrize("make, reason", [
    (lambda path: None, "No such file or directory"), (lambda path: path.touch(), "Not a directory"),
    (lambda path: path.mkdir(mode=0o300), "Permission denied"), (loop, "Too many levels of symbolic links")],
    ids=["missing", "a file", "not readable", "a loop of links"])
def test_a_plugin_directory_that_cannot_be_read_costs_the_plugins(host: Host, make: Callable[[pathlib.Path], object], reason: str) -> None:
    make(host.path("/usr/lib/other"))
    host.debug_configuration("a:::true")
    boot = Boot(host, "--plugin-directory=/usr/lib/other", status=1, heed_modes=True)
    details, = [line for line in boot.log if line.startswith("error unhandled exception whilst enumerating plugins.\nDetails:\n ")]
    assert reason in details and "/usr/lib/other" in details
    assert boot.activated == [] and boot.profiled() == []


# The debug configuration.

def test_a_host_without_debug_configuration_has_no_debug_plugins_and_no_complaint(host: Host) -> None:
    boot = Boot(host)
    assert (boot.activated, boot.ignored) == ([], [])


def test_a_debug_configuration_that_is_a_directory_counts_as_none(host: Host) -> None:
    host.path(CONFIGURATION).mkdir(parents=True)
    boot = Boot(host)
    assert (boot.activated, boot.ignored) == ([], [])


@pytest.mark.parametrize("make", [os.mkfifo, lambda path: path.symlink_to("/dev/zero")], ids=["pipe", "endless device"])
def test_a_debug_configuration_that_never_ends_counts_as_none(host: Host, make: Callable[[pathlib.Path], object]) -> None:
    host.path(CONFIGURATION).parent.mkdir(parents=True, exist_ok=True)
    make(host.path(CONFIGURATION))
    boot = Boot(host)
    assert (boot.activated, boot.ignored) == ([], [])


def test_a_debug_configuration_that_cannot_be_read_counts_as_none(host: Host) -> None:
    host.write(CONFIGURATION, "a:::true\n", 0)
    boot = Boot(host, "--init", heed_modes=True)
    assert (boot.activated, boot.ignored) == ([], [])


def test_lines_that_do_not_fit_are_reported_and_the_others_used(host: Host) -> None:
    host.write(CONFIGURATION, "\n  \t\na:::true\nthree:fields:only\n  five:::echo:more  \n\\c:::x\nb:::true\nend:::\\\n")
    boot = Boot(host)
    assert boot.activated == ["a", "b"]
    malformed = "ignoring malformed debug entry at line"
    assert boot.ignored[:2] == [f"info {malformed} 4: three:fields:only", f"info {malformed} 5: five:::echo:more"]
    assert boot.ignored[2:] == ["warning skipping debug entry at line 6: \\c:::x (unknown escape sequence)",
                                "warning skipping debug entry at line 8: end:::\\ (cannot end with escape)"]


def test_complaints_about_lines_are_repeated_for_every_file(host: Host) -> None:
    host.debug_configuration("bad")
    for name in ("a.txt", "b.debug", "c"):
        host.plugin(name, "")
    assert Boot(host).log.count("info ignoring malformed debug entry at line 1: bad") == 3  # a scan, and two with a dot


@pytest.mark.parametrize("line, name, command", [
    ("plain:::echo x >{}", "plain", "x"),
    (" edges : : :echo x >{} ", "edges ", "x"),
    ("quoted:::\"echo a:b >{}\"", "quoted", "a:b"),
    ("escaped:::echo a\\:b >{}", "escaped", "a:b"),
    ("'it:is':::echo x >{}", "it:is", "x"),
    ("\\\"q\\\":::echo \\'x y\\' >{}", "\"q\"", "x y"),
    ("100%s%n:::echo %d >{}", "100%s%n", "%d"),
    ("größe – 目:::echo ü >{}", "größe – 目", "ü"),
    ("unterminated:::\"echo a:b >{}", "unterminated", "a:b"),
    ("lines:::echo a\\necho b >{}", "lines", "b"),
    (":::echo x >{}", "", "x"),
], ids=str)
def test_names_and_commands_may_hold_anything(host: Host, line: str, name: str, command: str) -> None:
    host.debug_configuration(line.format(TRACE))
    boot = Boot(host)
    assert boot.activated == [name]
    assert boot.profiled() == [name]
    assert host.read(TRACE) == f"{command}\n"


def test_barrier_names_are_lists_with_quotes_of_their_own(host: Host) -> None:
    host.debug_configuration(r"last: \"one, 100%s\",two : : true", r"first: : \"one, 100%s\" : true", r"second: : two,: true")
    assert host.lofter("--dump-dependency-tree=/run/dump").status == 0
    # A separator at the end is followed by one more name, which is empty.
    assert re.findall(r'label="(.*)" shape=box', host.read("/run/dump")) == ["", "one, 100%s", "two"]


@pytest.mark.parametrize("content", ["a:::true\nb:::true", "a:::true\r\nb:::true\r\n", "\n\na:::true\n\r\nb:::true\n\n"],
                         ids=["no final newline", "line ends of another system", "blank lines"])
def test_line_ends_do_not_matter(host: Host, content: str) -> None:
    host.write(CONFIGURATION, content)
    boot = Boot(host)
    assert (boot.activated, boot.ignored) == (["a", "b"], [])
    assert not [line for line in boot.log if "returned" in line]


def test_nul_bytes_cost_only_what_they_stand_in(host: Host) -> None:
    host.write(CONFIGURATION, b"a:::true\n\0\0\0\nb\0c:::true\nd:::true\0 false\ne:::true\n")
    boot = Boot(host)
    assert boot.activated == ["a", "b", "d", "e"]
    assert boot.ignored == ["info ignoring malformed debug entry at line 2: "]
    assert boot.profiled() == ["a", "b\0c", "d", "e"]


def test_a_line_of_ten_megabytes_costs_only_itself(host: Host) -> None:
    host.write(CONFIGURATION, "a:::true\n" + "x" * 300_000 + "\nlong:::true " + "z" * 10_000_000 + "\nc:::true\n")
    syslog = host.syslog()
    boot = Boot(host)
    assert boot.activated == ["a", "long", "c"]
    assert [line for line in boot.log if "returned" in line] == ["info debug injection 'long' returned 0x007f00"]
    assert [line[:60] for line in boot.ignored][0].startswith("info ignoring malformed debug entry at line 2: xxx")
    assert "executing start plugin: c" in syslog.texts()  # the log goes on after a line that no socket takes


@pytest.mark.parametrize("command, status", [("exit 1", "0x000100"), ("exit 255", "0x00ff00"), ("kill -9 $$", "0x000009"),
                                             ("no-such-command", "0x007f00")])
def test_a_command_that_fails_is_logged_with_its_wait_status(host: Host, command: str, status: str) -> None:
    host.debug_configuration(f"it's 100%s:::{command}".replace("'", "\\'"))
    boot = Boot(host)
    assert [line for line in boot.log if "returned" in line] == [f"info debug injection 'it's 100%s' returned {status}"]
    assert boot.activated == ["it's 100%s"]


def test_a_host_without_a_shell_logs_every_command(host: Host) -> None:
    host.debug_configuration("a:::true", "b:::true")
    host.path("/usr/bin/sh").unlink()
    boot = Boot(host)
    assert [line for line in boot.log if "returned" in line] == [
        f"info debug injection '{name}' returned 0x007f00" for name in ("a", "b")]


# Other methods.

@pytest.mark.parametrize("method", ["stop", "restart", "100%s"])
def test_a_method_that_is_none_counts_as_done_and_calls_nothing(host: Host, method: str) -> None:
    host.debug_configuration(f"a:::echo x >{TRACE}")
    boot = Boot(host, "--invoke", f"--method={method}", "--plugin=a.debug")
    assert boot.activated == ["a"]
    assert not [line for line in boot.log if "executing" in line]
    assert not host.exists(TRACE)


def test_a_method_without_invocation_is_called_in_a_boot(host: Host) -> None:
    host.debug_configuration(f"a:::echo x >{TRACE}")
    assert Boot(host, "--init", "--method=start").activated == ["a"]
    assert host.read(TRACE) == "x\n"


def test_a_plugin_without_the_method_is_a_failure_of_its_own(host: Host) -> None:
    host.debug_configuration("a:::true")
    host.kernel_log()
    outcome = host.lofter("--invoke", "--method=apply_host_profile", "--plugin=a.debug")
    assert outcome.status == 0
    assert host.kernel_lines()[-1].endswith("Lofter plugin a activation failed: Method invocation failed")
    assert [line for line in outcome.log() if line.startswith("error ")][0].startswith(
        "error unable to invoke method 'apply_host_profile' on plugin 'a': ")
    assert "info executing host profile plugin: a" in outcome.log()


def test_trace_reports_the_beginning_and_the_end_of_every_plugin_with_its_time(host: Host) -> None:
    host.debug_configuration("a:::sleep 0.05", "b:::false")
    boot = Boot(host, "--init", "--trace")
    traced = [line for line in boot.log if "execution of plugin" in line]
    assert [re.sub(r"\d+ us", "N us", line) for line in traced] == [
        line for name in ("a", "b") for line in (f"info starting execution of plugin: {name}",
                                                 f"info completed execution of plugin: {name} (took N us)")]
    assert int(re.search(r"took (\d+) us", traced[1]).group(1)) >= 50_000


# Host profiles.

@pytest.mark.parametrize("files, change, operation", [
    ([], "true", "start"),
    (["hostprofile.xml"], "true", "host profile"),
    (["hostprofile.xml.gz"], "true", "host profile"),
    (["hostprofile.xml", "hostprofile.xml.gz"], "true", "host profile"),
    ([], "touch /etc/tessel/hostprofile.xml", "start"),
    (["hostprofile.xml"], "rm /etc/tessel/hostprofile.xml", "host profile"),
], ids=["none", "plain", "compressed", "both", "none at first", "one at first"])
def test_whether_there_is_a_host_profile_is_looked_up_once(host: Host, files: list[str], change: str, operation: str) -> None:
    for name in files:
        host.write(f"/etc/tessel/{name}", "")
    host.write_script("/usr/lib/tessel/qorcli/ok", "true")

    def taking_part(name: str, requires: list[str], provides: list[str]) -> None:
        host.plugin(f"{name}.json", json.dumps({"metadata": {"version": 2, "requires": requires, "provides": provides},
                                                "operations": {"start": [], "apply_host_profile": ["ok"]}}))
    taking_part("before", [], ["one"])
    taking_part("after", ["two"], ["three"])
    host.debug_configuration(f"change:one:two:{change}", "last:three::true")
    boot = Boot(host)
    assert [line for line in boot.log if " executing " in line] == [
        f"info executing {operation} plugin: before", "info executing start plugin: change",
        f"info executing {operation} plugin: after", "info executing start plugin: last"]
    assert boot.activated == ["before", "change", "after", "last"]
