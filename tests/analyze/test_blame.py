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
    never: requires link
"""


def test_plugins_are_listed_slowest_first_with_what_they_waited_for(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    result = analyze("--root", make_host(tmp_path, BOOT), "blame")
    assert result.status == 0
    assert result.errors == ""
    assert result.output == """\
duration   start   wait   slack     plugin  waited for
    44ms    46ms    1ms     0us  *  web     link by net
    20ms    25ms   14ms     0us  *  net     disk by hw
    14ms    11ms    0us     6ms     fs      disk by hw
    10ms     1ms    1ms     0us  *  hw
   900us  45.1ms  100us  43.1ms     ntp     link by net
       -       -      -       -     never   (did not run)
* on the critical chain; wait: for a free thread, after what it waited for
"""


def test_the_answer_for_programs_has_every_plugin(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    answer = analyze("--root", make_host(tmp_path, BOOT), "blame", "--format=json").answer
    assert faults(answer) == []
    assert [plugin["plugin"] for plugin in answer["plugins"]] == ["web", "net", "fs", "hw", "ntp", "never"]
    assert answer["plugins"][1] == {"plugin": "net", "start_us": 25000, "duration_us": 20000, "ready_us": 11000, "wait_us": 14000,
                                    "waited_for": "disk", "opened_by": "hw", "slack_us": 0, "critical": True, "ran": True}
    assert answer["plugins"][3] == {"plugin": "hw", "start_us": 1000, "duration_us": 10000, "ready_us": 0, "wait_us": 1000,
                                    "waited_for": None, "opened_by": None, "slack_us": 0, "critical": True, "ran": True}
    assert answer["plugins"][5] == {"plugin": "never", "start_us": None, "duration_us": None, "ready_us": None, "wait_us": None,
                                    "waited_for": None, "opened_by": None, "slack_us": None, "critical": False, "ran": False}


def test_a_plugin_that_the_operator_skipped_opened_its_barriers_at_its_start(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    root = make_host(tmp_path, "asked: provides x ran 5000 5000\n user: requires x ran 7000 9000")
    log = root / "var" / "log" / "sysboot.log"
    log.write_text(log.read_text().replace("- 2026-01-02 03:04:05.005000]", "- 1970-01-01 00:00:00.000000]"))
    result = analyze("--root", root, "blame")
    assert result.output == """\
duration  start  wait  slack     plugin  waited for
     2ms    7ms   2ms    0us  *  user    x by asked
       -    5ms   5ms      -  *  asked   (skipped)
* on the critical chain; wait: for a free thread, after what it waited for
"""


def test_without_a_log_nobody_is_to_blame(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    result = analyze("--root", make_host(tmp_path, "hw: provides disk"), "blame")
    assert (result.status, result.output) == (4, "")
    assert result.errors == "lofter-analyze: blame: there is no profiling log of this boot\n"


def test_a_log_in_which_nothing_ran_answers_nothing(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    root = make_host(tmp_path, "hw: ran 1 2")
    (root / "usr" / "libexec" / "lofter" / "plugins" / "hw.json").unlink()
    log = root / "var" / "log" / "sysboot.log"
    log.write_text("".join(line for line in log.read_text().splitlines(keepends=True) if "sysboot:" not in line))
    result = analyze("--root", root, "blame")
    assert (result.status, result.output) == (4, "")
    assert result.errors == "lofter-analyze: blame: no plugin ran in this boot\n"
