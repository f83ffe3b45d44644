"""A machine whose power is cut while lofter works boots the next time."""
import concurrent.futures
import pathlib
import random
import re
import time

from consoles import BOOT, IMAGE, make_disks
from lofterdev.machine import Machine

CUTS = 10
MACHINES = 2  # at the same time, for what they have to wait for


def check_what_was_found(text: str, plugins: list[str]) -> None:
    """The last boot's profiling log or the one before it, but a whole one; an archive that is whole, or torn in its place."""
    log, = re.findall(r"^machine: profiling log found:\n((?:.*\n)*?)machine: end of the profiling log", text, re.MULTILINE)
    lines = log.splitlines()
    assert re.fullmatch(r"Krxkernel Initialization Time: \d+", lines[0]), log
    times = r"\[\S+ \S+ - \S+ \S+\] sysboot: (\S+)"
    assert sorted(re.findall(times, log)) == plugins, log
    assert re.fullmatch(r" Random Seed: -?\d+", lines[-1]), log
    assert len(lines) == 1 + len(plugins) + 8, log
    assert re.search(r"^machine: (whole|torn) run-once archive$", text, re.MULTILINE)


def cut_and_boot(disks: list[pathlib.Path], moments: random.Random, cuts: int) -> None:
    settings = {"daemons": "off", "found": "show", "after": "repeat"}
    plugins: list[str] = []
    for number in range(cuts + 1):
        with Machine(IMAGE, disks, settings) as machine:
            begun = machine.expect(r"^machine: \S+ --init begins at ([\d.]+) s", BOOT)
            verdict = machine.expect(r"^machine: verdict (\d) at ([\d.]+) s", BOOT)
            assert verdict.group(1) == "0", machine.text
            if number > 0:
                check_what_was_found(machine.text[:begun.start()], plugins)
            plugins = sorted(re.findall(r"executing start plugin: (\S+)$", machine.text[:verdict.start()], re.MULTILINE))
            # By now lofter's boot run is done over and over: the power goes somewhere within two of them.
            machine.run_for(moments.uniform(0, 2 * (float(verdict.group(2)) - float(begun.group(1)))))
            machine.cut()


def test_a_machine_whose_power_is_cut_boots_the_next_time(tmp_path: pathlib.Path) -> None:
    seed = int(time.time())
    print(f"moments drawn with seed {seed}")
    with concurrent.futures.ThreadPoolExecutor(MACHINES) as pool:
        runs = [pool.submit(cut_and_boot, make_disks(tmp_path / str(number)), random.Random(seed + number), CUTS // MACHINES)
                for number in range(MACHINES)]
        for run in runs:
            run.result()
