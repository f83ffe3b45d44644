"""The order in which plugins run, and the picture of it that a dump gives."""
import collections
import os
import random
import re
import signal

import pytest

from lofterdev.host import Host
from lofterdev.processes import processes_below
from lofterdev.syslog import ALERT, WARNING
from lofterdev.waiting import eventually

TRACE = "/run/trace"
PROFILE = "/var/log/sysboot.log"


def step(name: str, requires: str = "", provides: str = "") -> str:
    """A plugin that leaves its name when it runs."""
    return f"{name}:{requires}:{provides}:echo {name} >>{TRACE}"


def order(host: Host, *arguments: str) -> list[str]:
    host.write(TRACE, "")
    outcome = host.lofter(*arguments)
    assert (outcome.status, outcome.leftovers) == (0, [])
    host.restart()
    return host.read(TRACE).split()


def activated(host: Host) -> list[str]:
    return re.findall(r"Lofter plugin (\S+) activated\.", host.read("/dev/kmsg"))


# A serial run's order.

def test_plugins_run_after_those_that_provide_what_they_require(host: Host) -> None:
    host.debug_configuration(step("c", "two"), step("b", "one", "two"), step("a", "", "one"))
    assert order(host) == ["a", "b", "c"]


def test_the_longest_chain_goes_first_and_then_who_came_first(host: Host) -> None:
    host.debug_configuration(step("single1"), step("short1", "", "s"), step("short2", "s"), step("long1", "", "l1"),
                            step("long2", "l1", "l2"), step("long3", "l2"), step("single2"))
    # Barriers take their turns between the plugins, by the chains behind them.
    assert order(host) == ["long1", "short1", "long2", "single1", "single2", "short2", "long3"]


def test_a_serial_run_has_the_order_of_a_walk_over_the_ready_nodes(host: Host) -> None:
    lines = random_graph(random.Random(3), 60)
    host.debug_configuration(*(step(*line) for line in lines))
    expected = serial_walk(lines)
    assert order(host) == expected
    assert order(host, "--init") == expected


def test_a_randomized_serial_run_keeps_to_the_graph_and_repeats_itself(host: Host) -> None:
    lines = [("first", "", "go"), *((f"p{number}", "go", "") for number in range(12))]
    host.debug_configuration(*(step(*line) for line in lines))
    plain = order(host)
    randomized = order(host, "--randomize=7")
    assert plain == [name for name, *_ in lines]
    assert randomized[0] == "first" and sorted(randomized) == sorted(plain)
    assert randomized != plain
    # The generator is never seeded, so neither another seed nor none makes a difference.
    assert order(host, "--randomize=8") == order(host, "--randomize") == randomized


def test_a_plugin_that_fails_does_not_hold_up_those_behind_it(host: Host) -> None:
    host.kernel_log()
    host.debug_configuration("a::one:exit 1", "b:one:two:kill -9 $$", step("c", "two"))
    outcome = host.lofter("--init")
    assert outcome.status == 0
    assert activated(host) == ["a", "b", "c"]
    assert [line for line in outcome.log() if "returned" in line] == [
        "info debug injection 'a' returned 0x000100", "info debug injection 'b' returned 0x000009"]


@pytest.mark.parametrize("parallel", [[], ["--parallel"]], ids=["serial", "parallel"])
def test_a_barrier_that_nobody_requires_holds_up_nobody(host: Host, parallel: list[str]) -> None:
    host.debug_configuration(step("a", "", "spare"), step("b"))
    assert sorted(order(host, *parallel)) == ["a", "b"]


# A barrier that nobody provides.

MISSING = 'Lofter dependency error: Initialization barrier "network" is not provided by any plugin but the following plugins' \
    ' require it: "a", "b"'


def test_a_barrier_without_provider_is_reported_with_all_who_require_it_and_they_run(host: Host) -> None:
    host.debug_configuration(step("a", "network"), step("other"), step("b", "network"))
    syslog = host.syslog()
    assert sorted(order(host)) == ["a", "b", "other"]
    assert [text for text in syslog.texts(WARNING) if "kmsg" not in text] == [MISSING]
    assert [text for text in syslog.texts(ALERT)] == [MISSING]
    assert host.read("/run/issue.d/50-lofter.issue").rstrip("\n") == MISSING


def test_an_invocation_reports_it_without_an_alert(host: Host) -> None:
    host.debug_configuration(step("a", "network"))
    syslog = host.syslog()
    assert order(host, "--invoke", "--method=start", "--plugin=a.debug") == ["a"]
    assert [text for text in syslog.texts(WARNING) if text.startswith("Lofter dependency error: ")]
    assert syslog.texts(ALERT) == []
    assert not host.exists("/run/issue.d")


