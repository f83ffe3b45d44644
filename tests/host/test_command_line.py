"""What may be asked for on the command line, and what comes of asking for something else."""
import pathlib
import re
import time

import pytest

from lofterdev.host import Host
from lofterdev.syslog import ERROR

USAGE = (pathlib.Path(__file__).parent / "usage.txt").read_text()
INVALID = "Invalid combination of options passed. Exiting"
INVOKE = "invoke requires a method and plugin specified"


def configuration(host: Host) -> dict[str, str]:
    """The configuration block of the profiling log."""
    return dict(re.findall(r"^ (.+?): (.*)$", host.read("/var/log/sysboot.log"), re.MULTILINE))


@pytest.mark.parametrize("option", ["--help", "-h"])
def test_help_prints_the_usage_text_and_nothing_else(host: Host, option: str) -> None:
    outcome = host.lofter(option)
    assert (outcome.status, outcome.output, outcome.errors) == (0, USAGE, "")


def test_options_after_help_are_not_looked_at(host: Host) -> None:
    outcome = host.lofter("--help", "--no-such-option")
    assert (outcome.status, outcome.output) == (0, USAGE)


@pytest.mark.parametrize("arguments", [
    ["--no-such-option"], ["--plugin"], ["--method"], ["--plugin-flags"], ["--run-once"], ["--disable-plugins"],
    ["--plugin-directory"], ["--interactive-mode-requires"], ["--daemon-wait-timeout"], ["--init=yes"], ["-x"],
    ["--no-such-option", "-h"]], ids=" ".join)
def test_an_unusable_option_ends_the_program_with_a_hint(host: Host, arguments: list[str]) -> None:
    outcome = host.lofter(*arguments)
    assert outcome.status == 1
    assert outcome.output == ""
    assert outcome.errors.splitlines()[-1] == "usage: /usr/sbin/lofter --help for usage information"
    assert not host.exists("/var/log/sysboot.log")


@pytest.mark.parametrize("arguments", [
    ["--daemon"],
    ["--daemon", "--method=restart"],
    ["--daemon", "--method=start", "--plugin=a"],
    ["--daemon", "--method=start", "--interactive"],
    ["--daemon", "--method=start", "--invoke"],
    ["--daemon", "--method=stop", "--init"],
    ["--daemon=wait", "--method="],
], ids=" ".join)
def test_daemon_mode_rejects_what_does_not_go_with_it(host: Host, arguments: list[str]) -> None:
    syslog = host.syslog()
    outcome = host.lofter(*arguments)
    assert outcome.status == 1
    assert outcome.log() == [f"error {INVALID}"]
    assert [(record.severity, record.text.rstrip("\n")) for record in syslog.records()] == [(ERROR, INVALID)]
    assert not host.exists("/var/log/sysboot.log")


@pytest.mark.parametrize("arguments", [["--invoke"], ["--invoke", "--method=start"], ["--invoke", "--plugin=a"],
                                       ["--invoke", "--method=start", "--plugin=,,"]], ids=" ".join)
def test_invoke_needs_a_method_and_a_plugin(host: Host, arguments: list[str]) -> None:
    outcome = host.lofter(*arguments)
    assert outcome.status == 1
    assert outcome.log() == [f"error {INVOKE}"]
    assert outcome.output.endswith(f"{INVOKE}\n{USAGE}")


def test_the_later_of_parallel_and_interactive_is_in_force(host: Host) -> None:
    assert host.lofter("--parallel", "--interactive").status == 0
    assert (configuration(host)["Parallel"], configuration(host)["Interactive Mode"]) == ("0", "1")
    host.restart()
    assert host.lofter("--interactive", "--parallel").status == 0
    assert (configuration(host)["Parallel"], configuration(host)["Interactive Mode"]) == ("1", "0")


@pytest.mark.parametrize("seed", ["-2147483648", "2147483647", "7"])
def test_a_seed_that_fits_is_taken(host: Host, seed: str) -> None:
    host.lofter(f"--randomize={seed}")
    assert (configuration(host)["Randomize"], configuration(host)["Random Seed"]) == ("1", seed)


@pytest.mark.parametrize("option", ["--randomize", "--randomize=", "--randomize=abc", "--randomize=2147483648", "--randomize=7x"])
def test_any_other_seed_leaves_the_time_of_the_start_without_a_message(host: Host, option: str) -> None:
    before = int(time.time())
    outcome = host.lofter(option)
    assert configuration(host)["Randomize"] == "1"
    assert before <= int(configuration(host)["Random Seed"]) <= int(time.time())
    assert not [line for line in outcome.log() if not line.startswith("info ")]


@pytest.mark.parametrize("arguments, names", [
    (["--run-once=a", "--run-once=b"], "a,b,"),
    (["--run-once=b,,a", "--run-once=a"], "a,b,"),
    (["--run-once=a, b"], " b,a,"),
    ([], ""),
], ids=["two options", "empty and repeated names", "a leading blank", "none"])
def test_run_once_names_add_up(host: Host, arguments: list[str], names: str) -> None:
    assert host.lofter(*arguments).status == 0
    assert host.read_gzip("/bootbank/loftsave.gz") == f"lofter.run-once={names}\n"
