"""The order in which plugins run, and the picture of it that a dump gives."""
import collections
import os
import random
import re
import signal

import pytest

from support.processes import ProcessesBelow
from support.syslog import ALERT, WARNING
from support.waiting import Eventually

TRACE = "/run/trace"
PROFILE = "/var/log/sysboot.log"


def Step(name, requires="", provides=""):
    """A plugin that leaves its name when it runs."""
    return f"{name}:{requires}:{provides}:echo {name} >>{TRACE}"


def Order(host, *arguments):
    host.Write(TRACE, "")
    outcome = host.Lofter(*arguments)
    assert (outcome.status, outcome.leftovers) == (0, [])
    host.Restart()
    return host.Read(TRACE).split()


def Activated(host):
    return re.findall(r"Lofter plugin (\S+) activated\.", host.Read("/dev/kmsg"))


# A serial run's order.

def test_plugins_run_after_those_that_provide_what_they_require(host):
    host.DebugConfiguration(Step("c", "two"), Step("b", "one", "two"), Step("a", "", "one"))
    assert Order(host) == ["a", "b", "c"]


def test_the_longest_chain_goes_first_and_then_who_came_first(host):
    host.DebugConfiguration(Step("single1"), Step("short1", "", "s"), Step("short2", "s"), Step("long1", "", "l1"),
                            Step("long2", "l1", "l2"), Step("long3", "l2"), Step("single2"))
    # Barriers take their turns between the plugins, by the chains behind them.
    assert Order(host) == ["long1", "short1", "long2", "single1", "single2", "short2", "long3"]


def test_a_serial_run_has_the_order_of_a_walk_over_the_ready_nodes(host):
    lines = RandomGraph(random.Random(3), 60)
    host.DebugConfiguration(*(Step(*line) for line in lines))
    expected = SerialWalk(lines)
    assert Order(host) == expected
    assert Order(host, "--init") == expected


def test_a_randomized_serial_run_keeps_to_the_graph_and_repeats_itself(host):
    lines = [("first", "", "go"), *((f"p{number}", "go", "") for number in range(12))]
    host.DebugConfiguration(*(Step(*line) for line in lines))
    plain = Order(host)
    randomized = Order(host, "--randomize=7")
    assert plain == [name for name, *_ in lines]
    assert randomized[0] == "first" and sorted(randomized) == sorted(plain)
    assert randomized != plain
    # The generator is never seeded, so neither another seed nor none makes a difference.
    assert Order(host, "--randomize=8") == Order(host, "--randomize") == randomized


def test_a_plugin_that_fails_does_not_hold_up_those_behind_it(host):
    host.KernelLog()
    host.DebugConfiguration("a::one:exit 1", "b:one:two:kill -9 $$", Step("c", "two"))
    outcome = host.Lofter("--init")
    assert outcome.status == 0
    assert Activated(host) == ["a", "b", "c"]
    assert [line for line in outcome.Log() if "returned" in line] == [
        "info debug injection 'a' returned 0x000100", "info debug injection 'b' returned 0x000009"]


@pytest.mark.parametrize("parallel", [[], ["--parallel"]], ids=["serial", "parallel"])
def test_a_barrier_that_nobody_requires_holds_up_nobody(host, parallel):
    host.DebugConfiguration(Step("a", "", "spare"), Step("b"))
    assert sorted(Order(host, *parallel)) == ["a", "b"]


# A barrier that nobody provides.

MISSING = 'Lofter dependency error: Initialization barrier "network" is not provided by any plugin but the following plugins require it: "a", "b"'


def test_a_barrier_without_provider_is_reported_with_all_who_require_it_and_they_run(host):
    host.DebugConfiguration(Step("a", "network"), Step("other"), Step("b", "network"))
    syslog = host.Syslog()
    assert sorted(Order(host)) == ["a", "b", "other"]
    assert [text for text in syslog.Texts(WARNING) if "kmsg" not in text] == [MISSING]
    assert [text for text in syslog.Texts(ALERT)] == [MISSING]
    assert host.Read("/run/issue.d/50-lofter.issue").rstrip("\n") == MISSING


def test_an_invocation_reports_it_without_an_alert(host):
    host.DebugConfiguration(Step("a", "network"))
    syslog = host.Syslog()
    assert Order(host, "--invoke", "--method=start", "--plugin=a.debug") == ["a"]
    assert [text for text in syslog.Texts(WARNING) if text.startswith("Lofter dependency error: ")]
    assert syslog.Texts(ALERT) == []
    assert not host.Exists("/run/issue.d")


def test_an_alert_that_cannot_be_raised_does_not_hold_up_the_run(host):
    host.Write("/run/issue.d", "not a directory")
    host.DebugConfiguration(Step("a", "network"), Step("b", "network"))
    assert sorted(Order(host)) == ["a", "b"]


# Many plugins at once.

