import pathlib

import pytest

from answers import faults
from companion import Analyze
from hosts import make_host

HOST = """
    hw: provides bus
    disk: requires bus provides store
    net: requires bus provides link
    web: requires link store
    mail: requires store
    a: requires y provides x
    b: requires x provides y
    c: requires y
"""
CAPTURE = """\
[    0.000000] Linux version 6.1.0
[    2.000000] lofter: Activating Lofter plugin hw.
[    2.100000] lofter: Lofter plugin hw activated.
[    2.100100] lofter: Activating Lofter plugin net.
[    2.200000] lofter: Lofter plugin net activation failed: net->start() failed: exit status 1
[    2.200100] lofter: Activating Lofter plugin disk.
"""


@pytest.fixture
def root(tmp_path: pathlib.Path) -> pathlib.Path:
    return make_host(tmp_path, HOST)


def test_what_runs_failed_and_waits_is_told(analyze: Analyze, root: pathlib.Path, tmp_path: pathlib.Path) -> None:
    (tmp_path / "console").write_text(CAPTURE)
    result = analyze("--root", root, "stuck", "console")
    assert (result.status, result.errors) == (1, "")
    assert result.output == """\
running  holds up
disk     2 plugins

failed  reason
net     net->start() failed: exit status 1

holds up  waiting for each other
1 plugin  a -[x]-> b -[y]-> a

waiting  for
a        y; behind a, b
b        x; behind a, b
c        y; behind a, b
mail     store; behind disk
web      store; behind disk

1 running, 1 failed, 5 waiting, 1 cycle
"""


def test_the_answer_for_programs_has_the_same(analyze: Analyze, root: pathlib.Path) -> None:
    answer = analyze("--root", root, "stuck", "-", "--format=json", stdin=CAPTURE).answer
    assert faults(answer) == []
    assert answer == {"schema": "lofter-analyze/1", "command": "stuck", "running": ["disk"],
                      "failed": [{"plugin": "net", "reason": "net->start() failed: exit status 1"}],
                      "waiting": [{"plugin": "a", "for": ["y"], "held_by": ["a", "b"]}, {"plugin": "b", "for": ["x"], "held_by": ["a", "b"]},
                                  {"plugin": "c", "for": ["y"], "held_by": ["a", "b"]},
                                  {"plugin": "mail", "for": ["store"], "held_by": ["disk"]},
                                  {"plugin": "web", "for": ["store"], "held_by": ["disk"]}],
                      "cycles": [["a", "b"]]}


def test_failures_alone_hold_up_nothing(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    result = analyze("--root", make_host(tmp_path, "hw: provides bus\n net: requires bus"), "stuck", "-", stdin="""\
lofter: Activating Lofter plugin hw.
lofter: Lofter plugin hw activation failed: \x07
lofter: Activating Lofter plugin net.
lofter: Lofter plugin net activated.
""")
    assert result.status == 0
    assert result.output == """\
failed  reason
hw      \\x07

nothing is stuck: 0 running, 1 failed, 0 waiting, 0 cycles
"""


def test_lofter_s_own_log_is_enough_for_a_serial_boot(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    root = make_host(tmp_path, "hw: provides bus\n clock:\n net: requires bus provides link\n web: requires link")
    log = "\n".join(f"Nov 21 20:41:10 host lofter: executing start plugin: {name}" for name in ("clock", "hw", "net"))
    answer = analyze("--root", root, "stuck", "-", "--format=json", stdin=log).answer
    assert answer["running"] == ["net"]
    answer = analyze("--root", root, "stuck", "-", "--format=json", "--parallel", stdin=log).answer
    assert answer["running"] == ["net", "clock"]  # without a word about its end, it may still run
    assert answer["waiting"] == [{"plugin": "web", "for": ["link"], "held_by": ["net"]}]


def test_what_waits_for_a_thread_only_is_not_listed(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    root = make_host(tmp_path, "busy:\n ready: provides done\n behind: requires done")
    answer = analyze("--root", root, "stuck", "-", "--format=json", stdin="lofter: Activating Lofter plugin busy.\n").answer
    assert (answer["running"], answer["waiting"]) == (["busy"], [])


def test_a_dump_is_enough_of_a_host(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    (tmp_path / "tree.dot").write_text('digraph g {\n1 [label="hw"];\n1 -> 3;\n2 [label="net"];\n3 [label="bus" shape=box];\n3 -> 2;\n}\n')
    answer = analyze("--graph=tree.dot", "stuck", "-", "--format=json", stdin=CAPTURE.splitlines(keepends=True)[1]).answer
    assert answer["waiting"] == [{"plugin": "net", "for": ["bus"], "held_by": ["hw"]}]


def test_plugins_that_the_host_does_not_have_are_told(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    result = analyze("--root", make_host(tmp_path, "hw:"), "stuck", "-", stdin=CAPTURE)
    assert result.status == 1
    assert result.errors == ("lofter-analyze: warning: standard input: the capture has plugins that are not known otherwise, or kept out by "
                             "these options: 'net', 'disk'\n")
    assert "disk     0 plugins\n" in result.output


def test_a_text_without_a_boot_is_no_answer(analyze: Analyze, root: pathlib.Path) -> None:
    result = analyze("--root", root, "stuck", "-", stdin="hello\n")
    assert (result.status, result.output, result.errors) == (4, "", "lofter-analyze: stuck: no plugin begins in standard input\n")
    result = analyze("--root", root, "stuck", "missing")
    assert (result.status, result.output, result.errors) == (3, "", "lofter-analyze: missing: No such file or directory\n")
    result = analyze("--root", root, "stuck")
    assert (result.status, result.errors) == (2, "lofter-analyze: FILE is required\n")
