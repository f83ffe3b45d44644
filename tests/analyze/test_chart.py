"""chart: the boot as a picture."""
import json
import pathlib
import xml.etree.ElementTree as xml

from companion import Analyze
from hosts import make_host, profiling_log

SVG = "{http://www.w3.org/2000/svg}"
HOST = """
    hw: provides disk ran 1000 4000
    net: requires disk ran 4500 9000
    ntp: ran 2000 3000"""


def titles(picture: pathlib.Path) -> list[str]:
    """What shows where the pointer rests, from top to bottom."""
    return [group.findtext(f"{SVG}title", "") for group in xml.parse(picture).getroot().iter(f"{SVG}g")
            if group.find(f"{SVG}title") is not None]


def test_a_picture_has_lanes_and_rows(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    make_host(tmp_path, HOST, parallel=True)
    result = analyze("chart", "--root=root", "-o", "boot.svg")
    assert (result.status, result.output, result.errors) == (0, "", "")
    hw = "hw: 3ms\nfrom 1ms to 4ms\nwaited 1ms for a free thread\non the critical chain"
    net = "net: 4.5ms\nfrom 4.5ms to 9ms\nwaited for disk, opened by hw at 4ms\nwaited 500us for a free thread\non the critical chain"
    ntp = "ntp: 1ms\nfrom 2ms to 3ms\nwaited 2ms for a free thread"
    assert titles(tmp_path / "boot.svg") == [hw, net, ntp, hw, ntp, net]


def test_a_picture_needs_nothing_from_elsewhere(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    make_host(tmp_path, HOST)
    assert analyze("chart", "--root=root", "-o", "boot.svg").status == 0
    text = (tmp_path / "boot.svg").read_text()
    assert "href" not in text
    assert "<script" not in text
    assert "url(" not in text


def test_names_in_a_picture_are_no_markup(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    make_host(tmp_path, "<a&\"b'>: ran 0 10")
    assert analyze("chart", "--root=root", "-o", "boot.svg").status == 0
    assert titles(tmp_path / "boot.svg") == ["<a&\"b'>: 10us\nfrom 0us to 10us\non the critical chain"] * 2


def test_events_have_lanes_as_threads(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    make_host(tmp_path, HOST, parallel=True)
    result = analyze("--root=root", "chart", "--output=boot.json")
    assert (result.status, result.output, result.errors) == (0, "", "")
    trace = json.loads((tmp_path / "boot.json").read_text())
    assert trace["displayTimeUnit"] == "ms"
    plugins = [(event["name"], event["ts"], event["dur"], event["tid"]) for event in trace["traceEvents"] if event["ph"] == "X"]
    assert plugins == [("hw", 1000, 3000, 1), ("net", 4500, 4500, 1), ("ntp", 2000, 1000, 2)]


def test_a_picture_replaces_what_was_there(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    make_host(tmp_path, HOST)
    (tmp_path / "boot.json").write_text("x" * 100_000)
    assert analyze("chart", "--root=root", "-o", "boot.json").status == 0
    json.loads((tmp_path / "boot.json").read_text())


def test_without_a_log_there_is_nothing_to_draw(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    make_host(tmp_path, "hw: provides disk")
    result = analyze("chart", "--root=root", "-o", "boot.svg")
    assert (result.status, result.output) == (4, "")
    assert result.errors == "lofter-analyze: chart: there is no profiling log of this boot\n"
    assert not (tmp_path / "boot.svg").exists()


def test_a_log_in_which_no_plugin_ran_is_nothing_to_draw(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    (tmp_path / "dump.log").write_text(profiling_log("hw:\nnet:\nntp:"))
    make_host(tmp_path, HOST)
    result = analyze("chart", "--root=root", "--log=dump.log", "-o", "boot.svg")
    assert (result.status, result.output) == (4, "")
    assert result.errors == "lofter-analyze: chart: no plugin ran in this boot\n"


def test_the_name_says_the_form(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    make_host(tmp_path, HOST)
    result = analyze("chart", "--root=root", "-o", "boot.png")
    assert (result.status, result.output) == (2, "")
    assert result.errors == "lofter-analyze: chart: the file's name has to end in .svg or .json: boot.png\n"


def test_a_file_has_to_be_named(analyze: Analyze) -> None:
    result = analyze("chart")
    assert (result.status, result.output) == (2, "")
    assert result.errors == "lofter-analyze: --output is required\n"


def test_an_answer_in_another_form_is_wrong_usage(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    make_host(tmp_path, HOST)
    for form in ("json", "sarif"):
        result = analyze("chart", "--root=root", "-o", "boot.svg", f"--format={form}")
        assert (result.status, result.output) == (2, "")
        assert result.errors == f"lofter-analyze: chart: its answer has no form for --format={form}\n"


def test_a_file_that_cannot_be_written_is_named(analyze: Analyze, tmp_path: pathlib.Path) -> None:
    make_host(tmp_path, HOST)
    result = analyze("chart", "--root=root", "-o", "nowhere/boot.svg")
    assert (result.status, result.output) == (3, "")
    assert result.errors == "lofter-analyze: nowhere/boot.svg: No such file or directory\n"
