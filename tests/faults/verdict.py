"""What a run with a fault may come to, and what not."""
import dataclasses
import re
import signal
from collections.abc import Iterator
from typing import Any

import scenarios
from control import Record
from scenarios import Root

# A run that says one of these has given up what comes after it, as it should.
GIVEN_UP = ("Failed to start executor", "unhandled exception whilst enumerating plugins", "unable to execute plugins",
            "unable to complete the run", "unable to run", "Failed to initialize lofter")
# These cost the plugins of one kind, whose common means they are: the executor, the list of daemons.
COMMON_MEANS = ("Failed setting up Poll Loop", "Unable to start executor", "unable to add external directory",
                "unable to read its output", "unable to read all init.d scripts", "no exit status")
# Stopping the executor is one attempt, and one that fails leaves it running; likewise one that was started although its
# start looked like a failure.
EXECUTOR_LEFT = ("Executor already gone.", "Failed sending STOP to executor", "Failed to read message from socket",
                 "Error accepting connection", "Failed collecting executor's exit status")
# What a complete walk must have heard.
MESSAGES = {
    "open": ["opening /dev/null failed", "Failed opening /dev/null", "Failed opening log file "],
    "write": ["unable to save run-once record: unable to write ", "unable to log profiling information: "],
    "fsync": ["unable to sync '/var/log/sysboot.log."],
    "rename": ["unable to rename '/var/log/sysboot.log."],
    "mkstemp": ["unable to open profiling log (/var/log/sysboot.log): No space left on device.",
                "unable to reopen profiling log (/var/log/sysboot.log): No space left on device."],
    "fork": ["Failed to start executor Failed to forkResource temporarily unavailable",
             "unable to load native plugins in a process of their own: Resource temporarily unavailable"],
    "daemon": ["Unable to start executor: Failed to daemonize", "Failed to start executor Lofter executor failed to start"],
    "posix_spawn": ["failed to spawn: Resource temporarily unavailable",
                    "failed to ForkExec '/etc/init.d/one start' : Resource temporarily unavailable"],
    "system": ["failed to call /usr/lib/tessel/tssyslog/bin/upgrade-syslog.conf.sh", "debug injection 'first' returned "],
    "popen": ["Failed obtaining list of init.d scripts"],
    "pthread_create": ["Could not create enough execution threads. (0 created, 1requested)",
                       "Unable to start executor: Failed creating Executor Event Loop thread"],
    "pthread_cond_init": ["Condition variable for Executor could not be initialized"],
    "socket": ["Error opening control socket for executor: Too many open files",
               "Failed creating lofter client socket Too many open files",
               "unable to load native plugins in a process of their own: Too many open files"],
    "bind": ["Failed to bind to executor control socket: Address already in use"],
    "listen": ["Failed to listen on executor control socket: Address already in use"],
    "connect": ["Failed connecting to executor Connection refused", "Executor already gone."],
    "accept": ["Error accepting connection on contol socket - Too many open files"],
    "send": ["Failed sending command to executor: Broken pipe", "Failed sending STOP to executorBroken pipe",
             "Sending command status to lofter failed"],
    "recv": ["Failed to read message from socket - Connection reset by peer",
             "Failed to recieve command status from Executor: Connection reset by peer"],
    "waitpid": ["Failed collecting executor's exit status", "failed <unknown_error>", "failed to read exit status"],
    "signal": ["Lofter cannot ignore SIGPIPE"],
}

# A run may panic where going on would do harm: a daemon without a directory to start in, a message without memory.
PANICS = ("VERIFY apps/lofter/hopper/DaemonPlugin:86", "Str_SafeVasprintf: ")
STAMP = re.compile(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} ")


@dataclasses.dataclass
class Outcome:
    """Everything that a run left; see plain() for what two equal runs have in common."""
    status: int | None  # None: it did not end
    output: str
    syslog: list[str]
    deaths: list[int]
    leftovers: list[str]
    marks: list[str]
    profile: str
    mode: int
    record: str | None
    kernel: str
    executor_log: str
    unexpected: list[str]
    run: Record

    @staticmethod
    def collect(answer: dict[str, Any], root: Root, record: Record) -> "Outcome":
        return Outcome(answer["status"], answer["output"], answer["syslog"], answer["deaths"], answer["leftovers"],
                       root.read(scenarios.MARKS).splitlines(), root.read(scenarios.PROFILE), root.mode(), root.record(),
                       root.read(scenarios.KERNEL_LOG), root.read(scenarios.EXECUTOR_LOG), root.unexpected(), record)

    def plain(self) -> dict[str, Any]:
        """Without times, and without the order in which processes took turns."""
        def lines(text: str) -> list[str]:
            text = re.sub(scenarios.TIME, "TIME", STAMP.sub("", text))
            text = re.sub(r"took \d+ us|Time: \d+|Random Seed: \d+", "N", text)
            return sorted(text.splitlines())
        syslog = sorted(re.sub(r"^(<\d+>).{15} ", r"\1", record.rstrip("\0")) for record in self.syslog)
        syslog = [re.sub(r"took \d+ us", "N", line) for line in syslog]
        return {"status": self.status, "output": lines(self.output), "syslog": syslog, "deaths": self.deaths,
                "leftovers": self.leftovers, "marks": sorted(self.marks), "profile": lines(self.profile), "mode": self.mode,
                "record": self.record, "kernel": lines(self.kernel), "executor log": lines(self.executor_log),
                "unexpected": self.unexpected}

    def said(self) -> str:
        return self.output + self.executor_log + "\n".join(self.syslog)


