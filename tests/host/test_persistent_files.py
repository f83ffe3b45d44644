"""The files that a run leaves: the profiling log and the record of what runs once, also on disks that take nothing."""
import datetime
import gzip
import os
import re
import stat
import time

import pytest

from lofterdev.host import Host, Outcome

PROFILE = "/var/log/sysboot.log"
RECORD = "/bootbank/loftsave.gz"
INVOKE = ["--invoke", "--method=start", "--plugin=a.debug"]

TIME = r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6}"


def errors(outcome: Outcome) -> list[str]:
    return [line for line in outcome.log() if line.startswith(("error ", "warning ")) and "while logging msg" not in line]


def moment(text: str) -> float:
    return datetime.datetime.strptime(text + " +0000", "%Y-%m-%d %H:%M:%S.%f %z").timestamp()


def saved_plugins(host: Host) -> str:
    return host.read_gzip(RECORD)


@pytest.fixture
def small(host: Host) -> Host:
    host.debug_configuration("a:::true")
    return host


# The profiling log.

def test_the_profiling_log_has_the_kernel_the_plugins_in_their_order_and_the_configuration(host: Host) -> None:
    host.debug_configuration("late:x::sleep 0.02", "it's 100%s\\: ü::x:sleep 0.02".replace("'", "\\'"))
    before = time.time()
    assert host.lofter("--init", "--verbose", "--parallel", "--randomize=-5").status == 0
    after = time.time()
    lines = host.read(PROFILE).split("\n")
    uptime = int(re.fullmatch(r"Krxkernel Initialization Time: (\d+)000000", lines[0]).group(1))
    assert abs(uptime - time.clock_gettime(time.CLOCK_BOOTTIME)) < 60
    late = re.fullmatch(f"\\[({TIME}) - ({TIME})\\] sysboot: late", lines[1])
    early = re.fullmatch(f"\\[({TIME}) - ({TIME})\\] sysboot: it's 100%s: ü", lines[2])
    assert lines[3] == "=== Lofter configuration info ==="
    start = re.fullmatch(f" Start: ({TIME})", lines[4])
    end = re.fullmatch(f" End: ({TIME})", lines[5])
    assert late and early and start and end
    assert lines[6:] == [" Verbose: 1", " Parallel: 1", " Randomize: 1", " Interactive Mode: 0", " Random Seed: -5", ""]
    moments = [before, moment(start[1]), moment(early[1]), moment(early[2]), moment(late[1]), moment(late[2]), moment(end[1]), after]
    assert moments == sorted(moments)
    assert moment(early[2]) - moment(early[1]) >= 0.02


def test_a_run_without_plugins_profiles_the_kernel_and_the_configuration_only(host: Host) -> None:
    assert host.lofter().status == 0
    assert re.sub(r"\d[-\d:. ]*\d|\d", "N", host.read(PROFILE)) == (
        "Krxkernel Initialization Time: N\n=== Lofter configuration info ===\n Start: N\n End: N\n Verbose: N\n Parallel: N\n"
        " Randomize: N\n Interactive Mode: N\n Random Seed: N\n")


def test_the_profiling_log_is_replaced_and_keeps_its_mode(small: Host) -> None:
    small.write(PROFILE, "old\n" * 10000, 0o604)
    assert small.lofter().status == 0
    assert small.read(PROFILE).startswith("Krxkernel")
    assert "old" not in small.read(PROFILE)
    assert stat.S_IMODE(small.path(PROFILE).stat().st_mode) == 0o604


def test_a_new_profiling_log_is_its_owners_alone(small: Host) -> None:
    assert small.lofter().status == 0
    assert stat.S_IMODE(small.path(PROFILE).stat().st_mode) == 0o600


def test_readers_of_the_old_profiling_log_keep_it_whole(small: Host) -> None:
    small.write(PROFILE, "old\n")
    with small.path(PROFILE).open() as reader:
        assert small.lofter().status == 0
        assert reader.read() == "old\n"


