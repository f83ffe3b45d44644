"""A boot of the machine as `./dev vm` makes it, with somebody logged in at its end."""
import datetime
import re

import pytest

from consoles import BOOT, IMAGE, Activations, Ask, Console
from machine import Machine

DAEMONS = ["haveged", "cron", "dropbear", "redis-server", "nginx"]


@pytest.fixture(scope="module")
def machine(disks):
    with Machine(IMAGE, disks, {"after": "login"}) as machine:
        yield machine


@pytest.fixture(scope="module")
def console(machine):
    return Console(machine)


def Seconds(machine, pattern):
    return float(machine.Expect(pattern, BOOT).group(1))


def test_the_boot_comes_to_a_good_verdict(machine, console):
    assert machine.Verdict() == 0, machine.text
    assert console.Output("uname -m") == "aarch64\n"
    assert console.Output("cat /proc/1/comm") == "init\n"


def test_the_kernel_log_holds_every_activation_in_the_order_of_the_graph(console):
    begun, ended = Activations(console.boot)
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
    kept = re.findall(r"lofter: Activating Lofter plugin (\S+)\.$", console.Output("dmesg"), re.MULTILINE)
    assert kept == begun


def test_plugins_of_all_kinds_configured_the_machine(console):
    assert console.Output("hostname") == "lofter-demo\n"
    assert "inet 10.0.2.15/24" in console.Output("ip address show dev eth0")
    assert "inet 127.0.0.1/8" in console.Output("ip address show dev lo")
    assert console.Output("cat /proc/sys/kernel/panic /proc/sys/kernel/domainname") == "5\ndemo.example\n"
    assert re.search(r"^\S+ /scratch ext4", console.Output("cat /proc/mounts"), re.MULTILINE)
    assert console.Output("cat /run/demo/welcome") == "The host is up.\n"  # a debug plugin
    assert console.Output("cat /run/banner").strip() != ""  # a native one
    assert "name: lofter-demo" in console.Output("cat /run/demo/report")


def test_the_daemons_answer_over_the_network(machine, console):
    assert b"the demo host's own page" in Ask(machine.ports["http"], b"GET / HTTP/1.0\r\n\r\n", b"own page")
    assert Ask(machine.ports["redis"], b"PING\r\n", b"+PONG") == b"+PONG\r\n"
    assert Ask(machine.ports["ssh"], b"", b"\n").startswith(b"SSH-2.0-dropbear")
    for name in DAEMONS:
        assert console.Output(f"pidof {name}").strip() != ""


def test_the_syslog_daemon_has_taken_up_the_configuration_that_the_boot_upgraded(console):
    """Boot messages have a file of their own since the upgrade, which only a reload makes the daemon write."""
    assert "/var/log/boot.log" in console.Output("cat /etc/syslog.conf")
    daemon = console.Output("cat /var/run/tessel/tssyslogd.pid").strip()
    assert console.Output(f"tr '\\0' ' ' </proc/{daemon}/cmdline").startswith("/bin/sh /usr/lib/tessel/tssyslog/bin/tssyslogd")
    console.Output("logger -p daemon.info after the reload")
    console.Output("timeout 20 sh -c 'until grep -q \"after the reload\" /var/log/boot.log; do usleep 50000; done'")
    # What the boot said before the reload is in the log of everything.
    assert "executing start plugin: devices" in console.Output("grep -m 1 'plugin: devices' /var/log/syslog.log")


def Time(text):
    return datetime.datetime.strptime(text, "%Y-%m-%d %H:%M:%S.%f")


def test_the_profiling_log_is_sane(machine, console):
    log = console.Output("cat /var/log/sysboot.log")
    boot, daemons = log.split("=== Lofter configuration info ===\n")
    begun, _ = Activations(console.boot)

    uptime = int(re.match(r"Krxkernel Initialization Time: (\d+)\n", boot).group(1))
    assert uptime % 1_000_000 == 0
    announced = Seconds(machine, r"lofter --init begins at ([\d.]+) s")
    assert announced - 1 <= uptime / 1_000_000 <= announced + 30

    lines = re.findall(r"^\[(.*) - (.*)\] (sysboot|daemon): (.*)$", log, re.MULTILINE)
    assert sorted(name for _, _, _, name in lines) == sorted(begun)
    assert [name for _, _, kind, name in lines if kind == "daemon"] == DAEMONS
    begin, end = (Time(re.search(rf"^ {what}: (.*)$", daemons, re.MULTILINE).group(1)) for what in ("Start", "End"))
    assert begin < end
    # A serial run: one at a time, within the run, in the order of the kernel log.
    runs = sorted((Time(first), Time(last), name) for first, last, kind, name in lines if kind == "sysboot")
    assert begin <= runs[0][0] and runs[-1][1] <= end
    assert all(one[1] <= other[0] for one, other in zip(runs, runs[1:]))
    assert [name for _, _, name in runs] == begun[:-len(DAEMONS)]
    # Wall clock and uptime are the same clock, give or take what the machine was slow in between.
    now = Time(console.Output("date -u '+%Y-%m-%d %H:%M:%S.0'").strip())
    since = float(console.Output("cut -d ' ' -f 1 /proc/uptime"))
    assert abs((begin - now).total_seconds() + since - uptime / 1_000_000) < 10


