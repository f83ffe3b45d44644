import pathlib

from answers import faults
from companion import Analyze
from hosts import make_host

BOOT = """
    hw: provides disk ran 1000 11000
    net: requires disk provides link ran 25000 45000
    fs: requires disk provides mounts ran 11000 25000
    ntp: requires link nowhere ran 45100 46000
    web: requires link mounts ran 46000 90000
"""
GRAPH = """
    hw: provides disk
    net: requires disk provides link
    web: requires link
"""


def test_with_a_log_the_order_has_times(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    result = analyze("--root", make_host(tmp_path, BOOT), "plan")
    assert result.status == 0
    assert result.errors == ""
    assert result.output == """\
 start  duration  depth  kind  plugin  waits for
   1ms      10ms      0  json  hw
  11ms      20ms      1  json  net     disk
  31ms      14ms      1  json  fs      disk
  45ms     900us      2  json  ntp     link, nowhere
45.9ms      44ms      2  json  web     link, mounts
5 plugins, 1 thread: the last plugin would end at 89.9ms
"""


def test_more_threads_run_independent_plugins_at_once(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    result = analyze("plan", "--threads=2", "--root", make_host(tmp_path, BOOT))
    assert result.output == """\
start  duration  depth  kind  plugin  waits for
  1ms      10ms      0  json  hw
 11ms      20ms      1  json  net     disk
 11ms      14ms      1  json  fs      disk
 31ms     900us      2  json  ntp     link, nowhere
 31ms      44ms      2  json  web     link, mounts
5 plugins, 2 threads: the last plugin would end at 75ms
"""


def test_a_parallel_log_has_as_many_threads_as_plugins_ran_at_once(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    boot = "a: ran 0 1000\n b: ran 0 2000\n c: ran 1000 3000"
    answer = analyze("plan", "--format=json", "--root", make_host(tmp_path, boot, parallel=True)).answer
    assert faults(answer) == []
    assert (answer["threads"], answer["makespan_us"]) == (2, 3000)


def test_without_a_log_there_are_no_times(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    root = make_host(tmp_path, GRAPH)
    assert analyze("--root", root, "plan").output == """\
depth  kind  plugin  waits for
    0  json  hw
    1  json  net     disk
    2  json  web     link
3 plugins, 1 thread
"""
    result = analyze("--root", root, "plan", "--format=json")
    assert faults(result.answer) == []
    assert result.answer["threads"] == 1
    assert result.answer["makespan_us"] is None
    assert result.answer["steps"][2] == {"plugin": "web", "kind": "json", "depth": 2, "waits_for": ["link"], "start_us": None, "end_us": None}


def test_without_a_log_parallel_means_that_nobody_waits_for_a_thread(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    root = make_host(tmp_path, GRAPH)
    assert analyze("plan", "--parallel", "--format=json", "--root", root).answer["threads"] == 3
    assert analyze("plan", "--parallel", "--threads", "2", "--format=json", "--root", root).answer["threads"] == 2


def test_plugins_that_are_kept_out_hold_up_nobody(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    result = analyze("plan", "--disable-plugins=net", "--root", make_host(tmp_path, GRAPH))
    assert sorted(result.output.splitlines()) == sorted("""\
depth  kind  plugin  waits for
    0  json  hw
    0  json  web     link
2 plugins, 1 thread
""".splitlines())


def test_plugins_behind_a_loop_are_named_and_not_planned(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    root = make_host(tmp_path, "a: requires y provides x\n b: requires x provides y z\n behind: requires z\n free:")
    result = analyze("plan", "--root", root)
    assert result.status == 0
    first, second, third, fourth = result.output.splitlines()
    assert (first, second, third) == ("depth  kind  plugin  waits for", "    0  json  free", "1 plugin, 1 thread")
    assert sorted(fourth.removeprefix("These wait for ever: ").split(", ")) == ["a", "b", "behind"]
    answer = analyze("plan", "--root", root, "--format=json").answer
    assert faults(answer) == []
    assert sorted(answer["wait_for_ever"]) == ["a", "b", "behind"]


def test_there_is_at_least_one_thread(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    root = make_host(tmp_path, GRAPH)
    for threads in ("0", "-1", "two", ""):
        result = analyze("plan", f"--threads={threads}", "--root", root)
        assert (result.status, result.output) == (2, ""), threads
    assert analyze("plan", "--format=sarif", "--root", root).status == 2