def profile_complaint(scenario: str, outcome: Outcome) -> str | None:
    old = scenarios.OLD_PROFILE
    if outcome.profile == old:
        return None
    if scenario in ("boot", "parallel") and scenarios.BOOT_SECTION.fullmatch(outcome.profile):
        return None
    if scenario.startswith("daemon") and outcome.profile.startswith(old) and \
            scenarios.DAEMON_SECTION.fullmatch(outcome.profile[len(old):]):
        return None
    return f"the profiling log is neither the old one nor a new one:\n{outcome.profile}"


def complaints(scenario: str, kind: str | None, outcome: Outcome, usual: Outcome) -> Iterator[str]:
    """What is wrong with a run in which one call failed."""
    if outcome.status is None:
        yield f"did not end; there were {outcome.leftovers}"
        return
    if outcome.status == -signal.SIGABRT and any(text in outcome.said() for text in PANICS):
        return
    if outcome.status not in (0, 1):
        yield f"exit status {outcome.status}"
    if outcome.status == 1 and "error" not in outcome.said() and "warning" not in outcome.said():
        yield "exit status 1 without a reason"
    for number in [*outcome.deaths, *([outcome.run.killed_by] if outcome.run.killed_by else [])]:
        yield f"a process was ended by signal {number}"
    if outcome.leftovers and not any(text in outcome.said() for text in EXECUTOR_LEFT):
        yield f"left processes behind: {outcome.leftovers}"
    if outcome.unexpected:
        yield f"left files behind: {outcome.unexpected}"
    if complaint := profile_complaint(scenario, outcome):
        yield complaint
    records = (scenarios.OLD_RECORD, scenarios.EMPTY_RECORD, usual.record)
    if outcome.record not in records and "unable to save run-once record" not in outcome.said():
        yield f"the run-once record is damaged: {outcome.record!r}"
    yield from plugin_complaints(outcome, usual)


def plugin_complaints(outcome: Outcome, usual: Outcome) -> Iterator[str]:
    """One fault costs one plugin at most, and that one says so."""
    missing = sorted(set(usual.marks) - set(outcome.marks))
    plugins = {mark.partition(".")[0] for mark in missing}
    allowed = 1 if not any(text in outcome.said() for text in COMMON_MEANS) else 3
    if len(plugins) > allowed and not any(text in outcome.said() for text in GIVEN_UP):
        yield f"what did not happen: {missing}"


BEFORE_THE_LOG = ("lofter::InitializeLogging(", "lofter::Settings::Instance(")


def is_unavoidable(process: int, outcome: Outcome, locations: list[str]) -> bool:
    """Of a run in which memory ran out: whether it ended a process at a place where nothing else could come of it.

    The locations are those of the program's own functions, the innermost first."""
    if outcome.status == 1 and any(place.startswith(BEFORE_THE_LOG) for place in locations):
        return True  # and nobody to tell
    deaths = {*outcome.deaths, *([outcome.run.killed_by] if outcome.run.killed_by else [])}
    if outcome.status != -signal.SIGABRT and (outcome.status not in (0, 1) or deaths != {signal.SIGABRT}):
        return False
    # Nobody is there yet to take an exception.
    before_main = process == 0 and all(place == "_start" or place.startswith("_GLOBAL__") for place in locations[-2:])
    # The JSON library's destructor is noexcept and allocates.
    own = [place for place in locations if not place.startswith("std::")]
    return before_main or (own != [] and own[0].startswith("nlohmann::") and "::destroy(" in own[0])


def storm_complaints(outcome: Outcome, usual: Outcome) -> Iterator[str]:
    plain, expected = outcome.plain(), usual.plain()
    for name, value in plain.items():
        if value != expected[name]:
            if isinstance(value, list):
                less = [line for line in expected[name] if line not in value]
                more = [line for line in value if line not in expected[name]]
                yield f"{name}: less {less[:3]}, more {more[:3]}" if less or more else f"{name}: lines more or less often"
            else:
                yield f"{name}: {value!r}, without interruptions {expected[name]!r}"
