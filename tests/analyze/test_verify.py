"""verify: every rule with something to say, and without."""
import json
import pathlib
from typing import Any

import pytest

from answers import faults
from companion import Analyze, Result
from hosts import make_host
from roots import OTHER, OTHERS_NUMBER, OWN, PLUGIN_SOURCE, PLUGINS, Root

CLEAN = "0 errors, 0 warnings, 0 notes\n"
ONE_ERROR = "1 error, 0 warnings, 0 notes\n"
ONE_WARNING = "0 errors, 1 warning, 0 notes\n"
ONE_NOTE = "0 errors, 0 warnings, 1 note\n"


@pytest.fixture
def root(tmp_path: pathlib.Path) -> Root:
    return Root(tmp_path / "root")


def verify(analyze: Analyze, *arguments: str) -> Result:
    result = analyze("verify", "--root=root", *arguments)
    assert result.errors == ""
    return result


def says(analyze: Analyze, text: str, *arguments: str) -> None:
    """Whole, and with the right status."""
    result = verify(analyze, *arguments)
    assert result.output == text
    assert result.status == (0 if text.splitlines()[-1].startswith("0 errors") else 1)


# ---- cycle


def test_plugins_that_wait_for_each_other_are_named_in_a_loop(analyze: Analyze, root: Root) -> None:
    root.json("ssh", ["net"], ["disk"])
    root.json("hw", ["disk"], ["net"])
    says(analyze, f"/{PLUGINS}/hw.json: error: wait for each other for ever: hw -[net]-> ssh -[disk]-> hw [cycle]\n" + ONE_ERROR)


def test_a_plugin_that_requires_what_it_provides_waits_for_ever_whoever_else_provides_it(analyze: Analyze, root: Root) -> None:
    root.json("hw", [], ["net"])
    root.json("net", ["net"], ["net"])
    says(analyze, f"/{PLUGINS}/net.json: error: waits for itself for ever: net -[net]-> net [cycle]\n" + ONE_ERROR)


def test_a_chain_is_no_loop_and_neither_is_one_through_a_plugin_that_is_kept_out(analyze: Analyze, root: Root) -> None:
    root.json("hw", ["net"], ["disk"])
    root.json("net", ["disk"], ["net"])
    says(analyze, CLEAN, "--disable-plugins=net", "--disable=kept-out")


# ---- unreadable


@pytest.mark.parametrize(("content", "place", "reason"), [
    ("[]", ":1:1", "plugin root is not an object"),
    ('{\n  "metadata": {,\n', ":2:16", "plugin root is not an object: not valid JSON"),
    ('{"a": 1', ":1:8", "plugin root is not an object: not valid JSON"),
    ("", ":1:1", "plugin root is not an object: not valid JSON"),
    ('{\n "a": {"b\\"": 1, "b\\"": 2}}', ":2:18", 'plugin root is not an object: the member "b"" a second time'),
    ("\ufeff{}", ":1:1", "plugin root is not an object: a byte order mark"),
    ("{\n\0}", ":2:1", "plugin root is not an object: a NUL byte"),
    ("{}", ":1:1", "invalid metadata interface"),
    ('{"metadata":\n 3}', ":2:2", "invalid metadata interface"),
    ('{\n "metadata": {}}', ":2:14", "metadata is corrupt (unable to parse version)"),
    ('{"metadata": {"version": "3"}}', ":1:26", "metadata is corrupt (unable to parse version)"),
    ('{"metadata": {"version": 5}}', ":1:26", "Unsupported API version"),
    ('{"metadata": {"version": 1, "requires": []}}', ":1:14", "metadata is corrupt (unable to parse provides)"),
    ('{"metadata": {"version": 1, "requires": ["é", /* ] */ 7]}}', ":1:55", "requires tag is not a string"),
    ('{"metadata": {"version": 3, "requires": [], "provides": []}}', ":1:14", "metadata is corrupt (unable to parse run_once)"),
    ('{"metadata": {"version": 1, "requires": [], "provides": []}}', ":1:1", "invalid operations interface"),
    ('{"metadata": {"version": 1, "requires": [], "provides": []},\n"operations": {}}', ":2:15", "operations is corrupt (unable to parse start)"),
    ('{"metadata": {"version": 1, "requires": [], "provides": []},\n"operations": {"start": ["a", []]}}', ":2:31", "command is not a string"),
])
def test_a_plugin_file_that_lofter_rejects_is_shown_with_the_place(analyze: Analyze, root: Root, content: str, place: str, reason: str) -> None:
    root.plugin("net.json", content)
    says(analyze, f"/{PLUGINS}/net.json{place}: error: {reason} [unreadable]\n" + ONE_ERROR, "--disable=unknown-member")