def test_an_alert_that_cannot_be_raised_does_not_hold_up_the_run(host: Host) -> None:
    host.write("/run/issue.d", "not a directory")
    host.debug_configuration(step("a", "network"), step("b", "network"))
    assert sorted(order(host)) == ["a", "b"]


# Many plugins at once.

def random_graph(generator: random.Random, count: int) -> list[tuple[str, str, str]]:
    """Plugins in no particular order over ranked barriers: each requires lower ones than it provides, so there is no cycle.

    Some barriers have several providers, some none, and some are never required.
    """
    def some(ranks: range, most: int) -> str:
        return ",".join(f"barrier-{rank}" for rank in generator.sample(ranks, min(len(ranks), generator.randint(0, most))))
    lines = []
    for number in range(count):
        rank = generator.randint(0, count // 3)
        lines.append((f"p{number}", some(range(max(0, rank - 20), rank), 3), some(range(rank, rank + 10), 2)))
    generator.shuffle(lines)
    return lines


def constraints_of(lines: list[tuple[str, str, str]]) -> list[tuple[str, str]]:
    """(earlier, later) pairs of plugins: who provides something, and who requires it."""
    providers: dict[str, list[str]] = collections.defaultdict(list)
    requirers: dict[str, list[str]] = collections.defaultdict(list)
    for name, requires, provides in lines:
        for barrier in filter(None, requires.split(",")):
            requirers[barrier].append(name)
        for barrier in filter(None, provides.split(",")):
            providers[barrier].append(name)
    return [(earlier, later) for barrier in requirers for earlier in providers[barrier] for later in requirers[barrier]]


Vertex = str | tuple[str]  # a plugin, or a barrier's name on its own


def serial_walk(lines: list[tuple[str, str, str]]) -> list[str]:
    """The one order of a serial run, by the plainest means: plugins and barriers as nodes, the ready ones in a list."""
    above: dict[Vertex, list[Vertex]] = collections.defaultdict(list)
    below: dict[Vertex, list[Vertex]] = collections.defaultdict(list)
    for name, requires, provides in lines:
        for barrier in filter(None, requires.split(",")):
            above[name].append((barrier,))
            below[(barrier,)].append(name)
        for barrier in filter(None, provides.split(",")):
            above[(barrier,)].append(name)
            below[name].append((barrier,))
    depths: dict[Vertex, int] = {}

    def depth(node: Vertex) -> int:
        if node not in depths:
            depths[node] = max((1 + depth(other) for other in below[node]), default=0)
        return depths[node]
    asked: set[Vertex] = set()
    ready: list[Vertex] = []
    done: set[Vertex] = set()
    order: list[str] = []

    def ask(node: Vertex) -> None:
        asked.add(node)
        for other in above[node]:
            if other not in asked:
                ask(other)
        if all(other in done for other in above[node]):
            ready.append(node)
    for name, *_ in lines:
        if name not in asked:
            ask(name)
    while ready:
        node = max(ready, key=depth)  # the first of the deepest
        ready.remove(node)
        done.add(node)
        if isinstance(node, str):
            order.append(node)
        for other in below[node]:
            if other in asked and other not in done and other not in ready and all(more in done for more in above[other]):
                ready.append(other)
    return order


@pytest.mark.parametrize("seed", [1, 2])
def test_three_hundred_plugins_in_parallel_keep_every_constraint(host: Host, seed: int) -> None:
    lines = random_graph(random.Random(seed), 300)
    constraints = constraints_of(lines)
    assert len(constraints) > 300
    stamp = f"begin=$EPOCHREALTIME; echo + {{0}} >>{TRACE}; echo - {{0}} >>{TRACE}; echo {{0}} $begin $EPOCHREALTIME >>{TRACE}.times"
    host.debug_configuration(*(":".join([*line, stamp.format(line[0])]) for line in lines))
    outcome = host.lofter("--init", "--parallel", "--randomize=7")
    assert (outcome.status, outcome.leftovers) == (0, [])

    # By the clock, and by the places in a file to which all append.
    clock = {name: (float(begin), float(end)) for name, begin, end in map(str.split, host.read(f"{TRACE}.times").splitlines())}
    events = {event: place for place, event in enumerate(host.read(TRACE).splitlines())}
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
    assert 1 <= most <= 2 * (os.cpu_count() or 1)
    assert host.read(PROFILE).count(" sysboot: p") == 300


def test_a_cycle_waits_until_it_is_ended_from_outside(host: Host) -> None:
    host.kernel_log()
    host.debug_configuration("a:one:two:true", "b:two:one:true", "behind:one::true", "self:mine:mine:true", "free:::true",
                            "next:before::true", "first::before:true")
    running = host.start_lofter("--init", "--parallel")
    eventually(lambda: sorted(activated(host)) == ["first", "free", "next"], "what is not on the cycle runs")

    def thread_states() -> list[str]:
        lofter = [process for process, words in processes_below(running.process.pid) if words[0].endswith("lofter")]
        states = []
        for process in lofter:
            for task in os.listdir(f"/proc/{process}/task"):
                with open(f"/proc/{process}/task/{task}/stat") as stat:
                    states.append(stat.read().rpartition(")")[2].split()[0])
        return states
    # Waiting costs nothing: every thread of the run is asleep.
    eventually(lambda: (states := thread_states()) and set(states) == {"S"}, "every thread waits")
    assert running.is_running()
    assert not host.exists(PROFILE)
    running.process.send_signal(signal.SIGTERM)
    assert running.finish(timeout=10).status == 128 + signal.SIGTERM
    assert sorted(activated(host)) == ["first", "free", "next"]


@pytest.mark.parametrize("parallel", [[], ["--parallel"]], ids=["serial", "parallel"])
def test_a_chain_of_thousands_is_no_deeper_than_the_stack(host: Host, parallel: list[str]) -> None:
    count = 20_000
    host.debug_configuration(*(f"p:{number}:{number + 1}:" for number in reversed(range(count))))
    # A method that is none calls nothing, so this is the graph's work alone.
    outcome = host.lofter("--invoke", "--method=none", "--plugin=p.debug", *parallel, bind=[("/dev/null", "/dev/kmsg")])
    assert (outcome.status, outcome.leftovers) == (0, [])
    assert host.exists("/bootbank/loftsave.gz")  # which is written when every node has finished


# Dumps.

def digraph(text: str) -> tuple[list[str], list[tuple[str, str]]]:
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


def dump_in(output: str) -> str:
    """The dump as it stands among the log lines of standard output."""
    return re.search(r"^digraph g \{\n.*^\}\n", output, re.MULTILINE | re.DOTALL).group(0)


@pytest.mark.parametrize("mode", [[], ["--init"], ["--invoke", "--method=start", "--plugin=a.debug,b.debug,c.debug,d.debug"]],
                         ids=["plain", "boot", "invoke"])
def test_a_dump_has_the_plugins_in_their_order_and_the_barriers_by_name(host: Host, mode: list[str]) -> None:
    host.debug_configuration(*GRAPH)
    outcome = host.lofter("--dump-dependency-tree", *mode)
    assert outcome.status == 0
    nodes, edges = digraph(dump_in(outcome.output))
    assert sorted(nodes[:4]) == sorted(NODES[:4]) and nodes[4:] == NODES[4:]
    assert sorted(edges) == sorted(EDGES)
    if not mode:
        assert (nodes, edges) == (NODES, EDGES)


def test_a_dump_to_a_file_replaces_its_content(host: Host) -> None:
    host.debug_configuration(*GRAPH)
    host.write("/run/dump", "old\n" * 1000)
    outcome = host.run("sh", "-c", "cd /run && lofter --dump-dependency-tree=/no/such --dump-dependency-tree=/run/dump")
    assert outcome.status == 0
    assert "digraph" not in outcome.output
    assert digraph(host.read("/run/dump")) == (NODES, EDGES)


def test_a_dump_without_plugins_has_its_first_and_last_line(host: Host) -> None:
    host.lofter("--dump-dependency-tree=/run/dump")
    assert host.read("/run/dump") == "digraph g {\n}\n"


def test_a_dump_of_a_cycle_ends(host: Host) -> None:
    host.debug_configuration("a:one:two:", "b:two:one:")
    host.lofter("--dump-dependency-tree=/run/dump")
    assert len(digraph(host.read("/run/dump"))[1]) == 4


@pytest.mark.parametrize("path", ["", "/usr", "/no/such/file"])
def test_a_dump_that_cannot_be_opened_ends_in_failure_without_a_message(host: Host, path: str) -> None:
    host.debug_configuration("a:::")
    outcome = host.lofter(f"--dump-dependency-tree={path}")
    assert (outcome.status, outcome.errors, outcome.leftovers) == (1, "", [])
    assert [line for line in outcome.log() if not line.startswith("info ")] == []
    assert "digraph" not in outcome.output
    assert host.exists(PROFILE)  # the rest of the run


def test_a_dump_onto_a_full_disk_is_not_an_error(host: Host) -> None:
    host.debug_configuration("a:::")
    assert host.lofter("--dump-dependency-tree=/dev/full").status == 0
    host.restart()
    assert host.lofter("--dump-dependency-tree", stdout=open("/dev/full", "w")).status == 0


def test_a_dump_path_is_seen_from_the_root(host: Host) -> None:
    outcome = host.run("sh", "-c", "cd /usr && lofter --dump-dependency-tree=dump")
    assert outcome.status == 0
    assert host.exists("/dump") and not host.exists("/usr/dump")
