import pathlib

from answers import faults
from companion import Analyze
from hosts import make_host, profiling_log

BOOT = """
    hw: provides disk ran 100000 300000
    net: requires disk provides link ran 300000 1000000
    web: requires link nobody ran 1000000 1250000
    never: requires disk provides unused
"""


def test_where_the_time_went_is_said_without_a_command(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    result = analyze("--root", make_host(tmp_path, BOOT))
    assert (result.status, result.errors) == (0, "")
    assert result.output == """\
 time  where it went
   2s  kernel, until lofter began
100ms  lofter, before the first plugin
1.15s  plugins
500us  lofter, after the last plugin

 time  slowest plugins
700ms  net
250ms  web
200ms  hw

critical chain: hw -> net -> web
plugins: 3 ran, 1 did not run, 0 kept out
findings: 0 errors, 1 warning, 1 note
"""
    assert analyze("summary", "--root", tmp_path / "root").output == result.output


def test_the_answer_for_programs_has_the_same(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    answer = analyze("--root", make_host(tmp_path, BOOT), "--format=json").answer
    assert faults(answer) == []
    assert answer == {"schema": "lofter-analyze/1", "command": "summary", "kernel_us": 2000000, "before_us": 100000, "plugins_us": 1150000,
                      "after_us": 500, "ran": 3, "did_not_run": 1,
                      "slowest": [{"plugin": "net", "duration_us": 700000}, {"plugin": "web", "duration_us": 250000},
                                  {"plugin": "hw", "duration_us": 200000}],
                      "chain": ["hw", "net", "web"], "findings": {"errors": 0, "warnings": 1, "notes": 1}}


def test_without_a_log_there_are_no_times(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    root = make_host(tmp_path, "hw: provides disk\n net: requires disk")
    result = analyze("--root", root, "--disable-plugins=net")
    assert (result.status, result.errors) == (0, "")
    assert result.output == """\
There is no profiling log of this boot.

plugins: 1 would run, 1 kept out
findings: 0 errors, 0 warnings, 1 note
"""
    answer = analyze("--root", root, "--format=json").answer
    assert faults(answer) == []
    assert [answer[name] for name in ("kernel_us", "before_us", "plugins_us", "after_us", "ran", "did_not_run", "slowest", "chain")] == \
        [None] * 6 + [[], []]


def test_what_the_options_keep_out_neither_ran_nor_did_not(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    result = analyze("--root", make_host(tmp_path, BOOT), "--disable-plugins=never,web", "--format=json")
    assert result.errors == "lofter-analyze: warning: /var/log/sysboot.log: the log has plugins that these options keep out: 'web'\n"
    assert (result.answer["ran"], result.answer["did_not_run"]) == (2, 0)


def test_no_more_than_five_are_slowest(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    root = make_host(tmp_path, "\n".join(f"p{number}: ran 0 {number}" for number in range(1, 8)))
    assert [plugin["plugin"] for plugin in analyze("--root", root, "--format=json").answer["slowest"]] == ["p7", "p6", "p5", "p4", "p3"]


def test_a_long_chain_stays_on_one_line(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    plugins = [f"plugin{number:02}: requires b{number} provides b{number + 1} ran {number} {number + 1}" for number in range(20)]
    result = analyze("--root", make_host(tmp_path, "\n".join(plugins)))
    assert "\ncritical chain: plugin00 -> (16 more) -> plugin17 -> plugin18 -> plugin19\n" in result.output
    assert max(map(len, result.output.splitlines())) <= 80


def test_a_boot_in_which_nothing_ran_has_no_chain(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    root = make_host(tmp_path, "hw:")
    (tmp_path / "log").write_text(profiling_log("hw:"))
    result = analyze("--root", root, "--log", "log")
    assert result.output == """\
time  where it went
  2s  kernel, until lofter began
   -  lofter, before the first plugin
   -  plugins
   -  lofter, after the last plugin

plugins: 0 ran, 1 did not run, 0 kept out
findings: 0 errors, 0 warnings, 0 notes
"""


def test_a_log_is_read_from_standard_input(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    root = make_host(tmp_path, BOOT)
    log = root / "var" / "log" / "sysboot.log"
    expected = analyze("--root", root).output
    content = log.read_text()
    log.unlink()
    result = analyze("--root", root, "--log=-", stdin=content + "?\n")
    assert result.output == expected
    assert result.errors == "lofter-analyze: warning: standard input:14: not a line of a profiling log\n"


def test_a_dump_stands_for_a_host_that_is_far_away(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    (tmp_path / "tree.dot").write_text('digraph g {\n1 [label="hw"];\n1 -> 3;\n2 [label="net"];\n3 [label="bus" shape=box];\n3 -> 2;\n3 -> 9;\n}\n')
    (tmp_path / "log").write_text(profiling_log("net: ran 20 50\n hw: ran 0 20\n extra: ran 0 5"))
    result = analyze("--graph=tree.dot", "--log=log", "--format=json")
    assert result.errors == "lofter-analyze: warning: log: the log has plugins that are not known otherwise: 'extra'\n"
    assert (result.answer["chain"], result.answer["ran"], result.answer["did_not_run"]) == (["hw", "net"], 3, 0)
    result = analyze("--graph=tree.dot", "--disable-plugins=hw")
    assert (result.status, result.errors) == (0, "")
    assert "plugins: 1 would run, 2 kept out\n" in result.output


def test_what_cannot_be_asked_of_a_dump_is_said(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    (tmp_path / "tree.dot").write_text('digraph g {\n1 [label="hw"];\n}\n')
    result = analyze("--graph=tree.dot", "--plugin-flags=debug")
    assert result.status == 0
    assert result.errors == \
        "lofter-analyze: warning: tree.dot: --plugin, --plugin-flags and --run-once are those of the dump, whatever is given\n"


def test_inputs_that_cannot_be_read_are_told(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    root = make_host(tmp_path, "hw:")
    for argument, text in (("--log=missing", "missing: No such file or directory"), ("--log=.", ".: Is a directory"),
                           ("--graph=missing", "missing: No such file or directory"),
                           ("--graph=/dev/null", "/dev/null: not a dependency dump")):
        result = analyze("--root", root, argument)
        assert (result.status, result.output, result.errors) == (3, "", f"lofter-analyze: {text}\n")


def test_a_log_without_a_boot_gives_no_times(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    result = analyze("--root", make_host(tmp_path, "hw:"), "--log=/dev/null")
    assert (result.status, result.errors) == (0, "lofter-analyze: warning: /dev/null: holds no boot\n")
    assert result.output.startswith("There is no profiling log of this boot.\n")


def test_the_log_of_a_root_is_not_followed_out_of_it(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    root = make_host(tmp_path, "hw: ran 0 5")
    log = root / "var" / "log" / "sysboot.log"
    log.rename(tmp_path / "outside.log")
    log.symlink_to("../../../../../../../../" + str(tmp_path / "outside.log"))
    assert analyze("--root", root).output.startswith("There is no profiling log of this boot.\n")
    (root / "outside.log").write_text((tmp_path / "outside.log").read_text())
    log.unlink()
    log.symlink_to("../../../../outside.log")
    assert "plugins: 1 ran" in analyze("--root", root).output


def test_what_is_lost_is_warned_of(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    root = make_host(tmp_path, "hw:")
    (root / "usr/libexec/lofter/plugins/bad.json").write_text("{\n]")
    result = analyze("--root", root)
    assert result.status == 0
    assert result.errors.startswith("lofter-analyze: warning: /usr/libexec/lofter/plugins/bad.json:2:1: ")
    assert result.errors.count("\n") == 1
    assert "findings: 1 error, 0 warnings, " in result.output


def test_a_report_for_code_review_is_no_summary(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    result = analyze("--root", make_host(tmp_path, "hw:"), "--format=sarif")
    assert (result.status, result.errors) == (2, "lofter-analyze: summary: its answer has no form for --format=sarif\n")
