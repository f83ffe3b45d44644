"""What lofter(8) tells an operator to do: when a boot hangs, and on a host that has booted."""
import json
import os
import re
import signal
import subprocess

import pytest

from support.host import REPOSITORY
from support.processes import ProcessesBelow
from support.syslog import ERROR, INFO, WARNING
from support.waiting import Eventually

PAGES = REPOSITORY / "docs" / "man"
PROFILE = "/var/log/sysboot.log"
COMMANDS = "/usr/lib/tessel/qorcli"
UNTIL = "timeout 30 sh -c 'until eval \"$1\"; do sleep 0.05; done' until"


def Plugin(host, name, requires=(), provides=(), start=()):
    host.Plugin(name, json.dumps({"metadata": {"version": 1, "requires": list(requires), "provides": list(provides)},
                                  "operations": {"start": list(start)}}))


def Activated(host):
    return [match.group(1) for line in host.KernelLines() if (match := re.search(r"Lofter plugin (\S+) activated\.$", line))]


def Example(title):
    """The command lines of the page that follow this text, as they are typed."""
    text = (PAGES / "lofter.8.scd").read_text()
    block = re.match(r"\n\n((?:\t?\S.*\n)+)", text[text.index(title) + len(title):]).group(1)
    return re.sub(r"\\(.)", r"\1", block.replace("++\n", "\n")).replace("\t", "")


@pytest.fixture
def ring(host):
    """A host whose boot waits for ever: left and right wait for each other, behind for both."""
    host.KernelLog()
    Plugin(host, "left.json", requires=["east"], provides=["west"])
    Plugin(host, "right.json", requires=["west"], provides=["east"])
    Plugin(host, "behind.json", requires=["west"])
    Plugin(host, "free.json")
    return host


def test_a_boot_that_waits_in_a_circle_is_ended_drawn_and_repeated_without_one_of_the_plugins(ring):
    outcome = ring.Run("sh", "-c", f"""
        lofter --init &
        boot=$!
        {UNTIL} 'grep -q "plugin free activated" /dev/kmsg' || exit 2
        kill $boot
        wait $boot
        echo "ended: $?"
        [ -e {PROFILE} ] && echo "a killed boot has written a profile"
        pidof lofter >/dev/null && echo "its executor lives on"
        {Example("Draw the graph:")}
        echo "dumped: $?"
        {Example("Boot again without a plugin of the circle:").replace("_name_", "left")}
        echo "repeated: $?"
        """, grace=10)
    said = [line for line in outcome.output.splitlines() if "lofter: " not in line]
    assert said == ["ended: 143", "its executor lives on", "dumped: 0", "repeated: 0"], outcome
    assert outcome.leftovers == []
    assert sorted(Activated(ring)) == ["behind", "free", "free", "right"]
    circle = subprocess.run(["sccmap", ring.Path("/tmp/boot.dot")], check=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                            text=True).stdout
    assert sorted(re.findall(r"label=(\w+)", circle)) == ["east", "left", "right", "west"]


def test_a_shell_command_that_does_not_end_is_killed_and_the_boot_goes_on(host):
    host.KernelLog()
    host.Run("mkfifo", "/run/held")
    host.DebugConfiguration("hung::done:read line </run/held; true", "behind:done::true")
    syslog = host.Syslog()
    boot = host.StartLofter("--init")
    shell, = Eventually(lambda: [process for process, words in ProcessesBelow(boot.process.pid) if words[:2] == ["sh", "-c"]],
                        "the command runs", 20)
    assert host.KernelLines()[-1] == "<6>lofter: Activating Lofter plugin hung."
    os.kill(shell, signal.SIGTERM)
    outcome = boot.Finish()
    assert (outcome.status, outcome.leftovers) == (0, [])
    assert Activated(host) == ["hung", "behind"]
    assert "debug injection 'hung' returned 0x00000f" in syslog.Texts(INFO)


def test_a_host_command_that_does_not_end_is_killed_and_the_boot_goes_on(host):
    host.KernelLog()
    host.Run("mkfifo", "/run/held")
    host.WriteScript(f"{COMMANDS}/hang", "read line </run/held")
    host.WriteScript(f"{COMMANDS}/note", "echo ran >/tmp/note")
    Plugin(host, "hung.json", provides=["done"], start=["hang"])
    Plugin(host, "behind.json", requires=["done"], start=["note"])
    syslog = host.Syslog()
    boot = host.StartLofter("--init")
    command, = Eventually(lambda: [process for process, words in ProcessesBelow(boot.process.pid) if f"{COMMANDS}/hang" in words],
                          "the command runs", 20)
    assert host.KernelLines()[-1] == "<6>lofter: Activating Lofter plugin hung."
    os.kill(command, signal.SIGTERM)
    outcome = boot.Finish()
    assert (outcome.status, outcome.leftovers) == (0, [])
    assert "execution of 'hang' failed : killed by signal 15" in syslog.Texts(ERROR)
    assert Activated(host) == ["behind"]
    assert host.Read("/tmp/note") == "ran\n"


def test_a_console_that_was_stopped_holds_up_a_prompt_until_it_may_show_it(host):
    host.DebugConfiguration("a:::echo ran >/tmp/ran")
    syslog, terminal = host.Syslog(), host.Terminal()
    terminal.Type("\x13")  # Ctrl-S
    boot = host.StartLofter("--init", "--interactive", terminal=terminal, console=True)
    syslog.WaitFor("Launching Executor", 20)
    assert not terminal.Read()
    assert boot.IsRunning()
    terminal.Type("\x11")  # Ctrl-Q
    terminal.Expect("current plugin: ", 20)
    assert not host.Exists("/tmp/ran")
    terminal.Type("c")
    assert boot.Finish().status == 0
    assert host.Read("/tmp/ran") == "ran\n"


