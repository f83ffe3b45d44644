import pathlib

import pytest

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


@pytest.fixture
def root(tmp_path: pathlib.Path) -> pathlib.Path:
    return make_host(tmp_path, BOOT)


def predicted(analyze: Analyze, root: pathlib.Path, *options: str) -> int:
    result = analyze("--root", root, "whatif", "--format=json", *options)
    assert result.status == 0, result.errors
    assert faults(result.answer) == []
    assert (result.answer["measured_us"], result.answer["modelled_us"]) == (90000, 89900)
    return result.answer["predicted_us"]


def test_the_prediction_stands_beside_the_measured_and_the_modelled_length(analyze: Analyze, root: pathlib.Path) -> None:
    result = analyze("--root", root, "whatif", "--threads=2", "--set=net=1ms")
    assert result.status == 0
    assert result.errors == ""
    assert result.output == """\
boot       ends at
measured      90ms
modelled    89.9ms  100us sooner than measured (0.1 %)
predicted     69ms  20.9ms sooner than modelled (23.2 %)
"""
    assert analyze("--root", root, "whatif").output == """\
boot       ends at
measured      90ms
modelled    89.9ms  100us sooner than measured (0.1 %)
predicted   89.9ms  as modelled
"""


def test_plugins_may_be_away_or_take_another_time(analyze: Analyze, root: pathlib.Path) -> None:
    assert predicted(analyze, root, "--without=net") == 69900
    assert predicted(analyze, root, "--without=net", "--without", "fs") == 55900
    assert predicted(analyze, root, "--set=web=1s") == 1045900
    assert predicted(analyze, root, "--set=web=0us", "--set", "fs=15ms") == 46900
    assert predicted(analyze, root, "--set=hw=900us") == 80800


def test_waits_may_be_added_and_dropped(analyze: Analyze, root: pathlib.Path) -> None:
    assert predicted(analyze, root, "--threads=2") == 75000
    assert predicted(analyze, root, "--threads=2", "--add=fs:net") == 89000
    assert predicted(analyze, root, "--threads=2", "--drop=net:web") == 69000
    assert predicted(analyze, root, "--threads=2", "--drop=net:web", "--drop=hw:fs") == 59000


def test_a_dropped_wait_keeps_the_other_providers(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    boot = "slow: provides x ran 0 9000\n quick: provides x ran 9000 10000\n user: requires x ran 10000 11000"
    answer = analyze("--root", make_host(tmp_path, boot), "whatif", "--threads=3", "--drop=slow:user", "--set=quick=4ms", "--set=slow=5ms",
                     "--set=user=3ms", "--format=json").answer
    assert answer["predicted_us"] == 7000


def test_names_may_have_colons_and_equals_signs(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    root = make_host(tmp_path, "a=b: ran 0 1000\n c: ran 1000 3000")
    assert analyze("--root", root, "whatif", "--set=a=b=5ms", "--format=json").answer["predicted_us"] == 7000
    dump = tmp_path / "dump.dot"
    dump.write_text('digraph g {\n1 [label="a:b"];\n2 [label="c:d"];\n}\n')
    log = tmp_path / "log"
    log.write_text((root / "var/log/sysboot.log").read_text().replace(": a=b", ": a:b").replace(": c\n", ": c:d\n"))
    result = analyze("--graph", dump, "--log", log, "whatif", "--threads=2", "--add=a:b:c:d", "--format=json")
    assert (result.status, result.errors) == (0, "")
    assert result.answer["predicted_us"] == 3000


def test_the_rank_says_what_each_plugin_and_more_threads_would_bring(analyze: Analyze, root: pathlib.Path) -> None:
    result = analyze("--root", root, "whatif", "--rank")
    assert result.output == """\
boot       ends at
measured      90ms
modelled    89.9ms  100us sooner than measured (0.1 %)
predicted   89.9ms  as modelled

 gain  if this took no time
 44ms  web
 20ms  net
 14ms  fs
 10ms  hw
900us  ntp

threads  ends at
      2     75ms  14.9ms sooner than predicted (16.6 %)
"""
    answer = analyze("--root", root, "whatif", "--rank", "--threads=2", "--format=json").answer
    assert faults(answer) == []
    assert answer["rank"] == [{"plugin": "web", "gain_us": 43100}, {"plugin": "hw", "gain_us": 10000}, {"plugin": "net", "gain_us": 6000},
                              {"plugin": "fs", "gain_us": 0}, {"plugin": "ntp", "gain_us": 0}]
    assert answer["threads"] == []
    assert analyze("--root", root, "whatif", "--rank", "--threads=2").output.endswith("\nMore threads bring nothing.\n")


@pytest.mark.parametrize("option, message", [
    ("--add=web:hw", "--add web:hw closes a loop"),
    ("--add=web:web", "--add web:web closes a loop"),
    ("--drop=web:hw", "--drop web:hw: there is no such wait"),
    ("--drop=web", "--drop takes two plugins, A:B: web"),
    ("--add=web", "--add takes two plugins, A:B: web"),
    ("--set=web", "--set takes a plugin and a duration, P=20ms: web"),
    ("--set=web=20", "--set takes a plugin and a duration, P=20ms: web=20"),
])
def test_what_makes_no_sense_is_wrong_usage(analyze: Analyze, root: pathlib.Path, option: str, message: str) -> None:
    result = analyze("--root", root, "whatif", option)
    assert (result.status, result.output, result.errors) == (2, "", f"lofter-analyze: whatif: {message}\n")


@pytest.mark.parametrize("option", ["--without=nope", "--set=nope=1ms", "--add=nope:web", "--add=web:nope", "--drop=nope:web"])
def test_an_unknown_plugin_has_no_answer(analyze: Analyze, root: pathlib.Path, option: str) -> None:
    result = analyze("--root", root, "whatif", option)
    assert (result.status, result.output, result.errors) == (4, "", 'lofter-analyze: whatif: there is no plugin "nope"\n')


def test_two_waits_that_close_a_loop_together_are_wrong_usage(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    root = make_host(tmp_path, "a: ran 0 1\n b: ran 1 2")
    assert analyze("--root", root, "whatif", "--add=a:b").status == 0
    result = analyze("--root", root, "whatif", "--add=a:b", "--add=b:a")
    assert (result.status, result.output) == (2, "")
    assert analyze("--root", root, "whatif", "--add=a:b", "--add=b:a", "--without=a").status == 0


def test_without_a_log_there_is_nothing_to_compare_with(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    result = analyze("--root", make_host(tmp_path, "hw: provides disk"), "whatif")
    assert (result.status, result.output) == (4, "")
    assert result.errors == "lofter-analyze: whatif: there is no profiling log of this boot\n"
