"""JSON plugins in a boot: what they run, in which order, and what is reported of files that are none."""
import json
from collections.abc import Sequence

import pytest

from lofterdev.host import Host, Outcome
from lofterdev.syslog import ERROR, INFO, WARNING

COMMANDS = "/usr/lib/tessel/qorcli"


def document(start: Sequence[object] = (), requires: Sequence[object] = (), provides: Sequence[object] = (), version: float | str = 1,
             profile: Sequence[object] | None = None, **metadata: object) -> str:
    operations = {"start": list(start)}
    if profile is not None:
        operations["apply_host_profile"] = list(profile)
    return json.dumps({"metadata": {"version": version, "requires": list(requires), "provides": list(provides), **metadata},
                       "operations": operations})


def loading(name: str, reason: str) -> str:
    return (f"exception occurred whilst loading plugin {name}.json: "
            f"plugin `/usr/libexec/lofter/plugins/{name}.json' is invalid: {reason}")


@pytest.fixture
def recorder(host: Host) -> Host:
    """The command `note --text=...` adds a line to /tmp/notes; `fail` fails."""
    host.kernel_log()
    host.write_script(f"{COMMANDS}/note", 'echo "${1#--text=}" >>/tmp/notes')
    host.write_script(f"{COMMANDS}/fail", "echo the reason >&2; exit 3")
    return host


def read_notes(host: Host) -> list[str]:
    return host.read("/tmp/notes").splitlines() if host.exists("/tmp/notes") else []


def boot(host: Host, *arguments: str, **settings: int) -> Outcome:
    settings.setdefault("grace", 10)
    outcome = host.lofter(*arguments, **settings)
    assert (outcome.status, outcome.leftovers) == (0, [])
    return outcome


def test_commands_run_in_file_order_through_the_executor(recorder: Host) -> None:
    recorder.plugin("net.json", document(["note --text=one", "note --text='two  words'", "note --text=one"]))
    syslog = recorder.syslog()
    boot(recorder)
    assert read_notes(recorder) == ["one", "two  words", "one"]
    assert syslog.texts(ERROR) == []


def test_a_file_with_very_many_members_does_not_hold_up_the_boot(recorder: Host) -> None:
    many = ",".join(f'"{number}": {{}}' for number in range(100_000))
    recorder.plugin("net.json", f'{{{many}, {document(["note --text=ran"])[1:]}')
    boot(recorder, timeout=30)
    assert read_notes(recorder) == ["ran"]


def test_a_failing_command_is_reported_and_the_others_run(recorder: Host) -> None:
    recorder.plugin("net.json", document(["note --text=a", "fail", "note --text=c"]))
    syslog = recorder.syslog()
    boot(recorder)
    assert read_notes(recorder) == ["a", "c"]
    assert syslog.texts(ERROR) == [
        "execution of 'fail' failed : the reason",
        "Executor failed executing qorcli command: fail",
        "Method invocation failed: net->start() failed: error while executing the cli",
    ]


def test_plugins_that_wait_for_a_failed_one_run(recorder: Host) -> None:
    recorder.plugin("first.json", document(["fail"], provides=["ready"]))
    recorder.plugin("second.json", document(["note --text=second"], requires=["ready"]))
    boot(recorder)
    assert read_notes(recorder) == ["second"]


def test_host_profile_commands_run_on_a_host_that_has_a_profile(recorder: Host) -> None:
    recorder.plugin("net.json", document(["note --text=start"], version=2, profile=["note --text=profile"]))
    recorder.plugin("old.json", document(["note --text=old"], version=1, profile=["note --text=never"]))
    recorder.write("/etc/tessel/hostprofile.xml", "<profile/>")
    boot(recorder)
    assert sorted(read_notes(recorder)) == ["old", "profile"]


def test_a_failing_host_profile_command_is_reported_by_that_method(recorder: Host) -> None:
    recorder.plugin("net.json", document(["note --text=start"], version=2, profile=["note --text=a", "fail", "note --text=c"]))
    recorder.write("/etc/tessel/hostprofile.xml", "<profile/>")
    syslog = recorder.syslog()
    boot(recorder)
    assert read_notes(recorder) == ["a", "c"]
    assert syslog.texts(ERROR)[-1] == "Method invocation failed: net->apply_host_profile() failed: error while executing the cli"


def test_invoking_the_host_profile_method_of_version_1_says_that_there_is_none(recorder: Host) -> None:
    recorder.plugin("old.json", document(["note --text=old"], version=1, profile=["note --text=never"]))
    syslog = recorder.syslog()
    boot(recorder, "--invoke", "--plugin=old.json", "--method=apply_host_profile")
    assert read_notes(recorder) == []
    assert "unable to invoke method 'apply_host_profile' on plugin 'old': " \
           "method `json_plugin::ApplyHostProfile' is not implemented" in syslog.texts(ERROR)


def test_flags_and_run_once_of_version_3(recorder: Host) -> None:
    recorder.plugin("once.json", document(["note --text=once"], version=3, run_once=True, plugin_version="1.0"))
    recorder.plugin("flagged.json", document(["note --text=flagged"], version=3, run_once=False, plugin_version="",
                                             required_flags=["extra"]))
    recorder.plugin("quiet.json", document(["note --text=quiet"], version=3, run_once=False, plugin_version="",
                                           disabling_flags=["extra"]))
    boot(recorder, "--plugin-flags=extra")
    assert sorted(read_notes(recorder)) == ["flagged", "once"]
    assert "once1.0" in recorder.read_gzip("/bootbank/loftsave.gz")