def test_a_second_run_needs_the_socket_of_the_first_removed(host):
    host.DebugConfiguration("one:::true")
    assert host.Lofter("--init").status == 0
    syslog = host.Syslog()
    assert host.Lofter("--invoke", "--method=start", "--plugin=one.debug").status == 1
    assert syslog.Texts(ERROR) == ["Unable to start executor: Failed to bind to executor control socket: Address already in use"]
    assert syslog.Texts(WARNING) == ["Failed to start executor Lofter executor failed to start"]
    Plugin(host, "net.json")
    outcome = host.Run("sh", "-c", Example("Run one plugin again, on a host that has booted and runs no other *lofter*:"), grace=10)
    assert (outcome.status, outcome.leftovers) == (0, [])
    assert "executing start plugin: net" in syslog.Texts(INFO)


def test_the_executor_of_a_killed_run_serves_the_next(host):
    host.Run("mkfifo", "/run/held")
    host.WriteScript(f"{COMMANDS}/note", "echo ran >/tmp/note")
    host.DebugConfiguration("hung:::echo up >/tmp/up; read line </run/held")
    Plugin(host, "note.json", start=["note"])
    syslog = host.Syslog()
    outcome = host.Run("sh", "-c", f"""
        lofter --plugin=hung.debug >/dev/null &
        boot=$!
        {UNTIL} '[ -e /tmp/up ]' || exit 2
        kill -9 $boot
        lofter --plugin=note.json >/dev/null
        status=$?
        echo >/run/held
        exit $status""", grace=10)
    assert (outcome.status, outcome.leftovers) == (0, [])
    assert host.Read("/tmp/note") == "ran\n"
    assert syslog.Texts(INFO).count("Setting up Executor - Reset Requested") == 1


def test_a_second_run_beside_a_boot_stops_the_executor_of_the_boot(host):
    host.Run("mkfifo", "/run/held")
    host.WriteScript(f"{COMMANDS}/note", "echo ran >/tmp/note")
    host.DebugConfiguration("hung::done:echo up >/tmp/up; read line </run/held")
    Plugin(host, "note.json", requires=["done"], start=["note"])
    syslog = host.Syslog()
    outcome = host.Run("sh", "-c", f"""
        lofter --init >/dev/null &
        boot=$!
        {UNTIL} '[ -e /tmp/up ]' || exit 2
        lofter --dump-dependency-tree >/dev/null || exit 3
        {UNTIL} '! ps -o ppid,comm | grep -q "^ *1 lofter"' || exit 4
        echo >/run/held
        wait $boot""", grace=10)
    assert (outcome.status, outcome.leftovers) == (0, [])
    assert not host.Exists("/tmp/note")
    assert "Could not connect to Executor:Connection refused" in syslog.Texts(ERROR)


def test_a_dump_replaces_the_profile_of_the_boot(host):
    host.DebugConfiguration("one:::true")
    assert host.Lofter("--init").status == 0
    assert "[1970-01-01 00:00:00.000000 - " not in host.Read(PROFILE)
    host.Restart()
    assert host.Lofter("--dump-dependency-tree=/tmp/boot.dot").status == 0
    assert "[1970-01-01 00:00:00.000000 - 1970-01-01 00:00:00.000000] sysboot: one\n" in host.Read(PROFILE)


ENDLESS = "while true; do echo word; done"


def test_a_producer_of_words_does_not_hear_that_its_reader_has_gone(host):
    """Signals that were ignored when a shell was started stay so, whatever the shell is told."""
    host.DebugConfiguration(f"hung:::(trap - PIPE; {ENDLESS}) 2>/dev/null | head -n 1 >/tmp/heard; echo >/tmp/over")
    boot = host.StartLofter()
    Eventually(lambda: host.Exists("/tmp/heard") and host.Read("/tmp/heard") == "word\n", "the reader has heard", 20)

    def Readers():
        return [process for process, words in ProcessesBelow(boot.process.pid) if words[0] == "head"]
    Eventually(lambda: not Readers(), "the reader has gone", 20)
    shells = [process for process, words in ProcessesBelow(boot.process.pid) if words[:2] == ["sh", "-c"]]
    with open(f"/proc/{shells[0]}/status") as status:
        ignored = int(re.search(r"^SigIgn:\t(\w+)", status.read(), re.MULTILINE).group(1), 16)
    assert ignored & 1 << signal.SIGPIPE - 1
    assert boot.IsRunning()
    assert not host.Exists("/tmp/over")


def EntriesThatHear():
    """The entries of lofter-debug.conf(5)'s examples that have a reader who goes."""
    return re.findall(r"^first:::.*", (PAGES / "lofter-debug.conf.5.scd").read_text(), re.MULTILINE)


def test_there_are_two_ways_around_it():
    assert len(EntriesThatHear()) == 2


@pytest.mark.parametrize("entry", EntriesThatHear())
def test_a_producer_can_be_made_to_hear_it(host, entry):
    # The root's shell has an env(1) of its own, which it prefers.
    host.DebugConfiguration(entry.replace(":env ", ":gnu-env "))
    host.WriteScript("/usr/bin/producer", ENDLESS)
    outcome = host.Lofter(bind=[("/usr/bin/env", "/usr/bin/gnu-env")])
    assert (outcome.status, outcome.leftovers) == (0, [])
    assert host.Read("/tmp/first").count("\n") == 1