def run_on(host: Host, directory: str, *arguments: str, size: str = "64k", prepare: str = "") -> tuple[Outcome, list[str]]:
    """A run with a full memory file system at a directory, and what is in there at the end."""
    script = f"""
        {prepare}
        cat /dev/zero >{directory}/filler 2>/dev/null
        lofter {' '.join(arguments)}
        echo status $?
        ls {directory}"""
    outcome = host.run("sh", "-c", script, tmpfs=[(directory, size)], grace=10)
    assert outcome.leftovers == []
    return outcome, outcome.output.rpartition("status ")[2].split()


def test_a_full_disk_under_the_profiling_log_keeps_the_old_one(small: Host) -> None:
    outcome, (status, *files) = run_on(small, "/var/log", prepare=f"echo old >{PROFILE}")
    assert errors(outcome) == ["warning unable to log profiling information: No space left on device."]
    assert status == "0"
    assert sorted(files) == ["filler", "lofter-qorcli-stdout.log", "sysboot.log"]
    outcome = small.run("sh", "-c", f"echo old >{PROFILE}; cat /dev/zero >/var/log/filler; lofter >/dev/null; cat {PROFILE}",
                        tmpfs=[("/var/log", "64k")])
    assert outcome.output == "old\n"


def test_a_disk_that_fills_up_under_a_long_profiling_log_keeps_the_old_one(host: Host) -> None:
    host.debug_configuration(*(f"{'long-name-' * 20}{number}:::true" for number in range(50)))
    outcome = host.run("sh", "-c", f"echo old >{PROFILE}; lofter; echo status $?; cat /var/log/sysboot.log*", tmpfs=[("/var/log", "12k")])
    assert errors(outcome) == ["warning unable to log profiling information: No space left on device."]
    assert outcome.output.endswith("status 0\nold\n")


@pytest.mark.parametrize("mode", [[], ["--init"]], ids=["plain", "boot"])
def test_a_missing_directory_costs_the_profiling_log(small: Host, mode: list[str]) -> None:
    small.path("/var/log").rmdir()
    outcome = small.lofter(*mode)
    assert outcome.status == 0
    assert f"error unable to open profiling log ({PROFILE}): No such file or directory." in outcome.log()
    assert small.exists(RECORD)
    if mode:  # the rest of the run
        assert "warning unable to open krxsyslogd pid file." in outcome.log()


def test_a_read_only_directory_costs_the_profiling_log(small: Host) -> None:
    small.write(PROFILE, "old\n")
    outcome = small.lofter(read_only=["/var/log"])
    assert outcome.status == 0
    assert f"error unable to open profiling log ({PROFILE}): Read-only file system." in outcome.log()
    assert small.read(PROFILE) == "old\n"


def test_a_directory_that_may_not_be_written_costs_the_profiling_log(small: Host) -> None:
    small.write(PROFILE, "old\n")
    small.write("/var/log/lofter-qorcli-stdout.log", "")
    small.path("/var/log").chmod(0o555)
    outcome = small.lofter(heed_modes=True)
    assert outcome.status == 0
    assert f"error unable to open profiling log ({PROFILE}): Permission denied." in outcome.log()
    assert small.read(PROFILE) == "old\n"


def test_a_directory_in_the_profiling_logs_place_stays(small: Host) -> None:
    small.path(PROFILE).mkdir()
    outcome = small.lofter()
    assert outcome.status == 0
    line, = errors(outcome)
    assert re.fullmatch(f"warning unable to log profiling information: unable to rename '{PROFILE}\\.\\w{{6}}' to '{PROFILE}': "
                        "Is a directory\\.", line)
    assert sorted(os.listdir(small.path("/var/log"))) == ["lofter-qorcli-stdout.log", "sysboot.log"]


