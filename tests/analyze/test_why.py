import pathlib

from answers import faults
from companion import Analyze
from hosts import make_host

GRAPH = """
    hw: provides disk bus
    raid: requires bus provides volume
    fs: requires disk provides volume
    data: requires volume nowhere
    beside:
"""


def test_it_says_whom_a_plugin_waits_for_and_who_waits_for_it(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    root = make_host(tmp_path, GRAPH)
    result = analyze("--root", root, "why", "fs")
    assert result.status == 0
    assert result.errors == ""
    assert result.output == """\
plugin      fs
runs        yes
waits for   disk (provided by hw)
in all for  hw
holds up    data
in all      data
"""
    result = analyze("--root", root, "why", "beside")
    assert result.output == """\
plugin      beside
runs        yes
waits for   nothing
in all for  nobody
holds up    nobody
in all      nobody
"""


def test_the_answer_for_programs_lists_them(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    root = make_host(tmp_path, GRAPH)
    answer = analyze("--root", root, "why", "data", "--format=json").answer
    assert faults(answer) == []
    assert answer == {"schema": "lofter-analyze/1", "command": "why", "plugin": "data", "runs": True, "reason": None,
                      "waits_for": ["volume", "nowhere"], "waits_for_all": ["fs", "hw", "raid"], "waited_by": [], "waited_by_all": []}
    answer = analyze("--root", root, "why", "hw", "--format=json").answer
    assert (answer["waited_by"], answer["waited_by_all"]) == (["fs", "raid"], ["data", "fs", "raid"])


def test_of_two_plugins_it_shows_the_shortest_ways_by_names(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    root = make_host(tmp_path, GRAPH)
    result = analyze("--root", root, "why", "hw", "data")
    assert result.status == 0
    assert result.output == """\
data waits for hw:
  hw -[bus]-> raid -[volume]-> data
  hw -[disk]-> fs -[volume]-> data
"""
    answer = analyze("--root", root, "why", "hw", "data", "--format=json").answer
    assert faults(answer) == []
    assert answer["to"] == "data"
    assert answer["ordered"] is True
    assert answer["ways"] == [["hw", "bus", "raid", "volume", "data"], ["hw", "disk", "fs", "volume", "data"]]
    assert "more" not in answer


def test_plugins_may_not_be_ordered_or_the_other_way_round(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    root = make_host(tmp_path, GRAPH)
    assert analyze("--root", root, "why", "hw", "beside").output == "beside does not wait for hw\n"
    assert analyze("--root", root, "why", "data", "hw").output == "hw does not wait for data; data waits for hw\n"
    answer = analyze("--root", root, "why", "data", "hw", "--format=json").answer
    assert faults(answer) == []
    assert (answer["ordered"], answer["ways"]) == (False, [])


def test_at_most_a_hundred_ways_are_shown(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    middles = "\n".join(f"m{number:03}: requires x provides y" for number in range(101))
    root = make_host(tmp_path, f"a: provides x\n z: requires y\n {middles}")
    answer = analyze("--root", root, "why", "a", "z", "--format=json").answer
    assert faults(answer) == []
    assert [way[2] for way in answer["ways"]] == [f"m{number:03}" for number in range(100)]
    assert answer["more"] is True
    assert analyze("--root", root, "why", "a", "z").output.splitlines()[-2:] == ["  a -[x]-> m099 -[y]-> z", "  and more"]


def test_a_plugin_that_is_kept_out_says_by_what(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    root = make_host(tmp_path, GRAPH)
    answer = analyze("--root", root, "--disable-plugins=fs", "why", "fs", "--format=json").answer
    assert faults(answer) == []
    assert answer["runs"] is False
    assert answer["reason"]
    text = analyze("--root", root, "--disable-plugins=fs", "why", "fs").output
    assert text.splitlines()[1] == f"runs        no: {answer['reason']}"
    assert analyze("--root", root, "--disable-plugins=fs", "why", "hw", "fs").output == f"fs does not wait for hw; fs does not run: {answer['reason']}\n"
    assert analyze("--root", root, "--disable-plugins=fs", "why", "hw", "data").output == """\
data waits for hw:
  hw -[bus]-> raid -[volume]-> data
"""


def test_a_plugin_behind_a_loop_does_not_run(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    root = make_host(tmp_path, "a: requires y provides x\n b: requires x provides y z\n behind: requires z")
    answer = analyze("--root", root, "why", "behind", "--format=json").answer
    assert (answer["runs"], answer["reason"]) == (False, "waits for ever: a -[x]-> b -[y]-> a")
    assert answer["waits_for_all"] == ["a", "b"]
    assert analyze("--root", root, "why", "a", "--format=json").answer["waits_for_all"] == ["a", "b"]
    assert analyze("--root", root, "why", "a", "a").output == "a waits for a:\n  a -[x]-> b -[y]-> a\n"


def test_an_unknown_plugin_has_no_answer(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    root = make_host(tmp_path, GRAPH)
    for arguments in (("nope",), ("hw", "nope"), ("nope", "hw")):
        result = analyze("--root", root, "why", *arguments)
        assert (result.status, result.output, result.errors) == (4, "", 'lofter-analyze: why: there is no plugin "nope"\n')
    assert analyze("--root", root, "why").status == 2
    assert analyze("--root", root, "why", "hw", "fs", "data").status == 2


def test_names_cannot_disturb_a_terminal(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    result = analyze("--root", make_host(tmp_path, "evil\x1b[2J: provides x\n good: requires x"), "why", "good")
    assert "in all for  evil\\x1b[2J\n" in result.output
