import pathlib

import pytest

from answers import faults
from companion import Analyze
from hosts import profiling_log


@pytest.fixture
def logs(tmp_path: pathlib.Path) -> None:
    (tmp_path / "old").write_text(profiling_log("hw: ran 0 100000\n net: ran 100000 200000\n gone: ran 0 7"))
    (tmp_path / "new").write_text(profiling_log("hw: ran 0 60000\n net: ran 60000 260000\n came: ran 0 9"))


@pytest.mark.usefixtures("logs")
def test_slower_faster_new_and_gone_plugins_are_told(analyze: Analyze) -> None:
    result = analyze("diff", "old", "--", "new")
    assert (result.status, result.errors) == (1, "")
    assert result.output == """\
          old    new  change         plugin
slower  100ms  200ms  +100ms  +100%  net
faster  100ms   60ms   -40ms   -40%  hw
new         -    9us                 came
gone      7us      -                 gone
slower  200ms  260ms   +60ms   +30%  (the boot)
"""


@pytest.mark.usefixtures("logs")
def test_the_answer_for_programs_has_the_same(analyze: Analyze) -> None:
    answer = analyze("--format=json", "diff", "old", "--", "new").answer
    assert faults(answer) == []
    assert answer == {"schema": "lofter-analyze/1", "command": "diff", "boot": {"old_us": 200000, "new_us": 260000, "status": "slower"},
                      "plugins": [{"plugin": "net", "old_us": 100000, "new_us": 200000, "status": "slower"},
                                  {"plugin": "hw", "old_us": 100000, "new_us": 60000, "status": "faster"},
                                  {"plugin": "came", "old_us": None, "new_us": 9, "status": "new"},
                                  {"plugin": "gone", "old_us": 7, "new_us": None, "status": "gone"}],
                      "regressed": True}


@pytest.mark.usefixtures("logs")
def test_the_same_boot_is_no_regression(analyze: Analyze) -> None:
    result = analyze("diff", "old", "--", "old")
    assert result.status == 0
    assert result.output == """\
        old    new  change    plugin
same    7us    7us            gone
same  100ms  100ms            hw
same  100ms  100ms            net
same  200ms  200ms            (the boot)
"""
    assert analyze("diff", "old", "--", "old", "--format=json").status == 3  # behind "--", everything is a file
    assert analyze("diff", "--format=json", "old", "--", "old").answer["regressed"] is False


@pytest.mark.parametrize(("threshold", "status"), [("20%,10ms", 1), ("20,10ms", 1), ("100,100000us", 1), ("100.5%,0us", 0), ("0,101ms", 0),
                                                   ("0%,1s", 0)])
@pytest.mark.usefixtures("logs")
def test_the_threshold_is_the_caller_s(analyze: Analyze, threshold: str, status: int) -> None:
    assert analyze("diff", f"--threshold={threshold}", "old", "--", "new").status == status


@pytest.mark.parametrize("threshold", ["20", "20%", ",", "20,10", "-1,10ms", "20,-10ms", "x%,10ms", "nan,1s", "1e2,1s", "20%,10ms,", "20%,1.5s"])
@pytest.mark.usefixtures("logs")
def test_a_threshold_that_is_none_is_wrong_usage(analyze: Analyze, threshold: str) -> None:
    result = analyze("diff", f"--threshold={threshold}", "old", "--", "new")
    assert (result.status, result.output) == (2, "")
    assert result.errors == f"lofter-analyze: diff: --threshold takes a percentage, a comma and a time, such as 20%,10ms: {threshold}\n"


@pytest.mark.usefixtures("logs")
def test_several_logs_stand_for_their_medians(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    answer = analyze("diff", "--format=json", "old", "new", "--", "new", "old", "old").answer
    assert answer["boot"] == {"old_us": 230000, "new_us": 200000, "status": "same"}
    assert {plugin["plugin"]: (plugin["old_us"], plugin["new_us"]) for plugin in answer["plugins"]} == {
        "hw": (80000, 100000), "net": (150000, 100000), "gone": (7, 7), "came": (9, 9)}


@pytest.mark.parametrize("arguments", [["old", "new"], ["old", "--"], ["--", "new"], ["--"], []])
@pytest.mark.usefixtures("logs")
def test_logs_have_to_stand_on_both_sides(analyze: Analyze, arguments: list[str]) -> None:
    result = analyze("diff", *arguments)
    assert (result.status, result.output) == (2, "")
    assert result.errors == 'lofter-analyze: diff: logs stand before and behind "--": diff OLD... -- NEW...\n'


@pytest.mark.usefixtures("logs")
def test_logs_may_come_from_standard_input(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    result = analyze("diff", "-", "--", "new", stdin=(tmp_path / "old").read_text())
    assert result.output == analyze("diff", "old", "--", "new").output


@pytest.mark.usefixtures("logs")
def test_a_log_without_a_boot_is_no_answer(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    result = analyze("diff", "old", "--", "/dev/null")
    assert (result.status, result.output, result.errors) == (4, "", "lofter-analyze: diff: /dev/null holds no boot\n")
    result = analyze("diff", "missing", "--", "new")
    assert (result.status, result.output, result.errors) == (3, "", "lofter-analyze: missing: No such file or directory\n")


@pytest.mark.usefixtures("logs")
def test_names_cannot_disturb_the_terminal(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    (tmp_path / "odd").write_text(profiling_log("hw: ran 0 100000").replace("hw", "\x1b[2J\u00e9"))
    assert "new         -  100ms                \\x1b[2J\u00e9\n" in analyze("diff", "old", "--", "odd").output
    assert "\x1b[31m" in analyze("--color=always", "diff", "old", "--", "new").output
