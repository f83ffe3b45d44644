"""The command that newcomers run first."""
import os
import pathlib
import re
import subprocess

from support.host import BUILD

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]


def test_dev_boot_boots_the_demo_host_and_shows_what_it_did():
    graph = REPOSITORY / "build/host/boot.svg"
    graph.unlink(missing_ok=True)
    outcome = subprocess.run(["./dev", "boot"], cwd=REPOSITORY, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                             stderr=subprocess.STDOUT, text=True, timeout=120, env={**os.environ, "LOFTER_BUILD": str(BUILD)})
    assert outcome.returncode == 0, outcome.stdout
    assert "lofter: Lofter plugin hello activated.\n" in outcome.stdout
    assert "Lofter plugin scratch activation failed: scratch->start() failed: error while executing the cli" in outcome.stdout
    assert "debug injection 'license' returned 0x000100" in outcome.stdout
    assert "lofter.run-once=greeting1.0,identity1.0,\n" in outcome.stdout
    assert re.search(r"^\[.+ - .+\] sysboot: welcome$", outcome.stdout, re.MULTILINE)
    assert "welcome      The host is up." in outcome.stdout
    assert graph.read_text().count("<polygon") > 5
