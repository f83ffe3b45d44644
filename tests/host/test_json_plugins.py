"""JSON plugins in a boot: what they run, in which order, and what is reported of files that are none."""
import json

import pytest

from support.syslog import ERROR, INFO, WARNING

COMMANDS = "/usr/lib/tessel/qorcli"


def Document(start=(), requires=(), provides=(), version=1, profile=None, **metadata):
    operations = {"start": list(start)}
    if profile is not None:
        operations["apply_host_profile"] = list(profile)
    return json.dumps({"metadata": {"version": version, "requires": list(requires), "provides": list(provides), **metadata},
                       "operations": operations})


def Loading(name, reason):
    return (f"exception occurred whilst loading plugin {name}.json: "
            f"plugin `/usr/libexec/lofter/plugins/{name}.json' is invalid: {reason}")


@pytest.fixture
def recorder(host):
    """The command `note --text=...` adds a line to /tmp/notes; `fail` fails."""
    host.KernelLog()
    host.WriteScript(f"{COMMANDS}/note", 'echo "${1#--text=}" >>/tmp/notes')
    host.WriteScript(f"{COMMANDS}/fail", "echo the reason >&2; exit 3")
    return host


def Notes(host):
    return host.Read("/tmp/notes").splitlines() if host.Exists("/tmp/notes") else []


def Boot(host, *arguments, **settings):
    settings.setdefault("grace", 10)
    outcome = host.Lofter(*arguments, **settings)
    assert (outcome.status, outcome.leftovers) == (0, [])
    return outcome


def test_commands_run_in_file_order_through_the_executor(recorder):
    recorder.Plugin("net.json", Document(["note --text=one", "note --text='two  words'", "note --text=one"]))
    syslog = recorder.Syslog()
    Boot(recorder)
    assert Notes(recorder) == ["one", "two  words", "one"]
    assert syslog.Texts(ERROR) == []


def test_a_file_with_very_many_members_does_not_hold_up_the_boot(recorder):
    many = ",".join(f'"{number}": {{}}' for number in range(100_000))
    recorder.Plugin("net.json", f'{{{many}, {Document(["note --text=ran"])[1:]}')
    Boot(recorder, timeout=30)
    assert Notes(recorder) == ["ran"]


def test_a_failing_command_is_reported_and_the_others_run(recorder):
    recorder.Plugin("net.json", Document(["note --text=a", "fail", "note --text=c"]))
    syslog = recorder.Syslog()
    Boot(recorder)
    assert Notes(recorder) == ["a", "c"]
    assert syslog.Texts(ERROR) == [
        "execution of 'fail' failed : the reason",
        "Executor failed executing qorcli command: fail",
        "Method invocation failed: net->start() failed: error while executing the cli",
    ]


def test_plugins_that_wait_for_a_failed_one_run(recorder):
    recorder.Plugin("first.json", Document(["fail"], provides=["ready"]))
    recorder.Plugin("second.json", Document(["note --text=second"], requires=["ready"]))
    Boot(recorder)
    assert Notes(recorder) == ["second"]


def test_host_profile_commands_run_on_a_host_that_has_a_profile(recorder):
    recorder.Plugin("net.json", Document(["note --text=start"], version=2, profile=["note --text=profile"]))
    recorder.Plugin("old.json", Document(["note --text=old"], version=1, profile=["note --text=never"]))
    recorder.Write("/etc/tessel/hostprofile.xml", "<profile/>")
    Boot(recorder)
    assert sorted(Notes(recorder)) == ["old", "profile"]


def test_a_failing_host_profile_command_is_reported_by_that_method(recorder):
    recorder.Plugin("net.json", Document(["note --text=start"], version=2, profile=["note --text=a", "fail", "note --text=c"]))
    recorder.Write("/etc/tessel/hostprofile.xml", "<profile/>")
    syslog = recorder.Syslog()
    Boot(recorder)
    assert Notes(recorder) == ["a", "c"]
    assert syslog.Texts(ERROR)[-1] == "Method invocation failed: net->apply_host_profile() failed: error while executing the cli"


def test_invoking_the_host_profile_method_of_version_1_says_that_there_is_none(recorder):
    recorder.Plugin("old.json", Document(["note --text=old"], version=1, profile=["note --text=never"]))
    syslog = recorder.Syslog()
    Boot(recorder, "--invoke", "--plugin=old.json", "--method=apply_host_profile")
    assert Notes(recorder) == []
    assert "unable to invoke method 'apply_host_profile' on plugin 'old': " \
           "method `json_plugin::ApplyHostProfile' is not implemented" in syslog.Texts(ERROR)


def test_flags_and_run_once_of_version_3(recorder):
    recorder.Plugin("once.json", Document(["note --text=once"], version=3, run_once=True, plugin_version="1.0"))
    recorder.Plugin("flagged.json", Document(["note --text=flagged"], version=3, run_once=False, plugin_version="",
                                             required_flags=["extra"]))
    recorder.Plugin("quiet.json", Document(["note --text=quiet"], version=3, run_once=False, plugin_version="",
                                           disabling_flags=["extra"]))
    Boot(recorder, "--plugin-flags=extra")
    assert sorted(Notes(recorder)) == ["flagged", "once"]
    assert "once1.0" in recorder.ReadGzip("/bootbank/loftsave.gz")


