"""What lofter(8) tells an operator to do: when a boot hangs, and on a host that has booted."""
import json
import os
import re
import signal
import subprocess
from collections.abc import Sequence

import pytest

from lofterdev.host import Host
from lofterdev.processes import processes_below
from lofterdev.repository import REPOSITORY
from lofterdev.syslog import ERROR, INFO, WARNING
from lofterdev.waiting import eventually

PAGES = REPOSITORY / "docs" / "man"
PROFILE = "/var/log/sysboot.log"
COMMANDS = "/usr/lib/tessel/qorcli"
UNTIL = "timeout 30 sh -c 'until eval \"$1\"; do sleep 0.05; done' until"


def plugin(host: Host, name: str, requires: Sequence[str] = (), provides: Sequence[str] = (), start: Sequence[str] = ()) -> None:
    host.plugin(name, json.dumps({"metadata": {"version": 1, "requires": list(requires), "provides": list(provides)},
                                  "operations": {"start": list(start)}}))


def activated(host: Host) -> list[str]:
    return [match.group(1) for line in host.kernel_lines() if (match := re.search(r"Lofter plugin (\S+) activated\.$", line))]


def example(title: str) -> str:
    """The command lines of the page that follow this text, as they are typed."""
    text = (PAGES / "lofter.8.scd").read_text()
    block = re.match(r"\n\n((?:\t?\S.*\n)+)", text[text.index(title) + len(title):]).group(1)
    return re.sub(r"\\(.)", r"\1", block.replace("++\n", "\n")).replace("\t", "")


@pytest.fixture
def ring(host: Host) -> Host:
    """A host whose boot waits for ever: left and right wait for each other, behind for both."""
    host.kernel_log()
    plugin(host, "left.json", requires=["east"], provides=["west"])
    plugin(host, "right.json", requires=["west"], provides=["east"])
    plugin(host, "behind.json", requires=["west"])
    plugin(host, "free.json")
    return host


def test_a_boot_that_waits_in_a_circle_is_ended_drawn_and_repeated_without_one_of_the_plugins(ring: Host) -> None:
    outcome = ring.run("sh", "-c", f"""
        lofter --init &
        boot=$!
        {UNTIL} 'grep -q "plugin free activated" /dev/kmsg' || exit 2
        kill $boot
        wait $boot
        echo "ended: $?"
        [ -e {PROFILE} ] && echo "a killed boot has written a profile"
        pidof lofter >/dev/null && echo "its executor lives on"
        {example("Draw the graph:")}
        echo "dumped: $?"
        {example("Boot again without a plugin of the circle:").replace("_name_", "left")}
        echo "repeated: $?"
        """, grace=10)
    said = [line for line in outcome.output.splitlines() if "lofter: " not in line]
    assert said == ["ended: 143", "its executor lives on", "dumped: 0", "repeated: 0"], outcome
    assert outcome.leftovers == []
    assert sorted(activated(ring)) == ["behind", "free", "free", "right"]
    circle = subprocess.run(["sccmap", ring.path("/tmp/boot.dot")], check=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                            text=True).stdout
    assert sorted(re.findall(r"label=(\w+)", circle)) == ["east", "left", "right", "west"]


def test_a_shell_command_that_does_not_end_is_killed_and_the_boot_goes_on(host: Host) -> None:
    host.kernel_log()
    host.run("mkfifo", "/run/held")
    host.debug_configuration("hung::done:read line </run/held; true", "behind:done::true")
    syslog = host.syslog()
    boot = host.start_lofter("--init")
    shell, = eventually(lambda: [process for process, words in processes_below(boot.process.pid) if words[:2] == ["sh", "-c"]],
                        "the command runs", 20)
    assert host.kernel_lines()[-1] == "<6>lofter: Activating Lofter plugin hung."
    os.kill(shell, signal.SIGTERM)
    outcome = boot.finish()
    assert (outcome.status, outcome.leftovers) == (0, [])
    assert activated(host) == ["hung", "behind"]
    assert "debug injection 'hung' returned 0x00000f" in syslog.texts(INFO)


def test_a_host_command_that_does_not_end_is_killed_and_the_boot_goes_on(host: Host) -> None:
    host.kernel_log()
    host.run("mkfifo", "/run/held")
    host.write_script(f"{COMMANDS}/hang", "read line </run/held")
    host.write_script(f"{COMMANDS}/note", "echo ran >/tmp/note")
    plugin(host, "hung.json", provides=["done"], start=["hang"])
    plugin(host, "behind.json", requires=["done"], start=["note"])
    syslog = host.syslog()
    boot = host.start_lofter("--init")
    command, = eventually(lambda: [process for process, words in processes_below(boot.process.pid) if f"{COMMANDS}/hang" in words],
                          "the command runs", 20)
    assert host.kernel_lines()[-1] == "<6>lofter: Activating Lofter plugin hung."
    os.kill(command, signal.SIGTERM)
    outcome = boot.finish()
    assert (outcome.status, outcome.leftovers) == (0, [])
    assert "execution of 'hang' failed : killed by signal 15" in syslog.texts(ERROR)
    assert activated(host) == ["behind"]
    assert host.read("/tmp/note") == "ran\n"


def test_a_console_that_was_stopped_holds_up_a_prompt_until_it_may_show_it(host: Host) -> None:
    host.debug_configuration("a:::echo ran >/tmp/ran")
    syslog, terminal = host.syslog(), host.terminal()
    terminal.type("\x13")  # Ctrl-S
    boot = host.start_lofter("--init", "--interactive", terminal=terminal, console=True)
    syslog.wait_for("Launching Executor", 20)
    assert not terminal.read()
    assert boot.is_running()
    terminal.type("\x11")  # Ctrl-Q
    terminal.expect("current plugin: ", 20)
    assert not host.exists("/tmp/ran")
    terminal.type("c")
    assert boot.finish().status == 0
    assert host.read("/tmp/ran") == "ran\n"


