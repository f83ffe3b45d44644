"""The files that a run leaves: the profiling log and the record of what runs once, also on disks that take nothing."""
import datetime
import gzip
import os
import re
import stat
import time

import pytest

PROFILE = "/var/log/sysboot.log"
RECORD = "/bootbank/loftsave.gz"
INVOKE = ["--invoke", "--method=start", "--plugin=a.debug"]

TIME = r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6}"


def Errors(outcome):
    return [line for line in outcome.Log() if line.startswith(("error ", "warning ")) and "while logging msg" not in line]


def Moment(text):
    return datetime.datetime.strptime(text + " +0000", "%Y-%m-%d %H:%M:%S.%f %z").timestamp()


def Saved(host):
    return host.ReadGzip(RECORD)


@pytest.fixture
def small(host):
    host.DebugConfiguration("a:::true")
    return host


# The profiling log.

def test_the_profiling_log_has_the_kernel_the_plugins_in_their_order_and_the_configuration(host):
    host.DebugConfiguration("late:x::sleep 0.02", "it's 100%s\\: ü::x:sleep 0.02".replace("'", "\\'"))
    before = time.time()
    assert host.Lofter("--init", "--verbose", "--parallel", "--randomize=-5").status == 0
    after = time.time()
    lines = host.Read(PROFILE).split("\n")
    uptime = int(re.fullmatch(r"Krxkernel Initialization Time: (\d+)000000", lines[0]).group(1))
    assert abs(uptime - time.clock_gettime(time.CLOCK_BOOTTIME)) < 60
    late = re.fullmatch(f"\\[({TIME}) - ({TIME})\\] sysboot: late", lines[1])
    early = re.fullmatch(f"\\[({TIME}) - ({TIME})\\] sysboot: it's 100%s: ü", lines[2])
    assert lines[3] == "=== Lofter configuration info ==="
    start = re.fullmatch(f" Start: ({TIME})", lines[4])
    end = re.fullmatch(f" End: ({TIME})", lines[5])
    assert lines[6:] == [" Verbose: 1", " Parallel: 1", " Randomize: 1", " Interactive Mode: 0", " Random Seed: -5", ""]
    moments = [before, Moment(start[1]), Moment(early[1]), Moment(early[2]), Moment(late[1]), Moment(late[2]), Moment(end[1]), after]
    assert moments == sorted(moments)
    assert Moment(early[2]) - Moment(early[1]) >= 0.02


def test_a_run_without_plugins_profiles_the_kernel_and_the_configuration_only(host):
    assert host.Lofter().status == 0
    assert re.sub(r"\d[-\d:. ]*\d|\d", "N", host.Read(PROFILE)) == (
        "Krxkernel Initialization Time: N\n=== Lofter configuration info ===\n Start: N\n End: N\n Verbose: N\n Parallel: N\n"
        " Randomize: N\n Interactive Mode: N\n Random Seed: N\n")


def test_the_profiling_log_is_replaced_and_keeps_its_mode(small):
    small.Write(PROFILE, "old\n" * 10000, 0o604)
    assert small.Lofter().status == 0
    assert small.Read(PROFILE).startswith("Krxkernel")
    assert "old" not in small.Read(PROFILE)
    assert stat.S_IMODE(small.Path(PROFILE).stat().st_mode) == 0o604


def test_a_new_profiling_log_is_its_owners_alone(small):
    assert small.Lofter().status == 0
    assert stat.S_IMODE(small.Path(PROFILE).stat().st_mode) == 0o600


def test_readers_of_the_old_profiling_log_keep_it_whole(small):
    small.Write(PROFILE, "old\n")
    with small.Path(PROFILE).open() as reader:
        assert small.Lofter().status == 0
        assert reader.read() == "old\n"


def RunOn(host, directory, *arguments, size="64k", prepare=""):
    """A run with a full memory file system at a directory, and what is in there at the end."""
    script = f"""
        {prepare}
        cat /dev/zero >{directory}/filler 2>/dev/null
        lofter {' '.join(arguments)}
        echo status $?
        ls {directory}"""
    outcome = host.Run("sh", "-c", script, tmpfs=[(directory, size)], grace=10)
    assert outcome.leftovers == []
    return outcome, outcome.output.rpartition("status ")[2].split()


def test_a_full_disk_under_the_profiling_log_keeps_the_old_one(small):
    outcome, (status, *files) = RunOn(small, "/var/log", prepare=f"echo old >{PROFILE}")
    assert Errors(outcome) == ["warning unable to log profiling information: No space left on device."]
    assert status == "0"
    assert sorted(files) == ["filler", "lofter-qorcli-stdout.log", "sysboot.log"]
    outcome = small.Run("sh", "-c", f"echo old >{PROFILE}; cat /dev/zero >/var/log/filler; lofter >/dev/null; cat {PROFILE}",
                        tmpfs=[("/var/log", "64k")])
    assert outcome.output == "old\n"