def test_the_demo_host_runs_its_json_plugins(demo_host):
    syslog_path = "/var/log/syslog.log"
    outcome = demo_host.Lofter("--init", grace=0)
    assert outcome.status == 0
    assert demo_host.Read("/etc/motd") == "This host was configured by lofter.\n"
    assert demo_host.Read("/etc/hostname") == "lofter-demo\n"
    assert demo_host.Read("/run/demo/report") == (
        "name: lofter-demo\ndomain: demo.example\nmotd: This host was configured by lofter.\nasked by: lofter\n")
    assert "greeting1.0" in demo_host.ReadGzip("/bootbank/loftsave.gz")
    assert "there is no device /dev/disk/by-label/scratch" in outcome.output + demo_host.Read("/var/log/lofter-qorcli-stdout.log")
    assert "scratch->start() failed: error while executing the cli" in outcome.output
    assert demo_host.Exists(syslog_path)


BAD = {
    "root": ("[]", "plugin root is not an object"),
    "empty": ("", "plugin root is not an object"),
    "mark": (b"\xef\xbb\xbf" + Document().encode(), "plugin root is not an object"),
    "utf8": (b'{"x": "\xff", ' + Document().encode()[1:], "plugin root is not an object"),
    "twice": ('{"metadata": {}, ' + Document()[1:], "plugin root is not an object"),
    "after": (Document() + " x", "plugin root is not an object"),
    "nul": (Document() + "\0", "plugin root is not an object"),
    "deep": ("[" * 100_000, "plugin root is not an object"),
    "deepobject": ('{"a":' * 100_000 + "1" + "}" * 100_000, "invalid metadata interface"),
    "huge": ("x" * 50_000_000, "plugin root is not an object"),
    "zero": (Document(version=0.5), "Unsupported API version"),
    "minus": (Document().replace('"version": 1', '"version": -0.0'), "Unsupported API version"),
    "large": (Document(version=1e300), "Unsupported API version"),
    "tiny": (Document().replace('"version": 1', '"version": 1e-400'), "Unsupported API version"),
    "text": (Document(version="3"), "metadata is corrupt (unable to parse version)"),
    "tags": (Document(requires=["a", 7]), "requires tag is not a string"),
    "metadata": ('{"metadata": {"version": 1, "requires": [], "provides": []}}', "invalid operations interface"),
    "once": (Document(version=3), "metadata is corrupt (unable to parse run_once)"),
    "command": (Document([7]), "command is not a string"),
    "profile": (Document(version=2, profile=[]).replace('"apply_host_profile": []', '"apply_host_profile": 1'),
                "operations is corrupt (unable to parse apply-host-profile)"),
}


def test_files_that_are_no_plugins_are_reported_and_left_out(recorder):
    for name, (content, _) in BAD.items():
        recorder.Plugin(f"{name}.json", content)
    recorder.Plugin("good.json", "// a comment\n" + Document(["note --text=good"]) + "/* and one more */")
    syslog = recorder.Syslog()
    Boot(recorder, timeout=120)
    assert Notes(recorder) == ["good"]
    assert sorted(syslog.Texts(WARNING)) == sorted(Loading(name, reason) for name, (_, reason) in BAD.items())


def test_a_file_of_50_megabytes_is_loaded(recorder):
    recorder.Plugin("long.json", Document(["note --text=long"], comment="x" * 50_000_000))
    Boot(recorder, timeout=180)
    assert Notes(recorder) == ["long"]


def test_a_version_with_a_fraction_is_truncated(recorder):
    recorder.Plugin("net.json", Document(["note --text=start"], version=2.7, profile=["note --text=profile"], run_once=True))
    recorder.Write("/etc/tessel/hostprofile.xml", "<profile/>")
    Boot(recorder)
    assert Notes(recorder) == ["profile"]
    assert not recorder.Exists("/bootbank/loftsave.gz") or "net" not in recorder.ReadGzip("/bootbank/loftsave.gz")


def test_what_is_no_file_does_not_hold_up_the_boot(recorder):
    plugins = recorder.Path("/usr/libexec/lofter/plugins")
    (plugins / "folder.json").mkdir()
    (plugins / "gone.json").symlink_to("nowhere")
    recorder.Run("mkfifo", "/usr/libexec/lofter/plugins/pipe.json")
    syslog = recorder.Syslog()
    Boot(recorder)
    assert sorted(syslog.Texts(WARNING)) == [
        Loading("folder", "plugin root is not an object"),
        Loading("gone", "no such file or directory"),
        Loading("pipe", "plugin root is not an object"),
    ]


def test_200_plugins_on_4_threads_run_every_command_exactly_once_in_barrier_order(recorder):
    # Ten chains of twenty plugins.
    for chain in range(10):
        for link in range(20):
            recorder.Plugin(f"p{chain}-{link}.json", Document(
                [f"note --text={chain}.{link}.a", f"note --text={chain}.{link}.b"],
                requires=[f"b{chain}-{link - 1}"] if link else [], provides=[f"b{chain}-{link}"]))
    syslog = recorder.Syslog()
    Boot(recorder, "--parallel", timeout=180)
    notes = Notes(recorder)
    expected = [f"{chain}.{link}.{part}" for chain in range(10) for link in range(20) for part in "ab"]
    assert sorted(notes) == sorted(expected)
    for chain in range(10):
        mine = [note for note in notes if note.startswith(f"{chain}.")]
        assert mine == [note for note in expected if note.startswith(f"{chain}.")]
    assert syslog.Texts(ERROR) == []
    assert "Setting up Executor - Reset Requested" in syslog.Texts(INFO)
