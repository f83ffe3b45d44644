"""A boot of the machine as `./dev vm` makes it, with somebody logged in at its end."""
import datetime
import pathlib
import re
from collections.abc import Iterator

import pytest

from consoles import BOOT, IMAGE, activations, ask, Console
from lofterdev.machine import Machine

DAEMONS = ["haveged", "cron", "dropbear", "redis-server", "nginx"]


@pytest.fixture(scope="module")
def machine(disks: list[pathlib.Path]) -> Iterator[Machine]:
    with Machine(IMAGE, disks, {"after": "login"}) as machine:
        yield machine


@pytest.fixture(scope="module")
def console(machine: Machine) -> Console:
    return Console(machine)


def seconds(machine: Machine, pattern: str) -> float:
    return float(machine.expect(pattern, BOOT).group(1))


def test_the_boot_comes_to_a_good_verdict(machine: Machine, console: Console) -> None:
    assert machine.verdict() == 0, machine.text
    assert console.output("uname -m") == "aarch64\n"
    assert console.output("cat /proc/1/comm") == "init\n"


def test_the_kernel_log_holds_every_activation_in_the_order_of_the_graph(console: Console) -> None:
    begun, ended = activations(console.boot)
    assert begun == ended
    assert begun[-len(DAEMONS):] == DAEMONS
    plugins = begun[:-len(DAEMONS)]
    for earlier, later in [("devices", "scratch"), ("devices", "loopback"), ("identity", "hostname"), ("hostname", "kernel-parameters"),
                           ("kernel-parameters", "address"), ("disks", "multipath"), ("multipath", "mounts"), ("volumes", "mounts"),
                           ("mounts", "license"), ("license", "management"), ("network", "management"), ("management", "welcome"),
                           ("timesync", "welcome"), ("greeting", "report"), ("address", "memory"), ("hello", "banner")]:
        assert earlier in plugins and later in plugins
        # Two plugins are called hostname; the one that asks for an identity comes last.
        assert plugins.index(earlier) < len(plugins) - 1 - plugins[::-1].index(later), (earlier, later)
    # The same, as it is kept in the machine itself.
    kept = re.findall(r"lofter: Activating Lofter plugin (\S+)\.$", console.output("dmesg"), re.MULTILINE)
    assert kept == begun


def test_plugins_of_all_kinds_configured_the_machine(console: Console) -> None:
    assert console.output("hostname") == "lofter-demo\n"
    assert "inet 10.0.2.15/24" in console.output("ip address show dev eth0")
    assert "inet 127.0.0.1/8" in console.output("ip address show dev lo")
    assert console.output("cat /proc/sys/kernel/panic /proc/sys/kernel/domainname") == "5\ndemo.example\n"
    assert re.search(r"^\S+ /scratch ext4", console.output("cat /proc/mounts"), re.MULTILINE)
    assert console.output("cat /run/demo/welcome") == "The host is up.\n"  # a debug plugin
    assert console.output("cat /run/banner").strip() != ""  # a native one
    assert "name: lofter-demo" in console.output("cat /run/demo/report")


def test_the_daemons_answer_over_the_network(machine: Machine, console: Console) -> None:
    assert b"the demo host's own page" in ask(machine.ports["http"], b"GET / HTTP/1.0\r\n\r\n", b"own page")
    assert ask(machine.ports["redis"], b"PING\r\n", b"+PONG") == b"+PONG\r\n"
    assert ask(machine.ports["ssh"], b"", b"\n").startswith(b"SSH-2.0-dropbear")
    for name in DAEMONS:
        assert console.output(f"pidof {name}").strip() != ""


def test_the_syslog_daemon_has_taken_up_the_configuration_that_the_boot_upgraded(console: Console) -> None:
    """Boot messages have a file of their own since the upgrade, which only a reload makes the daemon write."""
    assert "/var/log/boot.log" in console.output("cat /etc/syslog.conf")
    daemon = console.output("cat /var/run/tessel/tssyslogd.pid").strip()
    assert console.output(f"tr '\\0' ' ' </proc/{daemon}/cmdline").startswith("/bin/sh /usr/lib/tessel/tssyslog/bin/tssyslogd")
    console.output("logger -p daemon.info after the reload")
    console.output("timeout 20 sh -c 'until grep -q \"after the reload\" /var/log/boot.log; do usleep 50000; done'")
    # What the boot said before the reload is in the log of everything.
    assert "executing start plugin: devices" in console.output("grep -m 1 'plugin: devices' /var/log/syslog.log")


def time(text: str) -> datetime.datetime:
    return datetime.datetime.strptime(text, "%Y-%m-%d %H:%M:%S.%f")


