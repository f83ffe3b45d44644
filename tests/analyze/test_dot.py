"""dot: the graph for people. What it has to look like stands in the unit tests; here, what is chosen, and that it can be drawn."""
import pathlib
import re
import subprocess
import xml.etree.ElementTree as xml

import pytest

from companion import Analyze
from hosts import make_host

HOST = """
    hw: provides hw ran 0 1000
    disk: requires hw provides disk ran 1000 3500
    mounts: requires disk provides mounts ran 3500 4000
    log: requires mounts provides log ran 4000 5000
    net: requires hw nowhere provides net ran 5000 6000
    ntp: requires net log"""
LOOP = """
    a: requires y provides x
    b: requires x provides y z
    c: requires z"""


def labels(dot: str) -> list[str]:
    """The plugins of a graph, and how long each ran."""
    return re.findall(r'^  "plugin [^"]*" \[label="([^"]*)"', dot, re.MULTILINE)


def names(dot: str) -> list[str]:
    return [label.split("\\n")[0] for label in labels(dot)]


def barriers(dot: str) -> list[str]:
    return re.findall(r'^  "barrier [^"]*" \[shape=box, label="([^"]*)"', dot, re.MULTILINE)


def drawn(dot: str) -> list[str]:
    """Every text of the picture that Graphviz makes of it, which it has to make without a complaint."""
    process = subprocess.run(["dot", "-Tsvg"], input=dot.encode(), capture_output=True, timeout=120)
    assert (process.returncode, process.stderr) == (0, b"")
    return [text.text or "" for text in xml.fromstring(process.stdout).iter("{http://www.w3.org/2000/svg}text")]


def test_the_graph_has_names_durations_and_a_legend(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    make_host(tmp_path, HOST)
    result = analyze("dot", "--root=root")
    assert (result.status, result.errors) == (0, "")
    assert labels(result.output) == ["disk\\n2.5ms", "hw\\n1ms", "log\\n1ms", "mounts\\n500us", "net\\n1ms", "ntp\\ndid not run"]
    texts = drawn(result.output)
    assert {"disk", "2.5ms", "did not run", "nowhere", "barrier that nobody provides"} <= set(texts)


def test_the_graph_does_not_change_with_the_order_of_files_or_runs(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    lines = HOST.strip().splitlines()
    graphs = set()
    for number, text in enumerate(("\n".join(lines), "\n".join(reversed(lines)))):
        make_host(tmp_path / str(number), text)
        graphs.add(analyze("dot", f"--root={number}/root").output)
    assert len(graphs) == 1


def test_barriers_become_the_names_of_arrows(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    make_host(tmp_path, HOST)
    result = analyze("dot", "--root=root", "--plugins-only")
    assert '  "plugin hw" -> "plugin net" [label="hw"];\n' in result.output
    assert barriers(result.output) == ["nowhere"]
    drawn(result.output)


@pytest.mark.parametrize(("arguments", "expected"), [
    (["--from=disk"], "disk log mounts ntp"),
    (["--to=log"], "disk hw log mounts"),
    (["--from=disk", "--to=log"], "disk log mounts"),
    (["--around=disk"], "disk hw mounts"),
    (["--around=disk,2"], "disk hw log mounts net"),
    (["--around=disk,0"], "disk"),
    (["--around=disk,2", "--to=net"], "hw net"),
    (["--from=ntp", "--to=hw"], ""),
])
def test_a_part_is_what_all_options_have_in_common(analyze: Analyze, tmp_path: pathlib.Path, arguments: list[str], expected: str) -> None:
    make_host(tmp_path, HOST)
    result = analyze("dot", "--root=root", *arguments)
    assert (result.status, result.errors) == (0, "")
    assert names(result.output) == expected.split()
    drawn(result.output)


def test_a_name_that_ends_like_a_distance_is_a_name_first(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    make_host(tmp_path, "net: provides net\nnet,0: requires net")
    assert names(analyze("dot", "--root=root", "--around=net,0").output) == ["net", "net,0"]
    assert names(analyze("dot", "--root=root", "--around=net,0,0").output) == ["net,0"]


def test_cycles_only_has_what_waits_for_ever(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    make_host(tmp_path, LOOP)
    result = analyze("dot", "--root=root", "--cycles-only")
    assert names(result.output) == ["a", "b"]
    assert barriers(result.output) == ["x", "y"]
    assert "plugins that wait for each other for ever" in drawn(result.output)


def test_a_host_without_cycles_has_an_empty_graph_of_them(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    make_host(tmp_path, HOST)
    result = analyze("dot", "--root=root", "--cycles-only")
    assert (result.status, names(result.output)) == (0, [])
    drawn(result.output)


def test_plugins_that_are_kept_out_are_shown_as_such(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    make_host(tmp_path, "hw: provides hw\nnet: requires hw")
    result = analyze("dot", "--root=root", "--disable-plugins=hw")
    assert labels(result.output) == ["hw\\nkept out", "net"]
    assert "plugin that is kept out: counts as run" in drawn(result.output)


@pytest.mark.parametrize("option", ["--from", "--to", "--around"])
def test_an_unknown_plugin_is_named(analyze: Analyze, tmp_path: pathlib.Path, option: str) -> None:
    make_host(tmp_path, HOST)
    result = analyze("dot", "--root=root", f"{option}=no\x1bbody")
    assert (result.status, result.output) == (4, "")
    assert result.errors == 'lofter-analyze: dot: there is no plugin "no\\x1bbody"\n'


def test_a_distance_has_to_be_a_number(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    make_host(tmp_path, HOST)
    for distance in ("", "x", "-1", "1x", "99999999999999999999"):
        result = analyze("dot", "--root=root", f"--around=net,{distance}")
        assert (result.status, result.output) == (2, "")
        assert result.errors == f"lofter-analyze: dot: --around takes a plugin, or a plugin, a comma and a number: net,{distance}\n"


def test_an_answer_in_another_form_is_wrong_usage(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    make_host(tmp_path, HOST)
    for form in ("json", "sarif"):
        result = analyze("dot", "--root=root", f"--format={form}")
        assert (result.status, result.output) == (2, "")
        assert result.errors == f"lofter-analyze: dot: its answer has no form for --format={form}\n"


def test_names_that_mean_something_to_graphviz_are_drawn_as_they_are(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    make_host(tmp_path, 'a"b\\n&lt;c>: provides {x|y}\nd: requires {x|y}')
    texts = drawn(analyze("dot", "--root=root", "--plugins-only").output)
    assert {'a"b\\n&lt;c>', "{x|y}"} <= set(texts)