def test_a_disk_that_fills_up_under_a_long_profiling_log_keeps_the_old_one(host):
    host.DebugConfiguration(*(f"{'long-name-' * 20}{number}:::true" for number in range(50)))
    outcome = host.Run("sh", "-c", f"echo old >{PROFILE}; lofter; echo status $?; cat /var/log/sysboot.log*", tmpfs=[("/var/log", "12k")])
    assert Errors(outcome) == ["warning unable to log profiling information: No space left on device."]
    assert outcome.output.endswith("status 0\nold\n")


@pytest.mark.parametrize("mode", [[], ["--init"]], ids=["plain", "boot"])
def test_a_missing_directory_costs_the_profiling_log(small, mode):
    small.Path("/var/log").rmdir()
    outcome = small.Lofter(*mode)
    assert outcome.status == 0
    assert f"error unable to open profiling log ({PROFILE}): No such file or directory." in outcome.Log()
    assert small.Exists(RECORD)
    if mode:  # the rest of the run
        assert "warning unable to open krxsyslogd pid file." in outcome.Log()


def test_a_read_only_directory_costs_the_profiling_log(small):
    small.Write(PROFILE, "old\n")
    outcome = small.Lofter(readOnly=["/var/log"])
    assert outcome.status == 0
    assert f"error unable to open profiling log ({PROFILE}): Read-only file system." in outcome.Log()
    assert small.Read(PROFILE) == "old\n"


def test_a_directory_that_may_not_be_written_costs_the_profiling_log(small):
    small.Write(PROFILE, "old\n")
    small.Write("/var/log/lofter-qorcli-stdout.log", "")
    small.Path("/var/log").chmod(0o555)
    outcome = small.Lofter(heedModes=True)
    assert outcome.status == 0
    assert f"error unable to open profiling log ({PROFILE}): Permission denied." in outcome.Log()
    assert small.Read(PROFILE) == "old\n"


def test_a_directory_in_the_profiling_logs_place_stays(small):
    small.Path(PROFILE).mkdir()
    outcome = small.Lofter()
    assert outcome.status == 0
    line, = Errors(outcome)
    assert re.fullmatch(f"warning unable to log profiling information: unable to rename '{PROFILE}\\.\\w{{6}}' to '{PROFILE}': "
                        "Is a directory\\.", line)
    assert sorted(os.listdir(small.Path("/var/log"))) == ["lofter-qorcli-stdout.log", "sysboot.log"]


def test_a_daemon_run_on_a_full_disk_keeps_the_profiling_log(host):
    outcome = host.Run("sh", "-c", f"""
        echo old >{PROFILE}; cat /dev/zero >/var/log/filler 2>/dev/null
        lofter --daemon --method=start; echo status $?; cat /var/log/sysboot.log*""", tmpfs=[("/var/log", "64k")])
    assert outcome.output.endswith("status 0\nold\n")
    assert [line for line in Errors(outcome) if "profiling" in line] in (
        [f"error unable to reopen profiling log ({PROFILE}): No space left on device."],
        ["warning unable to log daemon profiling information: No space left on device."])


def test_two_daemon_runs_follow_a_boots_section(host):
    host.WriteScript("/bin/chkconfig", "true")
    host.Lofter()
    boot = host.Read(PROFILE)
    for arguments in (["--method=start"], ["--method=stop"]):
        assert host.Lofter("--daemon", *arguments).status == 0
    assert host.Read(PROFILE).startswith(boot)
    assert re.findall("^(?:Krx\\w+|=== .*)", host.Read(PROFILE), re.MULTILINE) == [
        "Krxkernel", "=== Lofter configuration info ===", "=== Daemon configuration info ===", "=== Daemon configuration info ==="]
    assert len(re.findall(f"^ Start Daemon: {TIME}\n End Daemon: {TIME}\n Verbose: 0\n", host.Read(PROFILE), re.MULTILINE)) == 2


# The record of what runs once.

def Record(host, content):
    host.Write(RECORD, content if isinstance(content, bytes) else gzip.compress(content.encode()))


def test_an_invocation_without_a_record_writes_an_empty_one(small):
    assert small.Lofter(*INVOKE).status == 0
    assert Saved(small) == "lofter.run-once=\n"
    assert not small.Exists(PROFILE)


def test_a_record_is_a_plain_gzip_file(small):
    small.Lofter("--run-once=a")
    content = small.Path(RECORD).read_bytes()
    # Deflate, no name, no comment, no time.
    assert content[:8] == b"\x1f\x8b\x08\0\0\0\0\0"
    assert gzip.decompress(content) == b"lofter.run-once=a,\n"
    assert small.Run("gzip", "-dc", RECORD).output == "lofter.run-once=a,\n"


@pytest.mark.parametrize("text, saved", [
    ("lofter.run-once=a,b,\n", "a,b,"), ("lofter.run-once= a , b\n", "a,b,"), ("lofter.run-once=\n", ""),
    ("lofter.run-once=b,a,,b, \t,\n", "a,b,"), ("lofter.run-once=größe 100%s,\n", "größe 100%s,"),
    ("lofter.run-once=", ""), ("lofter.run-once=a,\nb,\n", "a,b,"),
    ("lofter.run-twice=a,b,\n", ""), ("other=a,b,\n", ""), ("lofter.run-onc", ""), (" lofter.run-once=a,\n", ""), ("", ""),
], ids=repr)
def test_an_invocation_adds_to_what_a_record_holds(small, text, saved):
    Record(small, text)
    outcome = small.Lofter(*INVOKE)
    assert (outcome.status, Errors(outcome)) == (0, [])
    assert Saved(small) == f"lofter.run-once={saved}\n"