def test_the_profiling_log_is_sane(machine: Machine, console: Console) -> None:
    log = console.output("cat /var/log/sysboot.log")
    boot, daemons = log.split("=== Lofter configuration info ===\n")
    begun, _ = activations(console.boot)

    uptime = int(re.findall(r"\AKrxkernel Initialization Time: (\d+)\n", boot)[0])
    assert uptime % 1_000_000 == 0
    announced = seconds(machine, r"lofter --init begins at ([\d.]+) s")
    assert announced - 1 <= uptime / 1_000_000 <= announced + 30

    lines = re.findall(r"^\[(.*) - (.*)\] (sysboot|daemon): (.*)$", log, re.MULTILINE)
    assert sorted(name for _, _, _, name in lines) == sorted(begun)
    assert [name for _, _, kind, name in lines if kind == "daemon"] == DAEMONS
    begin, end = (time(re.findall(rf"^ {what}: (.*)$", daemons, re.MULTILINE)[0]) for what in ("Start", "End"))
    assert begin < end
    # A serial run: one at a time, within the run, in the order of the kernel log.
    runs = sorted((time(first), time(last), name) for first, last, kind, name in lines if kind == "sysboot")
    assert begin <= runs[0][0] and runs[-1][1] <= end
    assert all(one[1] <= other[0] for one, other in zip(runs, runs[1:]))
    assert [name for _, _, name in runs] == begun[:-len(DAEMONS)]
    # Wall clock and uptime are the same clock, give or take what the machine was slow in between.
    now = time(console.output("date -u '+%Y-%m-%d %H:%M:%S.0'").strip())
    since = float(console.output("cut -d ' ' -f 1 /proc/uptime"))
    assert abs((begin - now).total_seconds() + since - uptime / 1_000_000) < 10


def test_the_figures_of_the_boot(machine: Machine, console: Console) -> None:
    start = seconds(machine, r"lofter --init begins at ([\d.]+) s")
    last = seconds(machine, r"--method=start ended with 0 at ([\d.]+) s")
    assert 0 < start < last
    orchestrator = int(machine.expect(r"peak memory of the orchestrator: (\d+) kB").group(1))
    executor = int(machine.expect(r"peak memory of the executor process: (\d+) kB").group(1))
    assert 1000 < executor < 20000 and 1000 < orchestrator < 20000
    size = int(machine.expect(r"size of the installed program: (\d+) bytes").group(1))
    assert 100_000 < size < 2_000_000
    print(f"seconds from kernel start to lofter: {start}, to the last daemon: {last}; program: {size} bytes; "
          f"peak memory: orchestrator {orchestrator} kB, executor process {executor} kB")


# The last test of this boot: it needs the next one.

AFRESH = "rm -f /run/tessel/lofterExecutor.sock"  # which every run leaves behind, for a boot to find the folder empty


def invoke(console: Console) -> tuple[str, int]:
    console.output(AFRESH)
    return console.run("lofter --invoke --method=start --plugin=greeting.json")


def test_the_run_once_archive_survives_the_machine(machine: Machine, console: Console, disks: list[pathlib.Path]) -> None:
    archive = console.output("zcat /bootbank/loftsave.gz")
    assert re.fullmatch(r"lofter\.run-once=greeting\S*,\n", archive)
    console.switch_off()

    # Somebody at a serial line; the screen, which shows terminal 3, is the console.
    settings = {"after": "login", "options": "--interactive --interactive-mode-requires=identity", "screen": "3"}
    with Machine(IMAGE, disks, settings, consoles=("ttyAMA0", "tty0")) as second:
        answer_prompts(second, archive)
        console = Console(second)
        assert second.verdict() == 0, console.boot
        begun, ended = activations(console.boot)
        assert begun == ended and "skipped" not in begun
        # A boot runs what is to run once, whatever the archive says; only invocations look into it.
        assert "greeting" in begun
        assert console.output("zcat /bootbank/loftsave.gz") == archive
        assert "interactive" in console.output("cat /proc/cmdline")
        assert console.output("cat /sys/class/tty/tty0/active") == "tty11\n"
        assert " Interactive Mode: 0" in console.output("cat /var/log/sysboot.log")

        output, status = invoke(console)
        assert status == 0
        assert re.search(r"ignoring plugin 'greeting\S*' because version '1\.0'  has already been run\.", output)
        tear_archive(console, archive)


def answer_prompts(machine: Machine, archive: str) -> None:
    """Until "continue" at the fifth plugin that is asked about."""
    def prompt(start: int) -> re.Match[str]:
        return machine.expect(r"current plugin: \x1b\[36m(\S+)\n.*\(s\)kip\x1b\[0m\x1b\[\?25l", BOOT, start)
    first = prompt(0)
    before, _ = activations(machine.text[:first.start()])
    assert before[-1] == "identity" or "identity" in before
    machine.type("e")
    second = prompt(first.end())
    machine.type("t")
    position = machine.expect(r"# $", 60, second.end()).end()
    machine.type("cat /sys/class/tty/tty0/active; zcat /bootbank/loftsave.gz; tty; echo 'done'\n")
    session = machine.expect(r"^tty1\n(.*\n)/dev/ttyAMA0\ndone$", 60, position)
    assert session.group(1) == archive
    machine.type("exit\n")
    third = prompt(session.end())
    # The plugin in front of which the shell was opened was executed after it, and the line is as it was: no echo, no waiting for a line.
    assert second.group(1) in activations(machine.text[session.end():third.end()])[0]
    machine.type("xE")
    fourth = prompt(third.end())
    machine.type("s")
    fifth = prompt(fourth.end())
    between = machine.text[fourth.end():fifth.start()]
    assert f"skipping plugin {fourth.group(1)} (interactive mode request)" in between
    assert activations(between) == ([], [])
    machine.type("c")


def tear_archive(console: Console, archive: str) -> None:
    """One that lost its end, as when the power goes while it is written, costs a message; the next boot makes it whole."""
    console.output("head -c 12 /bootbank/loftsave.gz >/tmp/torn && cat /tmp/torn >/bootbank/loftsave.gz")
    output, status = invoke(console)
    assert status == 1 and "unhandled exception whilst enumerating plugins." in output
    console.output(f"{AFRESH}; lofter --init")
    assert console.output("zcat /bootbank/loftsave.gz") == archive
