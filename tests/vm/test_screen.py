"""An interactive boot at the machine's own screen and keyboard.

docs/machine-screen.png is the screen while lofter starts the daemons. To take it anew, run this test with RECORD=1 in the
environment.
"""
import os
import pathlib
import struct
import zlib

from consoles import BOOT, IMAGE, activations, Console, is_open
from lofterdev.machine import FIRMWARE, Machine
from lofterdev.repository import REPOSITORY
from lofterdev.waiting import eventually

PICTURE = REPOSITORY / "docs" / "machine-screen.png"
KEYS = {" ": ["spc"], "\n": ["ret"], "/": ["slash"], ">": ["shift", "dot"]}


def type_keys(machine: Machine, text: str) -> None:
    for character in text:
        lower = character.lower()
        machine.press(*KEYS.get(character, [lower] if character == lower else ["shift", lower]))


def read_picture(path: pathlib.Path) -> tuple[int, int, float]:
    """Width, height and the share of lit samples of a PNG file."""
    data = path.read_bytes()
    assert data.startswith(b"\x89PNG\r\n\x1a\n")
    position, pixels = 8, b""
    while position < len(data):
        size, kind = struct.unpack(">I4s", data[position:position + 8])
        chunk = data[position + 8:position + 8 + size]
        if kind == b"IHDR":
            width, height = struct.unpack(">II", chunk[:8])
        if kind == b"IDAT":
            pixels += chunk
        position += size + 12
    samples = zlib.decompress(pixels)
    return width, height, 1 - samples.count(0) / len(samples)


def next_plugin(machine: Machine, seen: int) -> str:
    """The plugin that is activated after the first `seen` ones, by the kernel's log; waits for its end as well."""
    start = 0
    for _ in range(seen + 1):
        match = machine.expect(r"lofter: Activating Lofter plugin (\S+)\.$", BOOT, start)
        start = match.end()
    machine.expect(rf"lofter: Lofter plugin {match.group(1)} activated\.$", BOOT, start)
    return match.group(1)


def test_an_operator_at_the_screen_decides_what_is_executed(disks: list[pathlib.Path], tmp_path: pathlib.Path) -> None:
    settings = {"terminal": "tty1", "options": "--interactive", "records": "boot", "after": "login"}
    with Machine(IMAGE, disks, settings, consoles=("ttyAMA0", "tty0"), firmware=FIRMWARE) as machine:
        machine.expect(r"^machine: \S+ --init --interactive begins", BOOT)
        machine.press("e")
        assert next_plugin(machine, 0) == "devices"

        # A shell in the middle, which takes the terminal over; after it the prompts go on there.
        machine.press("t")
        type_keys(machine, "cat /sys/class/tty/tty0/active>/dev/ttyAMA0\n")
        machine.expect(r"^tty1$", 60)
        type_keys(machine, "tty>/dev/ttyAMA0\n")
        machine.expect(r"^/dev/tty1$", 60)
        assert len(activations(machine.text)[0]) == 1
        type_keys(machine, "exit\n")
        second = next_plugin(machine, 1)

        machine.press("s")
        machine.press("shift", "e")
        third = next_plugin(machine, 2)
        machine.press("c")
        # Once one daemon answers, the next is being started: a line of the progress screen, which no record overwrites now.
        machine.expect(r"^machine: \S+ --daemon=wait --method=start begins", BOOT)
        eventually(lambda: is_open(machine.ports["ssh"]), "the third daemon answers", 60)
        picture = tmp_path / "screen.png"
        machine.screenshot(picture)

        console = Console(machine)
        assert machine.verdict() == 0
        assert console.output("cat /sys/class/tty/tty0/active") == "tty11\n"
        log = console.output("grep -c 'skipping plugin .* (interactive mode request)' /var/log/syslog.log")
        assert log == "1\n"
        assert second != third
    width, height, lit = read_picture(picture)
    assert width >= 640 and height >= 480
    assert 0.002 < lit < 0.5  # text on black
    if os.environ.get("RECORD"):
        PICTURE.write_bytes(picture.read_bytes())
    assert read_picture(PICTURE)[:2] == (width, height)