def test_the_figures_of_the_boot(machine, console):
    start = Seconds(machine, r"lofter --init begins at ([\d.]+) s")
    last = Seconds(machine, r"--method=start ended with 0 at ([\d.]+) s")
    assert 0 < start < last
    orchestrator = int(machine.Expect(r"peak memory of the orchestrator: (\d+) kB").group(1))
    executor = int(machine.Expect(r"peak memory of the executor process: (\d+) kB").group(1))
    assert 1000 < executor < 20000 and 1000 < orchestrator < 20000
    size = int(machine.Expect(r"size of the installed program: (\d+) bytes").group(1))
    assert 100_000 < size < 2_000_000
    print(f"seconds from kernel start to lofter: {start}, to the last daemon: {last}; program: {size} bytes; "
          f"peak memory: orchestrator {orchestrator} kB, executor process {executor} kB")


# The last test of this boot: it needs the next one.

AFRESH = "rm -f /run/tessel/lofterExecutor.sock"  # which every run leaves behind, for a boot to find the folder empty


def Invoke(console):
    console.Output(AFRESH)
    return console.Run("lofter --invoke --method=start --plugin=greeting.json")


def test_the_run_once_archive_survives_the_machine(machine, console, disks):
    archive = console.Output("zcat /bootbank/loftsave.gz")
    assert re.fullmatch(r"lofter\.run-once=greeting\S*,\n", archive)
    console.SwitchOff()

    # Somebody at a serial line; the screen, which shows terminal 3, is the console.
    settings = {"after": "login", "options": "--interactive --interactive-mode-requires=identity", "screen": "3"}
    with Machine(IMAGE, disks, settings, consoles=("ttyAMA0", "tty0")) as second:
        AnswerPrompts(second, archive)
        console = Console(second)
        assert second.Verdict() == 0, console.boot
        begun, ended = Activations(console.boot)
        assert begun == ended and "skipped" not in begun
        # A boot runs what is to run once, whatever the archive says; only invocations look into it.
        assert "greeting" in begun
        assert console.Output("zcat /bootbank/loftsave.gz") == archive
        assert "interactive" in console.Output("cat /proc/cmdline")
        assert console.Output("cat /sys/class/tty/tty0/active") == "tty11\n"
        assert " Interactive Mode: 0" in console.Output("cat /var/log/sysboot.log")

        output, status = Invoke(console)
        assert status == 0
        assert re.search(r"ignoring plugin 'greeting\S*' because version '1\.0'  has already been run\.", output)
        TearArchive(console, archive)


def AnswerPrompts(machine, archive):
    """Until "continue" at the fifth plugin that is asked about."""
    def Prompt(start):
        return machine.Expect(r"current plugin: \x1b\[36m(\S+)\n.*\(s\)kip\x1b\[0m\x1b\[\?25l", BOOT, start)
    first = Prompt(0)
    before, _ = Activations(machine.text[:first.start()])
    assert before[-1] == "identity" or "identity" in before
    machine.Type("e")
    second = Prompt(first.end())
    machine.Type("t")
    position = machine.Expect(r"# $", 60, second.end()).end()
    machine.Type("cat /sys/class/tty/tty0/active; zcat /bootbank/loftsave.gz; tty; echo 'done'\n")
    session = machine.Expect(r"^tty1\n(.*\n)/dev/ttyAMA0\ndone$", 60, position)
    assert session.group(1) == archive
    machine.Type("exit\n")
    third = Prompt(session.end())
    # The plugin in front of which the shell was opened was executed after it, and the line is as it was: no echo, no waiting for a line.
    assert second.group(1) in Activations(machine.text[session.end():third.end()])[0]
    machine.Type("xE")
    fourth = Prompt(third.end())
    machine.Type("s")
    fifth = Prompt(fourth.end())
    between = machine.text[fourth.end():fifth.start()]
    assert f"skipping plugin {fourth.group(1)} (interactive mode request)" in between
    assert Activations(between) == ([], [])
    machine.Type("c")


def TearArchive(console, archive):
    """One that lost its end, as when the power goes while it is written, costs a message; the next boot makes it whole."""
    console.Output("head -c 12 /bootbank/loftsave.gz >/tmp/torn && cat /tmp/torn >/bootbank/loftsave.gz")
    output, status = Invoke(console)
    assert status == 1 and "unhandled exception whilst enumerating plugins." in output
    console.Output(f"{AFRESH}; lofter --init")
    assert console.Output("zcat /bootbank/loftsave.gz") == archive
