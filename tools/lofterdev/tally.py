"""How many checks of a tool have passed and failed, which is the last line of every one of them."""
import pathlib
import sys
import typing
import xml.etree.ElementTree as xml


def finish(passed: int, failed: int) -> typing.NoReturn:
    print(f"{passed} passed, {failed} failed", flush=True)
    sys.exit(failed != 0)


class Tally:
    def __init__(self) -> None:
        self.passed = 0
        self.failed = 0

    def add(self, ok: bool) -> None:
        self.passed += ok
        self.failed += not ok

    def add_junit(self, path: pathlib.Path, succeeded: bool) -> None:
        """Counts what a test program recorded. A program that failed without a failed test is one failure of its own."""
        passed = failed = 0
        if path.exists():
            for case in xml.parse(path).getroot().iter("testcase"):
                bad = any(case.find(kind) is not None for kind in ("failure", "error", "skipped"))
                failed += bad
                passed += not bad
        if not succeeded and failed == 0 or passed + failed == 0:
            failed += 1
        self.passed += passed
        self.failed += failed

    def finish(self) -> typing.NoReturn:
        finish(self.passed, self.failed)