def test_a_plugin_file_that_is_not_there_is_unreadable(analyze: Analyze, root: Root) -> None:
    (root.folder(PLUGINS) / "gone.json").symlink_to("nowhere")
    (root.folder(PLUGINS) / "gone.so").symlink_to("nowhere")
    says(analyze, f"/{PLUGINS}/gone.json: error: no such file or directory [unreadable]\n"
                  f"/{PLUGINS}/gone.so: error: cannot open shared object file: No such file or directory [unreadable]\n"
                  "2 errors, 0 warnings, 0 notes\n")


def test_an_object_that_is_none_or_is_cut_off_is_unreadable(analyze: Analyze, root: Root) -> None:
    content = root.object("whole.so").read_bytes()
    root.plugin("empty.so", b"")
    root.plugin("half.so", content[:len(content) // 2])
    root.plugin("text.so", "this is a text, and no object at all: it only has as many bytes as one\n")
    says(analyze, f"/{PLUGINS}/empty.so: error: file too short [unreadable]\n"
                  f"/{PLUGINS}/half.so: error: file too short [unreadable]\n"
                  f"/{PLUGINS}/text.so: error: invalid ELF header [unreadable]\n"
                  "3 errors, 0 warnings, 0 notes\n", "--disable=unused-barrier")


def test_links_lead_where_they_lead_on_the_host_and_never_out_of_it(analyze: Analyze, root: Root, tmp_path: pathlib.Path) -> None:
    root.file("opt/net.json", '{"metadata": {"version": 1, "requires": [], "provides": []}, "operations": {"start": []}}')
    secret = tmp_path / "secret.json"
    secret.write_text("[]")
    folder = root.folder(PLUGINS)
    (folder / "absolute.json").symlink_to("/opt/net.json")
    (folder / "relative.json").symlink_to("../../../../../../../opt/net.json")
    says(analyze, CLEAN)
    (folder / "out.json").symlink_to(secret)
    (folder / "up.json").symlink_to("../../../../../secret.json")
    says(analyze, f"/{PLUGINS}/out.json: error: no such file or directory [unreadable]\n"
                  f"/{PLUGINS}/up.json: error: no such file or directory [unreadable]\n"
                  "2 errors, 0 warnings, 0 notes\n")


# ---- native-interface


NO_METADATA = '#include <lofter/plugin.h>\nconst struct lofter_operations operations;'
NO_OPERATIONS = '#include <lofter/plugin.h>\nconst struct lofter_metadata metadata = {1, 0, 0, 0, 0, 0, 0};'


@pytest.mark.parametrize(("source", "reason"), [
    ("int nothing;", 'the symbol "operations" is missing'),
    (NO_METADATA, 'the symbol "metadata" is missing'),
    (NO_OPERATIONS, 'the symbol "operations" is missing'),
    (NO_OPERATIONS + "\n" + NO_METADATA, "the operation start is missing"),
    (PLUGIN_SOURCE.replace("LOFTER_PLUGIN(", "LOFTER_DEFINE_PLUGIN(5, ").replace("Start, L", "Start, NULL, L")
     .replace('"));', '"), NULL, 0, LOFTER_NONE, LOFTER_NONE);'), "Unsupported API version"),
    ('#include <lofter/plugin.h>\nstatic int Start(void) { return 0; }\nconst struct lofter_operations operations = {Start, 0};'
     "const struct lofter_metadata metadata = {1, (lofter_list)0x123456789, 0, 0, 0, 0, 0};", "the list of required barriers leads out of the file"),
])
def test_an_object_that_is_no_plugin_is_told_of(analyze: Analyze, root: Root, source: str, reason: str) -> None:
    root.object("libnet.so", source)
    says(analyze, f"/{PLUGINS}/libnet.so: error: {reason} [native-interface]\n" + ONE_ERROR)


def test_an_object_that_is_a_plugin_is_fine_and_tied_to_its_barriers(analyze: Analyze, root: Root) -> None:
    root.object("libnet.so")
    root.json("user", ["thing"])
    says(analyze, CLEAN)


# ---- wrong-machine


def test_an_object_for_another_machine_than_the_runner_of_operations_is_told_of(analyze: Analyze, root: Root) -> None:
    runner = root.object("net.so", machine=OTHERS_NUMBER)
    root.file("usr/lib/tessel/lofter/nativeExecutor", root.object("disk.so").read_bytes(), 0o755)
    for name in ("time.so", "void.so"):
        root.plugin(name, runner.read_bytes())
    says(analyze, "".join(f"/{PLUGINS}/{name}.so: error: an object for {OTHER}, and the host's are for {OWN} [wrong-machine]\n"
                          for name in ("net", "time", "void")) + "3 errors, 0 warnings, 0 notes\n", "--disable=unused-barrier")


def test_without_a_runner_most_objects_decide_and_a_tie_decides_nothing(analyze: Analyze, root: Root) -> None:
    root.object("net.so", machine=OTHERS_NUMBER)
    root.object("disk.so")
    says(analyze, CLEAN, "--disable=unused-barrier")
    root.object("time.so", machine=OTHERS_NUMBER)
    says(analyze, f"/{PLUGINS}/disk.so: error: an object for {OWN}, and the host's are for {OTHER} [wrong-machine]\n" + ONE_ERROR,
         "--disable=unused-barrier")


# ---- missing-library


def test_a_needed_library_is_looked_for_where_loaders_look(analyze: Analyze, root: Root) -> None:
    library = root.library("libthing.so.1", "-Wl,-soname,libthing.so.1")
    root.object("net.so", PLUGIN_SOURCE, "-Wl,--no-as-needed", str(library))
    text = f"/{PLUGINS}/net.so: error: the host does not have the library libthing.so.1 [missing-library]\n" + ONE_ERROR
    content = library.read_bytes()
    for folder in ("lib", "usr/lib", "lib64", "usr/lib64", "lib/x86_64-linux-gnu", "usr/lib/aarch64-linux-musl", "opt/lib"):
        library.unlink()
        says(analyze, text, "--disable=unused-barrier")
        library = root.file(f"{folder}/libthing.so.1", content)
        if folder == "opt/lib":
            says(analyze, text, "--disable=unused-barrier")
            root.file("etc/ld.so.conf", "# where they are\ninclude /etc/ld.so.conf.d/*.conf\n")
            root.file("etc/ld.so.conf.d/opt.conf", "/opt/lib\n")
        says(analyze, CLEAN, "--disable=unused-barrier")


def test_a_needed_library_is_found_where_the_object_itself_says(analyze: Analyze, root: Root) -> None:
    library = root.library("libthing.so.1", "-Wl,-soname,libthing.so.1", folder="usr/libexec/lofter/lib")
    link = ("-Wl,--no-as-needed", str(library))
    root.object("net.so", PLUGIN_SOURCE, *link, "-Wl,--enable-new-dtags,-rpath,/nowhere:$ORIGIN/../lib")
    root.object("old.so", PLUGIN_SOURCE, *link, "-Wl,--disable-new-dtags,-rpath,/usr/libexec/lofter/lib")
    says(analyze, CLEAN, "--disable=unused-barrier")


def test_a_library_that_another_library_needs_is_missing_too(analyze: Analyze, root: Root) -> None:
    deep = root.library("libdeep.so", "-Wl,-soname,libdeep.so")
    library = root.library("libthing.so", "-Wl,-soname,libthing.so", "-Wl,--no-as-needed", str(deep))
    root.object("net.so", PLUGIN_SOURCE, "-Wl,--no-as-needed", str(library))
    says(analyze, CLEAN, "--disable=unused-barrier")
    deep.unlink()
    says(analyze, f"/{PLUGINS}/net.so: error: the host does not have the library libdeep.so (for libthing.so) [missing-library]\n" + ONE_ERROR,
         "--disable=unused-barrier")


def test_a_library_for_another_machine_is_none(analyze: Analyze, root: Root) -> None:
    library = root.library("libthing.so.1", "-Wl,-soname,libthing.so.1")
    root.object("net.so", PLUGIN_SOURCE, "-Wl,--no-as-needed", str(library), machine=OTHERS_NUMBER)
    says(analyze, f"/{PLUGINS}/net.so: error: the host does not have the library libthing.so.1 [missing-library]\n" + ONE_ERROR,
         "--disable=unused-barrier")


# ---- host commands


def test_a_command_that_cannot_be_parsed_is_told_of_and_others_are_not(analyze: Analyze, root: Root) -> None:
    root.plugin("net.json", """{
  "metadata": {"version": 2, "requires": [], "provides": []},
  "operations": {
    "start": ["net up", "net 'up", "net --up now --x", "", "net --help 'a b' -x", "stop 'it", "net --option= --x=y"],
    "apply_host_profile": [
      "--apply"
    ]
  }
}
""")
    says(analyze, f"""/{PLUGINS}/net.json:4:25: error: command "net 'up": unterminated quote or backslash [command-syntax]
/{PLUGINS}/net.json:4:36: error: command "net --up now --x": word after the first option: now [command-syntax]
/{PLUGINS}/net.json:4:56: error: command "": empty command [command-syntax]
/{PLUGINS}/net.json:6:7: error: command "--apply": options without a command [command-syntax]
4 errors, 0 warnings, 0 notes
""")


def test_a_command_that_the_host_does_not_have_or_may_not_run_is_told_of(analyze: Analyze, root: Root) -> None:
    text = root.json("net", start=["network ip set --to=1", "network ip get", "network route"]).read_text()
    get, route = (text.index(f'"network {command}"') + 1 for command in ("ip get", "route"))
    says(analyze, CLEAN)
    root.file("usr/lib/tessel/qorcli/network.ip.set", "#!/bin/sh\n", 0o755)
    root.file("usr/lib/tessel/qorcli/ext/network.route", "#!/bin/sh\n", 0o644)
    says(analyze, f"/{PLUGINS}/net.json:1:{get}: warning: unknown command: network ip get [unknown-command]\n"
                  f"/{PLUGINS}/net.json:1:{route}: warning: unknown command: network route (/usr/lib/tessel/qorcli/ext/network.route is not"
                  " executable) [unknown-command]\n0 errors, 2 warnings, 0 notes\n")


# ---- missing-provider, unused-barrier, duplicate-name


def test_a_barrier_without_a_provider_is_told_of_with_who_requires_it(analyze: Analyze, root: Root) -> None:
    root.json("out", ["disk"], disabling_flags=["x"], run_once=False, plugin_version="1", version=3)
    says(analyze, f'/{PLUGINS}/out.json: warning: no plugin provides the barrier "disk", which out requires [missing-provider]\n' + ONE_WARNING)
    says(analyze, CLEAN, "--plugin-flags=x", "--disable=kept-out")
    root.json("hw", [], ["disk"])
    says(analyze, CLEAN)


def test_a_provider_that_is_kept_out_is_one(analyze: Analyze, root: Root) -> None:
    root.json("hw", [], ["disk"])
    root.json("net", ["disk"])
    says(analyze, f"/{PLUGINS}/hw.json: note: does not run: disabled by --disable-plugins [kept-out]\n" + ONE_NOTE, "--disable-plugins=hw")


def test_a_barrier_that_nobody_requires_is_a_note(analyze: Analyze, root: Root) -> None:
    root.json("hw", [], ["disk"])
    says(analyze, f'/{PLUGINS}/hw.json: note: no plugin requires the barrier "disk" [unused-barrier]\n' + ONE_NOTE)


def test_the_later_of_two_plugins_of_one_name_is_told_of(analyze: Analyze, root: Root) -> None:
    root.json("net")
    root.file("etc/tessel/lofter/debug.conf", "other:::true\nnet:::true\n")
    says(analyze, f'/etc/tessel/lofter/debug.conf:2: warning: another plugin is called "net", too: /{PLUGINS}/net.json [duplicate-name]\n'
         + ONE_WARNING)
    says(analyze, CLEAN, "--plugin=net.json")


# ---- debug-line, ignored-file


def test_lines_of_the_debug_configuration_that_lofter_skips_are_told_of(analyze: Analyze, root: Root) -> None:
    root.file("etc/tessel/lofter/debug.conf", "\na:::true\n  # no comment \nb:::\\q\n")
    says(analyze, "/etc/tessel/lofter/debug.conf:3: warning: malformed debug entry: # no comment [debug-line]\n"
                  "/etc/tessel/lofter/debug.conf:4: warning: unknown escape sequence: b:::\\q [debug-line]\n"
                  "0 errors, 2 warnings, 0 notes\n")


def test_files_that_lofter_ignores_are_told_of(analyze: Analyze, root: Root) -> None:
    for name in ("README", "net.json~", "dot.", "used.debug", "unused.debug"):
        root.plugin(name, "")
    root.file("etc/tessel/lofter/debug.conf", "used:::true\n")
    says(analyze, f"""/{PLUGINS}/README: warning: lofter ignores it: unspecified type [ignored-file]
/{PLUGINS}/dot.: warning: lofter ignores it: unknown type () [ignored-file]
/{PLUGINS}/net.json~: warning: lofter ignores it: unknown type (json~) [ignored-file]
/{PLUGINS}/unused.debug: warning: lofter ignores it: no line of the debug configuration has the name unused [ignored-file]
0 errors, 4 warnings, 0 notes
""", "--disable=duplicate-name")


# ---- unknown-member


def test_members_that_lofter_does_not_know_are_told_of_with_the_nearest(analyze: Analyze, root: Root) -> None:
    root.plugin("net.json", """{
  "$schema": "file:///usr/share/lofter/plugin.schema.json",
  "metadat": 1,
  "metadata": {"version": 1, "requires": [], "provides": [], "Provides": [], "prov": 1, "zzz": {"requires": 1},
               "run_once": true},
  "operations": {"start": [], "starting": 1, "apply_host_profile": []}
}
""")
    says(analyze, f"""/{PLUGINS}/net.json:3:3: warning: unknown member "metadat", perhaps "metadata" [unknown-member]
/{PLUGINS}/net.json:4:62: warning: unknown member "Provides", perhaps "provides" [unknown-member]
/{PLUGINS}/net.json:4:78: warning: unknown member "prov", perhaps "provides" [unknown-member]
/{PLUGINS}/net.json:4:89: warning: unknown member "zzz" [unknown-member]
/{PLUGINS}/net.json:5:16: warning: "run_once" is read from version 3 on, and this plugin has version 1 [unknown-member]
/{PLUGINS}/net.json:6:31: warning: unknown member "starting", perhaps "start" [unknown-member]
/{PLUGINS}/net.json:6:46: warning: "apply_host_profile" is read from version 2 on, and this plugin has version 1 [unknown-member]
0 errors, 7 warnings, 0 notes
""")


def test_known_members_are_not_told_of(analyze: Analyze, root: Root) -> None:
    root.plugin("net.json", """{"$schema": 1, "metadata": {"version": 3, "requires": [], "provides": [], "required_flags": [],
        "disabling_flags": [], "run_once": false, "plugin_version": "1"}, "operations": {"start": [], "apply_host_profile": []}}""")
    says(analyze, CLEAN)


def test_a_misspelt_member_explains_why_a_file_is_rejected(analyze: Analyze, root: Root) -> None:
    root.plugin("net.json", '{"metadata": {"version": 1,\n"require": [], "provides": []},\n"operations": {"start": []}}')
    says(analyze, f'/{PLUGINS}/net.json:1:14: error: metadata is corrupt (unable to parse requires) [unreadable]\n'
                  f'/{PLUGINS}/net.json:2:1: warning: unknown member "require", perhaps "requires" [unknown-member]\n'
                  "1 error, 1 warning, 0 notes\n")


# ---- run-once-key, kept-out


def test_a_key_that_the_record_cannot_hold_is_told_of(analyze: Analyze, root: Root) -> None:
    root.json("good", version=3, run_once=True, plugin_version="1.0-a_b+c")
    text = root.json("bad", version=3, run_once=True, plugin_version="1.0 beta").read_text()
    column = text.index('"1.0 beta"') + 1
    root.json("often", version=3, run_once=False, plugin_version="1.0 beta")
    says(analyze, f'/{PLUGINS}/bad.json:1:{column}: warning: runs at every boot: the record cannot hold the key "bad1.0 beta" [run-once-key]\n'
         + ONE_WARNING)


def test_what_keeps_a_plugin_out_is_a_note(analyze: Analyze, root: Root) -> None:
    release: dict[str, Any] = {"version": 3, "run_once": False, "plugin_version": "1.0"}
    root.json("a", **release, disabling_flags=["z", "x", "y"])
    root.json("b", **release, required_flags=["v", "w"])
    root.json("c", **release, disabling_flags=["x"], required_flags=["v"])
    root.json("d", **release)
    root.json("e", **dict(release, run_once=True))
    says(analyze, f"""/{PLUGINS}/a.json: note: does not run: disabled by the boot flags x, y [kept-out]
/{PLUGINS}/b.json: note: does not run: without the boot flag v [kept-out]
/{PLUGINS}/c.json: note: does not run: disabled by the boot flag x, and without the boot flag v [kept-out]
/{PLUGINS}/d.json: note: does not run: disabled by --disable-plugins [kept-out]
/{PLUGINS}/e.json: note: does not run: version 1.0 has already been run [kept-out]
0 errors, 0 warnings, 5 notes
""", "--plugin-flags=x,y,w", "--disable-plugins=d", "--run-once=e1.0")


# ---- unsafe-mode


def test_what_others_than_the_owner_may_write_is_told_of(analyze: Analyze, root: Root) -> None:
    root.json("group").chmod(0o664)
    root.json("others").chmod(0o602)
    root.json("fine").chmod(0o444)
    root.object("both.so").chmod(0o666)
    root.file("etc/tessel/lofter/debug.conf", "").chmod(0o666)
    root.file("usr/lib/tessel/qorcli/net.up", "", 0o775)
    text = f"""/etc/tessel/lofter/debug.conf: warning: its group and others may write this file [unsafe-mode]
/usr/lib/tessel/qorcli/net.up: warning: its group may write this file [unsafe-mode]
/{PLUGINS}/both.so: warning: its group and others may write this file [unsafe-mode]
/{PLUGINS}/group.json: warning: its group may write this file [unsafe-mode]
/{PLUGINS}/others.json: warning: others may write this file [unsafe-mode]
0 errors, 5 warnings, 0 notes
"""
    says(analyze, text, "--disable=unused-barrier")


def test_a_directory_that_others_may_write_is_told_of_once(analyze: Analyze, root: Root) -> None:
    root.json("a")
    root.json("b")
    root.folder(PLUGINS).chmod(0o777)
    root.file("etc/tessel/lofter/debug.conf", "")
    root.folder("etc/tessel/lofter").chmod(0o775)
    root.file("usr/lib/tessel/qorcli/int/net.up", "", 0o755)
    (root.path / "usr/lib/tessel/qorcli/int").chmod(0o757)
    says(analyze, f"""/etc/tessel/lofter: warning: its group may change what is in this directory [unsafe-mode]
/usr/lib/tessel/qorcli/int: warning: others may change what is in this directory [unsafe-mode]
/{PLUGINS}: warning: its group and others may change what is in this directory [unsafe-mode]
0 errors, 3 warnings, 0 notes
""")


# ---- the command itself


def test_findings_fail_from_the_wanted_severity_on(analyze: Analyze, root: Root) -> None:
    root.json("hw", [], ["disk"])
    assert verify(analyze).status == 0
    assert verify(analyze, "--fail-on=warning").status == 0
    assert verify(analyze, "--fail-on=note").status == 1
    assert verify(analyze, "--fail-on=note", "--disable=cycle,unused-barrier").status == 0
    root.json("net", ["nothing"])
    assert verify(analyze).status == 0
    assert verify(analyze, "--fail-on=warning").status == 1


def test_a_rule_that_there_is_not_is_wrong_usage(analyze: Analyze, root: Root) -> None:
    result = analyze("verify", "--root=root", "--disable=cycle,cycles")
    assert (result.status, result.output, result.errors) == (2, "", "lofter-analyze: --disable: there is no rule cycles\n")


def test_a_host_without_a_plugin_directory_is_an_input_that_cannot_be_read(analyze: Analyze, root: Root) -> None:
    (root.path / PLUGINS).rmdir()
    result = analyze("verify", "--root=root")
    assert (result.status, result.errors) == (3, f"lofter-analyze: /{PLUGINS}: No such file or directory\n")
    result = analyze("verify", "--root=nowhere")
    assert (result.status, result.errors) == (3, "lofter-analyze: nowhere: No such file or directory\n")


def test_single_inputs_are_paths_here_and_shown_as_given(analyze: Analyze, root: Root) -> None:
    root.json("hw", [], ["disk"])
    root.file("etc/other.conf", "x\n")
    folder = f"root/{PLUGINS}"
    result = analyze("--plugin-directory", folder, "verify", "--debug-configuration=root/etc/other.conf")
    assert result.output == ("root/etc/other.conf:1: warning: malformed debug entry: x [debug-line]\n"
                             f'{folder}/hw.json: note: no plugin requires the barrier "disk" [unused-barrier]\n0 errors, 1 warning, 1 note\n')
    result = analyze("verify", "--plugin-directory", folder, "--debug-configuration=-", stdin="y\n")
    assert result.output.splitlines()[0] == "-:1: warning: malformed debug entry: y [debug-line]"


def test_names_cannot_disturb_a_terminal(analyze: Analyze, root: Root) -> None:
    root.json("a\x1b[2J\udcff")
    (root.folder(PLUGINS) / "b\x1b[2J\udcff.json").write_text("[]")
    assert verify(analyze).output == f"/{PLUGINS}/b\\x1b[2J\\xff.json:1:1: error: plugin root is not an object [unreadable]\n" + ONE_ERROR
    assert verify(analyze, "--format=json").answer["findings"][0]["file"] == f"/{PLUGINS}/b\x1b[2J\ufffd.json"


def test_the_answer_for_programs_says_the_same(analyze: Analyze, root: Root) -> None:
    root.plugin("net.json", "[]")
    root.json("hw", [], ["disk"])
    answer = verify(analyze, "--format=json").answer
    assert faults(answer) == []
    assert answer == {
        "schema": "lofter-analyze/1", "command": "verify",
        "findings": [
            {"rule": "unused-barrier", "severity": "note", "file": f"/{PLUGINS}/hw.json", "line": None, "column": None, "plugin": "hw",
             "text": 'no plugin requires the barrier "disk"'},
            {"rule": "unreadable", "severity": "error", "file": f"/{PLUGINS}/net.json", "line": 1, "column": 1, "plugin": "net",
             "text": "plugin root is not an object"},
        ],
        "errors": 1, "warnings": 0, "notes": 1}


def test_the_answer_for_code_review_says_the_same(analyze: Analyze, root: Root) -> None:
    root.plugin("a b.json", "[]")
    result = verify(analyze, "--format=sarif")
    assert result.status == 1
    log = json.loads(result.output)
    assert (log["version"], log["$schema"]) == ("2.1.0", "https://json.schemastore.org/sarif-2.1.0.json")
    [run] = log["runs"]
    assert run["results"] == [
        {"ruleId": "unreadable", "level": "error", "message": {"text": "plugin root is not an object"},
         "locations": [{"physicalLocation": {"artifactLocation": {"uri": f"/{PLUGINS}/a%20b.json"}, "region": {"startLine": 1, "startColumn": 1}}}]}]
    driver = run["tool"]["driver"]
    assert driver["name"] == "lofter-analyze"
    assert [rule["id"] for rule in driver["rules"]] == [
        "cycle", "unreadable", "native-interface", "wrong-machine", "missing-library", "command-syntax", "missing-provider", "unknown-command",
        "duplicate-name", "debug-line", "ignored-file", "unknown-member", "run-once-key", "unsafe-mode", "unused-barrier", "kept-out"]


def test_colours_are_for_severities_only(analyze: Analyze, root: Root) -> None:
    root.plugin("net.json", "[]")
    assert verify(analyze, "--color=always").output == (
        f"/{PLUGINS}/net.json:1:1: \x1b[31merror\x1b[0m: plugin root is not an object [unreadable]\n" + ONE_ERROR)


def test_a_host_of_the_other_tests_is_fine(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    make_host(tmp_path, "hw: provides disk\nnet: requires disk")
    says(analyze, CLEAN, "--disable=unsafe-mode")
