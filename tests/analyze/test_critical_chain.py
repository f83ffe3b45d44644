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


def test_the_chain_ends_at_the_last_plugin_to_end(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    result = analyze("--root", make_host(tmp_path, BOOT), "critical-chain")
    assert result.status == 0
    assert result.errors == ""
    assert result.output == """\
start  duration   gap  plugin  waited for  in the gap
  1ms      10ms   1ms  hw
 25ms      20ms  14ms  net     disk        fs
 46ms      44ms   1ms  web     link        ntp
The last plugin ended at 90ms. No number of threads beats 74ms:
  hw, net, web
"""


def test_the_chain_may_end_at_a_given_plugin(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    answer = analyze("--root", make_host(tmp_path, BOOT), "critical-chain", "ntp", "--format=json").answer
    assert faults(answer) == []
    assert answer == {
        "schema": "lofter-analyze/1", "command": "critical-chain", "makespan_us": 90000, "floor_us": 74000,
        "chain": [
            {"plugin": "hw", "start_us": 1000, "duration_us": 10000, "gap_us": 1000, "via": None, "filled_by": []},
            {"plugin": "net", "start_us": 25000, "duration_us": 20000, "gap_us": 14000, "via": "disk", "filled_by": ["fs"]},
            {"plugin": "ntp", "start_us": 45100, "duration_us": 900, "gap_us": 100, "via": "link", "filled_by": []},
        ],
        "floor_chain": ["hw", "net", "web"],
    }


def test_of_what_filled_a_gap_the_first_few_are_shown(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    boot = "\n".join(f"p{number}: ran {number}000 {number + 1}000" for number in range(1, 6)) + "\n last: ran 6000 99000"
    result = analyze("--root", make_host(tmp_path, boot), "critical-chain")
    assert result.output == """\
start  duration  gap  plugin  waited for  in the gap
  6ms      93ms  6ms  last                p1, p2, p3 and 2 more
The last plugin ended at 99ms. No number of threads beats 93ms:
  last
"""


def test_a_plugin_that_is_unknown_or_did_not_run_has_no_chain(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    root = make_host(tmp_path, BOOT)
    result = analyze("--root", root, "critical-chain", "never")
    assert (result.status, result.output, result.errors) == (4, "", 'lofter-analyze: critical-chain: plugin "never" did not run\n')
    result = analyze("--root", root, "critical-chain", "no\nsuch")
    assert (result.status, result.output, result.errors) == (4, "", 'lofter-analyze: critical-chain: there is no plugin "no\\x0asuch"\n')


def test_without_a_log_there_is_no_chain(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    result = analyze("--root", make_host(tmp_path, "hw: provides disk"), "critical-chain")
    assert (result.status, result.output) == (4, "")
    assert result.errors == "lofter-analyze: critical-chain: there is no profiling log of this boot\n"