def test_a_daemon_run_on_a_full_disk_keeps_the_profiling_log(host: Host) -> None:
    outcome = host.run("sh", "-c", f"""
        echo old >{PROFILE}; cat /dev/zero >/var/log/filler 2>/dev/null
        lofter --daemon --method=start; echo status $?; cat /var/log/sysboot.log*""", tmpfs=[("/var/log", "64k")])
    assert outcome.output.endswith("status 0\nold\n")
    assert [line for line in errors(outcome) if "profiling" in line] in (
        [f"error unable to reopen profiling log ({PROFILE}): No space left on device."],
        ["warning unable to log daemon profiling information: No space left on device."])


def test_two_daemon_runs_follow_a_boots_section(host: Host) -> None:
    host.write_script("/bin/chkconfig", "true")
    host.lofter()
    boot = host.read(PROFILE)
    for arguments in (["--method=start"], ["--method=stop"]):
        assert host.lofter("--daemon", *arguments).status == 0
    assert host.read(PROFILE).startswith(boot)
    assert re.findall("^(?:Krx\\w+|=== .*)", host.read(PROFILE), re.MULTILINE) == [
        "Krxkernel", "=== Lofter configuration info ===", "=== Daemon configuration info ===", "=== Daemon configuration info ==="]
    assert len(re.findall(f"^ Start Daemon: {TIME}\n End Daemon: {TIME}\n Verbose: 0\n", host.read(PROFILE), re.MULTILINE)) == 2


# The record of what runs once.

def record(host: Host, content: bytes | str) -> None:
    host.write(RECORD, content if isinstance(content, bytes) else gzip.compress(content.encode()))


def test_an_invocation_without_a_record_writes_an_empty_one(small: Host) -> None:
    assert small.lofter(*INVOKE).status == 0
    assert saved_plugins(small) == "lofter.run-once=\n"
    assert not small.exists(PROFILE)


def test_a_record_is_a_plain_gzip_file(small: Host) -> None:
    small.lofter("--run-once=a")
    content = small.path(RECORD).read_bytes()
    # Deflate, no name, no comment, no time.
    assert content[:8] == b"\x1f\x8b\x08\0\0\0\0\0"
    assert gzip.decompress(content) == b"lofter.run-once=a,\n"
    assert small.run("gzip", "-dc", RECORD).output == "lofter.run-once=a,\n"


@pytest.mark.parametrize("text, saved", [
    ("lofter.run-once=a,b,\n", "a,b,"), ("lofter.run-once= a , b\n", "a,b,"), ("lofter.run-once=\n", ""),
    ("lofter.run-once=b,a,,b, \t,\n", "a,b,"), ("lofter.run-once=größe 100%s,\n", "größe 100%s,"),
    ("lofter.run-once=", ""), ("lofter.run-once=a,\nb,\n", "a,b,"),
    ("lofter.run-twice=a,b,\n", ""), ("other=a,b,\n", ""), ("lofter.run-onc", ""), (" lofter.run-once=a,\n", ""), ("", ""),
], ids=repr)
def test_an_invocation_adds_to_what_a_record_holds(small: Host, text: str, saved: str) -> None:
    record(small, text)
    outcome = small.lofter(*INVOKE)
    assert (outcome.status, errors(outcome)) == (0, [])
    assert saved_plugins(small) == f"lofter.run-once={saved}\n"


def test_names_from_the_command_line_and_the_record_add_up(small: Host) -> None:
    record(small, "lofter.run-once=b,\n")
    assert small.lofter(*INVOKE, "--run-once=c,a").status == 0
    assert saved_plugins(small) == "lofter.run-once=a,b,c,\n"


def test_a_boot_forgets_what_the_record_held(small: Host) -> None:
    record(small, "lofter.run-once=b,\n")
    assert small.lofter("--init").status == 0
    assert saved_plugins(small) == "lofter.run-once=\n"


WHOLE = gzip.compress(("lofter.run-once=" + ",".join(map(str, range(1000))) + ",\n").encode(), mtime=0)


