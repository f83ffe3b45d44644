"""The command that newcomers run first."""
import fcntl
import os
import re
import subprocess
from collections.abc import Sequence
from typing import Any, BinaryIO

import pytest

from lofterdev.host import BUILD
from lofterdev.repository import REPOSITORY
from lofterdev.terminal import Terminal

# They share one demo host, that of ./dev boot.
pytestmark = pytest.mark.xdist_group("demo")

# What goes around a command so that the kernel refuses it namespaces, and the kernel's words for that.
REFUSALS = {
    "ordinary user": (1, "unshare --user --map-user=1000 --map-group=1000", "unshare failed: No space left on device"),
    "root without privileges": (0, "setpriv --bounding-set=-all --inh-caps=-all", "[Errno 1] Operation not permitted: '/'"),
}
NOBODY_READS = "./dev boot: whoever read its output has gone. To keep all of it: ./dev boot >boot.log\n"


def dev_boot(*arguments: str, around: Sequence[str] = (), **settings: Any) -> subprocess.CompletedProcess[str]:
    settings = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **settings}
    return subprocess.run([*around, "./dev", "boot", *arguments], cwd=REPOSITORY, text=True, timeout=120,
                          env={**os.environ, "LOFTER_BUILD": str(BUILD)}, **settings)


def test_dev_boot_boots_the_demo_host_and_shows_what_it_did() -> None:
    pictures = [REPOSITORY / "build/host/boot.svg", REPOSITORY / "build/host/chart.svg"]
    for picture in pictures:
        picture.unlink(missing_ok=True)
    outcome = dev_boot(stderr=subprocess.STDOUT)
    assert outcome.returncode == 0, outcome.stdout
    assert "lofter: Lofter plugin hello activated.\n" in outcome.stdout
    assert "Lofter plugin scratch activation failed: scratch->start() failed: error while executing the cli" in outcome.stdout
    assert "debug injection 'license' returned 0x000100" in outcome.stdout
    assert "lofter.run-once=greeting1.0,identity1.0,\n" in outcome.stdout
    assert "welcome      The host is up." in outcome.stdout
    assert pictures[0].read_text().count("<polygon") > 5
    assert pictures[1].read_text().count('class="bar"') > 40
    assert re.search(r"\n==> where the time went \(lofter-analyze --root=build/host/demo\)\n.*^plugins: 22 ran, 0 did not run, 0 kept out$",
                     outcome.stdout, re.DOTALL | re.MULTILINE)


def test_a_boot_in_which_no_plugin_of_the_demo_did_anything_says_so() -> None:
    outcome = dev_boot("--plugin=none.json")
    assert (outcome.returncode, outcome.stderr) == (0, "")
    assert "==> what each plugin did (/run/demo)\n" \
        "nothing: no plugin of the demo ran. Without arguments, ./dev boot runs all of them\n" in outcome.stdout


def test_a_reader_who_goes_ends_the_boot_with_one_line() -> None:
    reader, writer = os.pipe()
    os.close(reader)
    try:
        outcome = dev_boot(stdout=writer)
    finally:
        os.close(writer)
    assert (outcome.returncode, outcome.stderr) == (141, NOBODY_READS)


def read_until(stream: BinaryIO, text: bytes) -> None:
    for line in stream:
        if text in line:
            return
    raise AssertionError(f"not said: {text!r}")


def test_a_reader_who_goes_in_the_middle_of_the_boot_ends_it_with_one_line() -> None:
    """With a terminal as standard input the output comes by way of the tool that enters the root."""
    terminal = Terminal()
    before = terminal.modes()
    reader, writer = os.pipe()
    fcntl.fcntl(writer, fcntl.F_SETPIPE_SZ, 4096)  # into which the rest does not fit
    with subprocess.Popen(["./dev", "boot"], cwd=REPOSITORY, env={**os.environ, "LOFTER_BUILD": str(BUILD)}, stdin=terminal.slave,
                          stdout=writer, stderr=subprocess.PIPE, text=True, start_new_session=True) as boot:
        os.close(writer)
        with open(reader, "rb", buffering=0) as output:
            read_until(output, b"Launching Executor")
        assert boot.stderr
        errors = boot.stderr.read()
    assert (boot.returncode, errors) == (141, NOBODY_READS)
    assert terminal.modes() == before
    terminal.close()


@pytest.mark.parametrize("granted, around, reason", REFUSALS.values(), ids=REFUSALS)
def test_a_kernel_that_grants_no_namespaces_is_told_in_one_line(granted: int, around: str, reason: str) -> None:
    outcome = dev_boot(around=["unshare", "--user", "--map-root-user", "sh", "-c",
                              f'echo {granted} >/proc/sys/user/max_user_namespaces; exec {around} "$@"', "sh"])
    assert outcome.returncode == 1
    assert outcome.stderr == "enter: this kernel grants neither namespaces nor a chroot here" \
        f" ({reason})." \
        " Try as the machine's root, or allow user namespaces, see sysctl user.max_user_namespaces\n"
    assert outcome.stdout == ""