def test_the_demo_host_runs_its_json_plugins(demo_host: Host) -> None:
    syslog_path = "/var/log/syslog.log"
    outcome = demo_host.lofter("--init", grace=0)
    assert outcome.status == 0
    assert demo_host.read("/etc/motd") == "This host was configured by lofter.\n"
    assert demo_host.read("/etc/hostname") == "lofter-demo\n"
    assert demo_host.read("/run/demo/report") == (
        "name: lofter-demo\ndomain: demo.example\nmotd: This host was configured by lofter.\nasked by: lofter\n")
    assert "greeting1.0" in demo_host.read_gzip("/bootbank/loftsave.gz")
    assert "there is no device /dev/disk/by-label/scratch" in outcome.output + demo_host.read("/var/log/lofter-qorcli-stdout.log")
    assert "scratch->start() failed: error while executing the cli" in outcome.output
    assert demo_host.exists(syslog_path)


BAD: dict[str, tuple[str | bytes, str]] = {
    "root": ("[]", "plugin root is not an object"),
    "empty": ("", "plugin root is not an object"),
    "mark": (b"\xef\xbb\xbf" + document().encode(), "plugin root is not an object"),
    "utf8": (b'{"x": "\xff", ' + document().encode()[1:], "plugin root is not an object"),
    "twice": ('{"metadata": {}, ' + document()[1:], "plugin root is not an object"),
    "after": (document() + " x", "plugin root is not an object"),
    "nul": (document() + "\0", "plugin root is not an object"),
    "deep": ("[" * 100_000, "plugin root is not an object"),
    "deepobject": ('{"a":' * 100_000 + "1" + "}" * 100_000, "invalid metadata interface"),
    "huge": ("x" * 50_000_000, "plugin root is not an object"),
    "zero": (document(version=0.5), "Unsupported API version"),
    "minus": (document().replace('"version": 1', '"version": -0.0'), "Unsupported API version"),
    "large": (document(version=1e300), "Unsupported API version"),
    "tiny": (document().replace('"version": 1', '"version": 1e-400'), "Unsupported API version"),
    "text": (document(version="3"), "metadata is corrupt (unable to parse version)"),
    "tags": (document(requires=["a", 7]), "requires tag is not a string"),
    "metadata": ('{"metadata": {"version": 1, "requires": [], "provides": []}}', "invalid operations interface"),
    "once": (document(version=3), "metadata is corrupt (unable to parse run_once)"),
    "command": (document([7]), "command is not a string"),
    "profile": (document(version=2, profile=[]).replace('"apply_host_profile": []', '"apply_host_profile": 1'),
                "operations is corrupt (unable to parse apply-host-profile)"),
}


def test_files_that_are_no_plugins_are_reported_and_left_out(recorder: Host) -> None:
    for name, (content, _) in BAD.items():
        recorder.plugin(f"{name}.json", content)
    recorder.plugin("good.json", "// a comment\n" + document(["note --text=good"]) + "/* and one more */")
    syslog = recorder.syslog()
    boot(recorder, timeout=120)
    assert read_notes(recorder) == ["good"]
    assert sorted(syslog.texts(WARNING)) == sorted(loading(name, reason) for name, (_, reason) in BAD.items())


def test_a_file_of_50_megabytes_is_loaded(recorder: Host) -> None:
    recorder.plugin("long.json", document(["note --text=long"], comment="x" * 50_000_000))
    boot(recorder, timeout=180)
    assert read_notes(recorder) == ["long"]


def test_a_version_with_a_fraction_is_truncated(recorder: Host) -> None:
    recorder.plugin("net.json", document(["note --text=start"], version=2.7, profile=["note --text=profile"], run_once=True))
    recorder.write("/etc/tessel/hostprofile.xml", "<profile/>")
    boot(recorder)
    assert read_notes(recorder) == ["profile"]
    assert not recorder.exists("/bootbank/loftsave.gz") or "net" not in recorder.read_gzip("/bootbank/loftsave.gz")


def test_what_is_no_file_does_not_hold_up_the_boot(recorder: Host) -> None:
    plugins = recorder.path("/usr/libexec/lofter/plugins")
    (plugins / "folder.json").mkdir()
    (plugins / "gone.json").symlink_to("nowhere")
    recorder.run("mkfifo", "/usr/libexec/lofter/plugins/pipe.json")
    syslog = recorder.syslog()
    boot(recorder)
    assert sorted(syslog.texts(WARNING)) == [
        loading("folder", "plugin root is not an object"),
        loading("gone", "no such file or directory"),
        loading("pipe", "plugin root is not an object"),
    ]


def test_200_plugins_on_4_threads_run_every_command_exactly_once_in_barrier_order(recorder: Host) -> None:
    # Ten chains of twenty plugins.
    for chain in range(10):
        for link in range(20):
            recorder.plugin(f"p{chain}-{link}.json", document(
                [f"note --text={chain}.{link}.a", f"note --text={chain}.{link}.b"],
                requires=[f"b{chain}-{link - 1}"] if link else [], provides=[f"b{chain}-{link}"]))
    syslog = recorder.syslog()
    boot(recorder, "--parallel", timeout=180)
    notes = read_notes(recorder)
    expected = [f"{chain}.{link}.{part}" for chain in range(10) for link in range(20) for part in "ab"]
    assert sorted(notes) == sorted(expected)
    for chain in range(10):
        mine = [note for note in notes if note.startswith(f"{chain}.")]
        assert mine == [note for note in expected if note.startswith(f"{chain}.")]
    assert syslog.texts(ERROR) == []
    assert "Setting up Executor - Reset Requested" in syslog.texts(INFO)
