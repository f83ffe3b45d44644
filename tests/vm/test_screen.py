"""An interactive boot at the machine's own screen and keyboard.

docs/machine-screen.png is the screen while lofter starts the daemons. To take it anew, run this test with RECORD=1 in the
environment.
"""
import os
import struct
import zlib

from consoles import BOOT, IMAGE, REPOSITORY, Activations, Console, IsOpen
from machine import FIRMWARE, Machine
from support.waiting import Eventually

PICTURE = REPOSITORY / "docs" / "machine-screen.png"
KEYS = {" ": ["spc"], "\n": ["ret"], "/": ["slash"], ">": ["shift", "dot"]}


def TypeKeys(machine, text):
    for character in text:
        lower = character.lower()
        machine.Press(*KEYS.get(character, [lower] if character == lower else ["shift", lower]))


def Picture(path):
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


def NextPlugin(machine, seen):
    """The plugin that is activated after the first `seen` ones, by the kernel's log; waits for its end as well."""
    start = 0
    for _ in range(seen + 1):
        match = machine.Expect(r"lofter: Activating Lofter plugin (\S+)\.$", BOOT, start)
        start = match.end()
    machine.Expect(rf"lofter: Lofter plugin {match.group(1)} activated\.$", BOOT, start)
    return match.group(1)


def test_an_operator_at_the_screen_decides_what_is_executed(disks, tmp_path):
    settings = {"terminal": "tty1", "options": "--interactive", "records": "boot", "after": "login"}
    with Machine(IMAGE, disks, settings, consoles=("ttyAMA0", "tty0"), firmware=FIRMWARE) as machine:
        machine.Expect(r"^machine: \S+ --init --interactive begins", BOOT)
        machine.Press("e")
        assert NextPlugin(machine, 0) == "devices"

        # A shell in the middle, which takes the terminal over; after it the prompts go on there.
        machine.Press("t")
        TypeKeys(machine, "cat /sys/class/tty/tty0/active>/dev/ttyAMA0\n")
        machine.Expect(r"^tty1$", 60)
        TypeKeys(machine, "tty>/dev/ttyAMA0\n")
        machine.Expect(r"^/dev/tty1$", 60)
        assert len(Activations(machine.text)[0]) == 1
        TypeKeys(machine, "exit\n")
        second = NextPlugin(machine, 1)

        machine.Press("s")
        machine.Press("shift", "e")
        third = NextPlugin(machine, 2)
        machine.Press("c")
        # Once one daemon answers, the next is being started: a line of the progress screen, which no record overwrites now.
        machine.Expect(r"^machine: \S+ --daemon=wait --method=start begins", BOOT)
        Eventually(lambda: IsOpen(machine.ports["ssh"]), "the third daemon answers", 60)
        picture = tmp_path / "screen.png"
        machine.Screenshot(picture)

        console = Console(machine)
        assert machine.Verdict() == 0
        assert console.Output("cat /sys/class/tty/tty0/active") == "tty11\n"
        log = console.Output("grep -c 'skipping plugin .* (interactive mode request)' /var/log/syslog.log")
        assert log == "1\n"
        assert second != third
    width, height, lit = Picture(picture)
    assert width >= 640 and height >= 480
    assert 0.002 < lit < 0.5  # text on black
    if os.environ.get("RECORD"):
        PICTURE.write_bytes(picture.read_bytes())
    assert Picture(PICTURE)[:2] == (width, height)