@pytest.mark.parametrize("content", [b"lofter.run-once=a,\n", WHOLE[:-4], WHOLE[:len(WHOLE) // 2], WHOLE[:5], b"\0" * 100,
                                     WHOLE[:40] + b"\xff" * 20 + WHOLE[60:]],
                         ids=["text", "cut in its end", "cut in its middle", "cut in its head", "zeros", "damaged"])
def test_a_record_that_is_not_whole_stops_an_invocation_but_not_a_boot(small: Host, content: bytes) -> None:
    record(small, content)
    outcome = small.lofter(*INVOKE)
    assert (outcome.status, outcome.leftovers) == (1, [])
    assert re.search(r"error lofter: unhandled exception whilst enumerating plugins\.\nDetails:\n .+ \n", outcome.output)
    assert "Activating" not in outcome.output
    assert small.path(RECORD).read_bytes() == content
    small.restart()
    assert small.lofter("--init").status == 0
    assert saved_plugins(small) == "lofter.run-once=\n"


def test_an_empty_record_adds_nothing(small: Host) -> None:
    record(small, b"")
    outcome = small.lofter(*INVOKE)
    assert (outcome.status, errors(outcome)) == (0, [])
    assert saved_plugins(small) == "lofter.run-once=\n"


def test_a_record_that_may_neither_be_read_nor_written_stays(small: Host) -> None:
    record(small, WHOLE)
    small.path(RECORD).chmod(0)
    outcome = small.lofter(*INVOKE, heed_modes=True)
    assert outcome.status == 0
    assert errors(outcome) == [f"error unable to save run-once record: unable to write '{RECORD}': Permission denied"]
    assert small.path(RECORD).read_bytes() == WHOLE


def test_a_record_that_is_a_directory_adds_nothing_and_stays(small: Host) -> None:
    small.path(RECORD).mkdir()
    outcome = small.lofter(*INVOKE)
    assert outcome.status == 0
    assert errors(outcome) == [f"error unable to save run-once record: unable to write '{RECORD}': Is a directory"]


def test_a_record_that_inflates_without_bounds_is_refused(small: Host) -> None:
    record(small, gzip.compress(b"lofter.run-once=" + b"a" * (200 << 20), compresslevel=1))
    outcome = small.lofter(*INVOKE)
    assert outcome.status == 1
    assert "Details:\n run-once record is too large \n" in outcome.output


def test_a_full_boot_bank_costs_the_record_and_a_message(small: Host) -> None:
    outcome, (status, *files) = run_on(small, "/bootbank")
    assert status == "0"
    assert errors(outcome) == [f"error unable to save run-once record: unable to write '{RECORD}': No space left on device"]
    assert small.exists(PROFILE)


def test_a_read_only_boot_bank_costs_the_record_and_a_message(small: Host) -> None:
    outcome = small.lofter(read_only=["/bootbank"])
    assert outcome.status == 0
    assert errors(outcome) == [f"error unable to save run-once record: unable to write '{RECORD}': Read-only file system"]
    assert small.exists(PROFILE)


def test_a_missing_boot_bank_costs_the_record_and_a_message(small: Host) -> None:
    small.path("/bootbank").rmdir()
    outcome = small.lofter("--init")
    assert outcome.status == 0
    assert f"error unable to save run-once record: unable to write '{RECORD}': No such file or directory" in outcome.log()


# Other files that a run writes.

def test_a_full_disk_under_the_system_alert_costs_a_message(host: Host) -> None:
    host.debug_configuration("a:nobody::true")
    host.path("/run/issue.d").mkdir()
    outcome, (status, *files) = run_on(host, "/run/issue.d")
    assert status == "0"
    assert [line for line in errors(outcome) if "alert" in line and "No space left on device" in line]
    assert [line for line in errors(outcome) if line.startswith("warning Lofter dependency error: ")]
    assert [name for name in files if name not in ("filler", "50-lofter.issue")] == []


def test_a_full_disk_under_a_dump_is_not_an_error(host: Host) -> None:
    host.debug_configuration("a:::true")
    host.path("/srv").mkdir(exist_ok=True)
    outcome, (status, *files) = run_on(host, "/srv", "--dump-dependency-tree=/srv/dump")
    assert (status, sorted(files)) == ("0", ["dump", "filler"])