def test_names_from_the_command_line_and_the_record_add_up(small):
    Record(small, "lofter.run-once=b,\n")
    assert small.Lofter(*INVOKE, "--run-once=c,a").status == 0
    assert Saved(small) == "lofter.run-once=a,b,c,\n"


def test_a_boot_forgets_what_the_record_held(small):
    Record(small, "lofter.run-once=b,\n")
    assert small.Lofter("--init").status == 0
    assert Saved(small) == "lofter.run-once=\n"


WHOLE = gzip.compress(("lofter.run-once=" + ",".join(map(str, range(1000))) + ",\n").encode(), mtime=0)


@pytest.mark.parametrize("content", [b"lofter.run-once=a,\n", WHOLE[:-4], WHOLE[:len(WHOLE) // 2], WHOLE[:5], b"\0" * 100,
                                     WHOLE[:40] + b"\xff" * 20 + WHOLE[60:]],
                         ids=["text", "cut in its end", "cut in its middle", "cut in its head", "zeros", "damaged"])
def test_a_record_that_is_not_whole_stops_an_invocation_but_not_a_boot(small, content):
    Record(small, content)
    outcome = small.Lofter(*INVOKE)
    assert (outcome.status, outcome.leftovers) == (1, [])
    assert re.search(r"error lofter: unhandled exception whilst enumerating plugins\.\nDetails:\n .+ \n", outcome.output)
    assert "Activating" not in outcome.output
    assert small.Path(RECORD).read_bytes() == content
    small.Restart()
    assert small.Lofter("--init").status == 0
    assert Saved(small) == "lofter.run-once=\n"


def test_an_empty_record_adds_nothing(small):
    Record(small, b"")
    outcome = small.Lofter(*INVOKE)
    assert (outcome.status, Errors(outcome)) == (0, [])
    assert Saved(small) == "lofter.run-once=\n"


def test_a_record_that_may_neither_be_read_nor_written_stays(small):
    Record(small, WHOLE)
    small.Path(RECORD).chmod(0)
    outcome = small.Lofter(*INVOKE, heedModes=True)
    assert outcome.status == 0
    assert Errors(outcome) == [f"error unable to save run-once record: unable to write '{RECORD}': Permission denied"]
    assert small.Path(RECORD).read_bytes() == WHOLE


def test_a_record_that_is_a_directory_adds_nothing_and_stays(small):
    small.Path(RECORD).mkdir()
    outcome = small.Lofter(*INVOKE)
    assert outcome.status == 0
    assert Errors(outcome) == [f"error unable to save run-once record: unable to write '{RECORD}': Is a directory"]


def test_a_record_that_inflates_without_bounds_is_refused(small):
    Record(small, gzip.compress(b"lofter.run-once=" + b"a" * (200 << 20), compresslevel=1))
    outcome = small.Lofter(*INVOKE)
    assert outcome.status == 1
    assert "Details:\n run-once record is too large \n" in outcome.output


def test_a_full_boot_bank_costs_the_record_and_a_message(small):
    outcome, (status, *files) = RunOn(small, "/bootbank")
    assert status == "0"
    assert Errors(outcome) == [f"error unable to save run-once record: unable to write '{RECORD}': No space left on device"]
    assert small.Exists(PROFILE)


def test_a_read_only_boot_bank_costs_the_record_and_a_message(small):
    outcome = small.Lofter(readOnly=["/bootbank"])
    assert outcome.status == 0
    assert Errors(outcome) == [f"error unable to save run-once record: unable to write '{RECORD}': Read-only file system"]
    assert small.Exists(PROFILE)


def test_a_missing_boot_bank_costs_the_record_and_a_message(small):
    small.Path("/bootbank").rmdir()
    outcome = small.Lofter("--init")
    assert outcome.status == 0
    assert f"error unable to save run-once record: unable to write '{RECORD}': No such file or directory" in outcome.Log()


# Other files that a run writes.

def test_a_full_disk_under_the_system_alert_costs_a_message(host):
    host.DebugConfiguration("a:nobody::true")
    host.Path("/run/issue.d").mkdir()
    outcome, (status, *files) = RunOn(host, "/run/issue.d")
    assert status == "0"
    assert [line for line in Errors(outcome) if "alert" in line and "No space left on device" in line]
    assert [line for line in Errors(outcome) if line.startswith("warning Lofter dependency error: ")]
    assert [name for name in files if name not in ("filler", "50-lofter.issue")] == []


def test_a_full_disk_under_a_dump_is_not_an_error(host):
    host.DebugConfiguration("a:::true")
    host.Path("/srv").mkdir(exist_ok=True)
    outcome, (status, *files) = RunOn(host, "/srv", "--dump-dependency-tree=/srv/dump")
    assert (status, sorted(files)) == ("0", ["dump", "filler"])
