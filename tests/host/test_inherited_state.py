"""What the invoking process left behind must not change the run."""


def test_a_caller_that_ignores_the_end_of_its_children_changes_nothing(host):
    host.DebugConfiguration("good:::true", "bad:::exit 3")
    outcome = host.Run("/usr/bin/gnu-env", "--ignore-signal=CHLD", "/usr/sbin/lofter",
                       bind=[("/usr/bin/env", "/usr/bin/gnu-env")])
    assert outcome.status == 0
    injections = [line for line in outcome.output.splitlines() if "debug injection" in line]
    assert [line.split("lofter: ")[1] for line in injections] == ["debug injection 'bad' returned 0x000300"]
