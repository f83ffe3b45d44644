"""What is said, where it is said: standard output, syslog, the kernel's log, and what becomes of it where nobody listens."""
import fcntl
import os
import re
import select
import socket
import termios
from collections.abc import Iterator

import pytest

from lofterdev.host import Host
from lofterdev.syslog import ERROR, INFO, WARNING
from lofterdev.waiting import eventually

LINE = re.compile(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} (\w+) lofter: (.*)")
EXECUTOR_LOG = "/var/log/lofter-qorcli-stdout.log"
GO = "/run/go"
CODES = "a\x1b]0!\x07b\x7f \x9b \udc9b ä"
SHOWN = r"a\x1b]0!\x07b\x7f \xc2\x9b \x9b ä"


class Pipe:
    """Standard output that the test reads when it likes: a pipe."""
    flags = 0

    def __init__(self) -> None:
        self.reader, self.writer = self.make_ends()
        self.flags_before = fcntl.fcntl(self.writer, fcntl.F_GETFL)
        if self.flags:
            fcntl.fcntl(self.writer, fcntl.F_SETFL, self.flags_before | self.flags)
            self.flags_before |= self.flags
        self.output = b""
        self.stop()

    def make_ends(self) -> tuple[int, int]:
        return os.pipe()

    def stop(self) -> None:
        """Nothing is read from here on."""

    def resume(self) -> None:
        """Takes out all that is in there."""
        while select.select([self.reader], [], [], 0)[0]:
            self.output += os.read(self.reader, 1 << 20)

    def status_flags(self) -> int:
        return fcntl.fcntl(self.writer, fcntl.F_GETFL)

    def lines(self) -> list[tuple[str, str]]:
        """All that has been written, as (level, text) of each log line."""
        self.resume()
        lines = self.output.decode(errors="surrogateescape").replace("\r\n", "\n").splitlines()
        return [(match[1], match[2]) for match in map(LINE.fullmatch, lines) if match]

    def close(self) -> None:
        for descriptor in {self.reader, self.writer}:
            os.close(descriptor)


class NonBlockingPipe(Pipe):
    flags = os.O_NONBLOCK


class Socket(Pipe):
    def make_ends(self) -> tuple[int, int]:
        ends = socket.socketpair(socket.AF_UNIX, socket.SOCK_STREAM)
        return ends[0].detach(), ends[1].detach()


class NonBlockingSocket(Socket):
    flags = os.O_NONBLOCK


class Terminal(Pipe):
    def make_ends(self) -> tuple[int, int]:
        return os.openpty()

    def stop(self) -> None:
        termios.tcflow(self.writer, termios.TCOOFF)

    def resume(self) -> None:
        termios.tcflow(self.writer, termios.TCOON)
        super().resume()


class NonBlockingTerminal(Terminal):
    flags = os.O_NONBLOCK


@pytest.fixture
def stuck(request: pytest.FixtureRequest) -> Iterator[Pipe]:
    output = request.param()
    yield output
    output.close()


