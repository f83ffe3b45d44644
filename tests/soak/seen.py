"""What a run left on its host: files, logs, marks."""
import os
import time

from lofterdev.host import Host, Outcome
from lofterdev.syslog import Record

ARCHIVE, PROFILE, ALERT = "/bootbank/loftsave.gz", "/var/log/sysboot.log", "/run/issue.d/50-lofter.issue"
MARKS, DUMP = "/var/marks", "/var/tree.dot"


class Seen:
    """Of one run: made before it, complete after collect()."""

    def __init__(self, host: Host) -> None:
        self.host = host
        self.archive_before, self.profile_before = self.content(ARCHIVE), self.text(PROFILE)
        self.times = [time.time_ns() // 1000]
        self.uptimes = [int(time.clock_gettime(time.CLOCK_BOOTTIME))]

    def content(self, path: str) -> bytes | None:
        return self.host.path(path).read_bytes() if self.host.exists(path) else None

    def text(self, path: str) -> str | None:
        content = self.content(path)
        return None if content is None else content.decode(errors="surrogateescape")

    def collect(self, outcome: Outcome, output: list[str], records: list[Record]) -> None:
        self.times.append(time.time_ns() // 1000)
        self.uptimes.append(int(time.clock_gettime(time.CLOCK_BOOTTIME)) + 1)
        self.status, self.leftovers = outcome.status, outcome.leftovers
        self.output, self.errors = output
        self.records = records
        prefix = "<6>lofter: "
        self.kernel = [line[len(prefix):] if line.startswith(prefix) else line for line in self.host.kernel_lines()]
        self.marks = (self.text(MARKS) or "").split("\n")[:-1]
        self.archive, self.profile = self.content(ARCHIVE), self.text(PROFILE)
        self.dump, self.alert = self.text(DUMP), self.text(ALERT)
        self.log_files = set(os.listdir(self.host.path("/var/log")))
        self.bank_files = set(os.listdir(self.host.path("/bootbank")))