def test_a_second_run_needs_the_socket_of_the_first_removed(host: Host) -> None:
    host.debug_configuration("one:::true")
    assert host.lofter("--init").status == 0
    syslog = host.syslog()
    assert host.lofter("--invoke", "--method=start", "--plugin=one.debug").status == 1
    assert syslog.texts(ERROR) == ["Unable to start executor: Failed to bind to executor control socket: Address already in use"]
    assert syslog.texts(WARNING) == ["Failed to start executor Lofter executor failed to start"]
    plugin(host, "net.json")
    outcome = host.run("sh", "-c", example("Run one plugin again, on a host that has booted and runs no other *lofter*:"), grace=10)
    assert (outcome.status, outcome.leftovers) == (0, [])
    assert "executing start plugin: net" in syslog.texts(INFO)


def test_the_executor_of_a_killed_run_serves_the_next(host: Host) -> None:
    host.run("mkfifo", "/run/held")
    host.write_script(f"{COMMANDS}/note", "echo ran >/tmp/note")
    host.debug_configuration("hung:::echo up >/tmp/up; read line </run/held")
    plugin(host, "note.json", start=["note"])
    syslog = host.syslog()
    outcome = host.run("sh", "-c", f"""
        lofter --plugin=hung.debug >/dev/null &
        boot=$!
        {UNTIL} '[ -e /tmp/up ]' || exit 2
        kill -9 $boot
        lofter --plugin=note.json >/dev/null
        status=$?
        echo >/run/held
        exit $status""", grace=10)
    assert (outcome.status, outcome.leftovers) == (0, [])
    assert host.read("/tmp/note") == "ran\n"
    assert syslog.texts(INFO).count("Setting up Executor - Reset Requested") == 1


def test_a_second_run_beside_a_boot_stops_the_executor_of_the_boot(host: Host) -> None:
    host.run("mkfifo", "/run/held")
    host.write_script(f"{COMMANDS}/note", "echo ran >/tmp/note")
    host.debug_configuration("hung::done:echo up >/tmp/up; read line </run/held")
    plugin(host, "note.json", requires=["done"], start=["note"])
    syslog = host.syslog()
    outcome = host.run("sh", "-c", f"""
        lofter --init >/dev/null &
        boot=$!
        {UNTIL} '[ -e /tmp/up ]' || exit 2
        lofter --dump-dependency-tree >/dev/null || exit 3
        {UNTIL} '! ps -o ppid,comm | grep -q "^ *1 lofter"' || exit 4
        echo >/run/held
        wait $boot""", grace=10)
    assert (outcome.status, outcome.leftovers) == (0, [])
    assert not host.exists("/tmp/note")
    assert "Could not connect to Executor:Connection refused" in syslog.texts(ERROR)


def test_a_dump_replaces_the_profile_of_the_boot(host: Host) -> None:
    host.debug_configuration("one:::true")
    assert host.lofter("--init").status == 0
    assert "[1970-01-01 00:00:00.000000 - " not in host.read(PROFILE)
    host.restart()
    assert host.lofter("--dump-dependency-tree=/tmp/boot.dot").status == 0
    assert "[1970-01-01 00:00:00.000000 - 1970-01-01 00:00:00.000000] sysboot: one\n" in host.read(PROFILE)


ENDLESS = "while true; do echo word; done"


def test_a_producer_of_words_does_not_hear_that_its_reader_has_gone(host: Host) -> None:
    """Signals that were ignored when a shell was started stay so, whatever the shell is told."""
    host.debug_configuration(f"hung:::(trap - PIPE; {ENDLESS}) 2>/dev/null | head -n 1 >/tmp/heard; echo >/tmp/over")
    boot = host.start_lofter()
    eventually(lambda: host.exists("/tmp/heard") and host.read("/tmp/heard") == "word\n", "the reader has heard", 20)

    def readers() -> list[int]:
        return [process for process, words in processes_below(boot.process.pid) if words[0] == "head"]
    eventually(lambda: not readers(), "the reader has gone", 20)
    shells = [process for process, words in processes_below(boot.process.pid) if words[:2] == ["sh", "-c"]]
    with open(f"/proc/{shells[0]}/status") as status:
        ignored = int(re.search(r"^SigIgn:\t(\w+)", status.read(), re.MULTILINE).group(1), 16)
    assert ignored & 1 << signal.SIGPIPE - 1
    assert boot.is_running()
    assert not host.exists("/tmp/over")


def entries_that_hear() -> list[str]:
    """The entries of lofter-debug.conf(5)'s examples that have a reader who goes."""
    return re.findall(r"^first:::.*", (PAGES / "lofter-debug.conf.5.scd").read_text(), re.MULTILINE)


def test_there_are_two_ways_around_it() -> None:
    assert len(entries_that_hear()) == 2


@pytest.mark.parametrize("entry", entries_that_hear())
def test_a_producer_can_be_made_to_hear_it(host: Host, entry: str) -> None:
    # The root's shell has an env(1) of its own, which it prefers.
    host.debug_configuration(entry.replace(":env ", ":gnu-env "))
    host.write_script("/usr/bin/producer", ENDLESS)
    outcome = host.lofter(bind=[("/usr/bin/env", "/usr/bin/gnu-env")])
    assert (outcome.status, outcome.leftovers) == (0, [])
    assert host.read("/tmp/first").count("\n") == 1
