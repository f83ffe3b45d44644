"""What the invoking process left behind must not change the run."""
from lofterdev.host import Host


def test_a_caller_that_ignores_the_end_of_its_children_changes_nothing(host: Host) -> None:
    host.debug_configuration("good:::true", "bad:::exit 3")
    outcome = host.run("/usr/bin/gnu-env", "--ignore-signal=CHLD", "/usr/sbin/lofter",
                       bind=[("/usr/bin/env", "/usr/bin/gnu-env")])
    assert outcome.status == 0
    injections = [line for line in outcome.output.splitlines() if "debug injection" in line]
    assert [line.split("lofter: ")[1] for line in injections] == ["debug injection 'bad' returned 0x000300"]