@pytest.mark.parametrize("stuck, plugins", [
    (Pipe, 1503), (NonBlockingPipe, 500), (Socket, 500), (NonBlockingSocket, 500), (Terminal, 50), (NonBlockingTerminal, 50),
], indirect=["stuck"], ids=lambda value: value.__name__ if isinstance(value, type) else f"{value + 1} plugins")
def test_a_standard_output_that_takes_nothing_costs_a_boot_nothing_but_the_lines_on_it(host: Host, stuck: Pipe, plugins: int) -> None:
    syslog = host.syslog()
    host.kernel_log()
    names = [f"p{number}" for number in range(plugins)]
    host.debug_configuration(*(f"{name}::all:true" for name in names), f"last:all::read line <{GO}")
    os.mkfifo(host.path(GO))
    running = host.start_lofter("--trace", stdout=stuck.writer)
    syslog.wait_for("executing start plugin: last", 180)
    stuck.resume()
    host.path(GO).write_text("go\n")
    assert running.finish().status == 0

    shown = stuck.lines()
    lost, = [place for place, (_, text) in enumerate(shown) if "lost" in text]
    level, text = shown.pop(lost)
    number = int(re.fullmatch(r"(\d+) log lines were lost while standard output took none", text).group(1))
    assert level == "warning"
    # Syslog has everything, and so has standard output but for the lines that it says it has not.
    executors = [match[2] for match in map(LINE.fullmatch, host.read(EXECUTOR_LOG).splitlines()) if match]
    said = [text for text in syslog.texts() if text not in executors]
    assert len(said) == len(shown) + number
    assert [text for _, text in shown] == said[:lost] + said[lost + number:]
    assert shown[lost:] != []
    assert [text for text in said if text.startswith("executing start plugin: ")] == \
        [f"executing start plugin: {name}" for name in (*names, "last")]
    assert [line for line in host.kernel_lines() if "activated" in line] == \
        [f"<6>lofter: Lofter plugin {name} activated." for name in (*names, "last")]
    assert stuck.status_flags() == stuck.flags_before


def test_a_boot_without_a_kernel_log_ends_though_the_syslog_daemon_hangs(host: Host) -> None:
    names = [f"p{number}" for number in range(44)]
    host.deaf_syslog()
    host.debug_configuration(*(f"{name}:::true" for name in names))
    outcome = host.lofter()
    assert (outcome.status, outcome.leftovers) == (0, [])
    assert [line for line in outcome.log() if "executing" in line] == [f"info executing start plugin: {name}" for name in names]


def test_a_record_that_the_kernel_does_not_take_is_reported_to_syslog_only(host: Host) -> None:
    syslog = host.syslog()
    host.debug_configuration("a:::true")
    outcome = host.lofter()
    reports = [record for record in syslog.records() if record.text.startswith("Exception occurred")]
    assert [(record.severity, record.facility, record.identifier, record.text) for record in reports] == \
        [(WARNING, 3, "lofter", "Exception occurred while logging msg: /dev/kmsg: No such file or directory")] * 2
    assert "Exception occurred" not in outcome.output


def test_an_empty_line_that_ends_a_message_stays_on_standard_output(host: Host) -> None:
    syslog = host.syslog()
    outcome = host.lofter("--plugin-directory=/no/such")
    assert outcome.status == 1
    assert re.search(r" error lofter: unhandled exception whilst enumerating plugins\.\nDetails:\n .+ \n\n\d{4}-", outcome.output)
    assert re.search(r"\.\nDetails:\n .+ $", syslog.texts(ERROR)[0])
    assert [text for text in syslog.texts() if text.endswith("\n")] == []


def test_control_characters_are_spelled_out_on_standard_output_and_in_the_kernels_log(host: Host) -> None:
    syslog = host.syslog()
    host.kernel_log()
    host.debug_configuration(f"{CODES}:::true")
    outcome = host.lofter()
    assert f"info executing start plugin: {SHOWN}" in outcome.log()
    assert f"<6>lofter: Lofter plugin {SHOWN} activated." in host.kernel_lines()
    # The daemon does that itself.
    assert f"executing start plugin: {CODES}" in syslog.texts(INFO)


def test_control_characters_that_a_host_command_prints_are_spelled_out_in_the_executors_log_lines(host: Host) -> None:
    syslog = host.syslog()
    host.write_script("/usr/lib/tessel/qorcli/int/int.fail", r"printf 'the\treason\033[2J\n' >&2; exit 3")
    host.plugin("a.json", '{"metadata": {"version": 1, "requires": [], "provides": []}, "operations": {"start": ["int fail"]}}')
    assert host.lofter().status == 0
    assert r": the" "\t" r"reason\x1b[2J" "\n" in host.read(EXECUTOR_LOG)
    eventually(lambda: any(text.endswith(": the\treason\x1b[2J") for text in syslog.texts(ERROR)), "the reason, as it is")