def RandomGraph(generator, count):
    """Plugins in no particular order over ranked barriers: each requires lower ones than it provides, so there is no cycle.

    Some barriers have several providers, some none, and some are never required.
    """
    def Some(ranks, most):
        ranks = list(ranks)
        return ",".join(f"barrier-{rank}" for rank in generator.sample(ranks, min(len(ranks), generator.randint(0, most))))
    lines = []
    for number in range(count):
        rank = generator.randint(0, count // 3)
        lines.append((f"p{number}", Some(range(max(0, rank - 20), rank), 3), Some(range(rank, rank + 10), 2)))
    generator.shuffle(lines)
    return lines


def Constraints(lines):
    """(earlier, later) pairs of plugins: who provides something, and who requires it."""
    providers, requirers = collections.defaultdict(list), collections.defaultdict(list)
    for name, requires, provides in lines:
        for barrier in filter(None, requires.split(",")):
            requirers[barrier].append(name)
        for barrier in filter(None, provides.split(",")):
            providers[barrier].append(name)
    return [(earlier, later) for barrier in requirers for earlier in providers[barrier] for later in requirers[barrier]]


def SerialWalk(lines):
    """The one order of a serial run, by the plainest means: plugins and barriers as nodes, the ready ones in a list."""
    above, below = collections.defaultdict(list), collections.defaultdict(list)
    for name, requires, provides in lines:
        for barrier in filter(None, requires.split(",")):
            above[name].append((barrier,))
            below[(barrier,)].append(name)
        for barrier in filter(None, provides.split(",")):
            above[(barrier,)].append(name)
            below[name].append((barrier,))
    depths = {}

    def Depth(node):
        if node not in depths:
            depths[node] = max((1 + Depth(other) for other in below[node]), default=0)
        return depths[node]
    asked, ready, done, order = set(), [], set(), []

    def Ask(node):
        asked.add(node)
        for other in above[node]:
            if other not in asked:
                Ask(other)
        if all(other in done for other in above[node]):
            ready.append(node)
    for name, *_ in lines:
        if name not in asked:
            Ask(name)
    while ready:
        node = max(ready, key=Depth)  # the first of the deepest
        ready.remove(node)
        done.add(node)
        if isinstance(node, str):
            order.append(node)
        for other in below[node]:
            if other in asked and other not in done and other not in ready and all(more in done for more in above[other]):
                ready.append(other)
    return order


@pytest.mark.parametrize("seed", [1, 2])
def test_three_hundred_plugins_in_parallel_keep_every_constraint(host, seed):
    lines = RandomGraph(random.Random(seed), 300)
    constraints = Constraints(lines)
    assert len(constraints) > 300
    stamp = f"begin=$EPOCHREALTIME; echo + {{0}} >>{TRACE}; echo - {{0}} >>{TRACE}; echo {{0}} $begin $EPOCHREALTIME >>{TRACE}.times"
    host.DebugConfiguration(*(":".join([*line, stamp.format(line[0])]) for line in lines))
    outcome = host.Lofter("--init", "--parallel", "--randomize=7")
    assert (outcome.status, outcome.leftovers) == (0, [])

    # By the clock, and by the places in a file to which all append.
    clock = {name: (float(begin), float(end)) for name, begin, end in map(str.split, host.Read(f"{TRACE}.times").splitlines())}
    events = {event: place for place, event in enumerate(host.Read(TRACE).splitlines())}
    assert len(clock) == 300 and len(events) == 600
    assert [pair for pair in constraints if clock[pair[0]][1] > clock[pair[1]][0]] == []
    assert [pair for pair in constraints if events[f"- {pair[0]}"] > events[f"+ {pair[1]}"]] == []

    # Never more at a time than there are threads for. That there are several is for tests in which they wait for each other:
    # a machine that is busy otherwise may well run these one by one.
    turns = sorted([(begin, 1) for begin, _ in clock.values()] + [(end, -1) for _, end in clock.values()])
    most = running = 0
    for _, change in turns:
        running += change
        most = max(most, running)
    assert 1 <= most <= 2 * os.cpu_count()
    assert host.Read(PROFILE).count(" sysboot: p") == 300


def test_a_cycle_waits_until_it_is_ended_from_outside(host):
    host.KernelLog()
    host.DebugConfiguration("a:one:two:true", "b:two:one:true", "behind:one::true", "self:mine:mine:true", "free:::true",
                            "next:before::true", "first::before:true")
    running = host.StartLofter("--init", "--parallel")
    Eventually(lambda: sorted(Activated(host)) == ["first", "free", "next"], "what is not on the cycle runs")

    def ThreadStates():
        lofter = [process for process, words in ProcessesBelow(running.process.pid) if words[0].endswith("lofter")]
        states = []
        for process in lofter:
            for task in os.listdir(f"/proc/{process}/task"):
                with open(f"/proc/{process}/task/{task}/stat") as stat:
                    states.append(stat.read().rpartition(")")[2].split()[0])
        return states
    # Waiting costs nothing: every thread of the run is asleep.
    Eventually(lambda: (states := ThreadStates()) and set(states) == {"S"}, "every thread waits")
    assert running.IsRunning()
    assert not host.Exists(PROFILE)
    running.process.send_signal(signal.SIGTERM)
    assert running.Finish(timeout=10).status == 128 + signal.SIGTERM
    assert sorted(Activated(host)) == ["first", "free", "next"]


@pytest.mark.parametrize("parallel", [[], ["--parallel"]], ids=["serial", "parallel"])
def test_a_chain_of_thousands_is_no_deeper_than_the_stack(host, parallel):
    count = 20_000
    host.DebugConfiguration(*(f"p:{number}:{number + 1}:" for number in reversed(range(count))))
    # A method that is none calls nothing, so this is the graph's work alone.
    outcome = host.Lofter("--invoke", "--method=none", "--plugin=p.debug", *parallel, bind=[("/dev/null", "/dev/kmsg")])
    assert (outcome.status, outcome.leftovers) == (0, [])
    assert host.Exists("/bootbank/loftsave.gz")  # which is written when every node has finished


# Dumps.

def Digraph(text):
    """(label with attributes, in order; edges between labels), with the identifiers resolved."""
    lines = text.splitlines()
    assert (lines[0], lines[-1]) == ("digraph g {", "}")
    nodes = [re.fullmatch(r'(\d+) \[label="(.*)"( shape=box| shape=trapezium|)\];', line) for line in lines[1:-1]]
    labels = {match.group(1): match.group(2) for match in nodes if match}
    assert len(labels) == len([match for match in nodes if match])
    edges = [re.fullmatch(r"(\d+) -> (\d+);", line) for line, node in zip(lines[1:-1], nodes) if not node]
    return [match.group(2) + match.group(3) for match in nodes if match], \
        [(labels[edge.group(1)], labels[edge.group(2)]) for edge in edges]


GRAPH = ["b:net,disk:done:", "a::net,disk:", "c:nobody::", "d:::"]
NODES = ["b", "a", "c", "d", "disk shape=box", "done shape=box", "net shape=box", "nobody shape=box"]
EDGES = [("b", "done"), ("a", "net"), ("a", "disk"), ("disk", "b"), ("net", "b"), ("nobody", "c")]


def DumpIn(output):
    """The dump as it stands among the log lines of standard output."""
    return re.search(r"^digraph g \{\n.*^\}\n", output, re.MULTILINE | re.DOTALL).group(0)


@pytest.mark.parametrize("mode", [[], ["--init"], ["--invoke", "--method=start", "--plugin=a.debug,b.debug,c.debug,d.debug"]],
                         ids=["plain", "boot", "invoke"])
def test_a_dump_has_the_plugins_in_their_order_and_the_barriers_by_name(host, mode):
    host.DebugConfiguration(*GRAPH)
    outcome = host.Lofter("--dump-dependency-tree", *mode)
    assert outcome.status == 0
    nodes, edges = Digraph(DumpIn(outcome.output))
    assert sorted(nodes[:4]) == sorted(NODES[:4]) and nodes[4:] == NODES[4:]
    assert sorted(edges) == sorted(EDGES)
    if not mode:
        assert (nodes, edges) == (NODES, EDGES)


def test_a_dump_to_a_file_replaces_its_content(host):
    host.DebugConfiguration(*GRAPH)
    host.Write("/run/dump", "old\n" * 1000)
    outcome = host.Run("sh", "-c", "cd /run && lofter --dump-dependency-tree=/no/such --dump-dependency-tree=/run/dump")
    assert outcome.status == 0
    assert "digraph" not in outcome.output
    assert Digraph(host.Read("/run/dump")) == (NODES, EDGES)


def test_a_dump_without_plugins_has_its_first_and_last_line(host):
    host.Lofter("--dump-dependency-tree=/run/dump")
    assert host.Read("/run/dump") == "digraph g {\n}\n"


def test_a_dump_of_a_cycle_ends(host):
    host.DebugConfiguration("a:one:two:", "b:two:one:")
    host.Lofter("--dump-dependency-tree=/run/dump")
    assert len(Digraph(host.Read("/run/dump"))[1]) == 4


@pytest.mark.parametrize("path", ["", "/usr", "/no/such/file"])
def test_a_dump_that_cannot_be_opened_ends_in_failure_without_a_message(host, path):
    host.DebugConfiguration("a:::")
    outcome = host.Lofter(f"--dump-dependency-tree={path}")
    assert (outcome.status, outcome.errors, outcome.leftovers) == (1, "", [])
    assert [line for line in outcome.Log() if not line.startswith("info ")] == []
    assert "digraph" not in outcome.output
    assert host.Exists(PROFILE)  # the rest of the run


def test_a_dump_onto_a_full_disk_is_not_an_error(host):
    host.DebugConfiguration("a:::")
    assert host.Lofter("--dump-dependency-tree=/dev/full").status == 0
    host.Restart()
    assert host.Lofter("--dump-dependency-tree", stdout=open("/dev/full", "w")).status == 0


def test_a_dump_path_is_seen_from_the_root(host):
    outcome = host.Run("sh", "-c", "cd /usr && lofter --dump-dependency-tree=dump")
    assert outcome.status == 0
    assert host.Exists("/dump") and not host.Exists("/usr/dump")
