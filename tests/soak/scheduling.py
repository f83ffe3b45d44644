"""The graph and the rules of scheduling, for one worker: lists and walks, as slow and as plain as they can be told.

The graph fuzzer has a model of its own, GraphModel.h. Both stay: that one is asked thousands of times a second in the
fuzzer's process, and about what only the program's inside shows (states, marks, nodes that go); this one is a part of
what a whole boot has to log. One for both would need a bridge between the languages, and a mistake in it would be in both.
"""
import ctypes
from collections.abc import Callable
from typing import Any

IDLE, START_PENDING, STOP_PENDING, START_QUEUED, STOP_QUEUED, STARTED, STOPPED = range(7)

libc = ctypes.CDLL(None)  # for rand(): randomized runs draw from its default sequence


class Node:
    def __init__(self, name: str, kind: str = "plugin", schedule_class: int = 1) -> None:
        self.name, self.kind, self.schedule_class = name, kind, schedule_class
        self.dependencies: list[Node] = []
        self.dependents: list[Node] = []
        self.state = IDLE
        self.version = -1
        self.run_once, self.release = False, ""
        self.required_flags: set[str] = set()
        self.disabling_flags: set[str] = set()
        self.source: Any = None  # of the plan
        self.start_commands: list[str] = []
        self.profile_commands: list[str] = []
        self.marks: list[str] = []  # what its work leaves behind, in order
        self.pause = 0  # milliseconds that its work takes at least
        self.depths: dict[str, int] = {}
        self.ran = False

    def add_dependency(self, other: "Node") -> None:
        self.dependencies.append(other)
        other.dependents.append(self)

    def add_dependent(self, other: "Node") -> None:
        other.add_dependency(self)


def has_cycle(nodes: list[Node]) -> bool:
    """Over everything that is linked with these nodes."""
    every, queue = set(nodes), list(nodes)
    while queue:
        node = queue.pop()
        for other in node.dependencies + node.dependents:
            if other not in every:
                every.add(other)
                queue.append(other)
    waiting = {node: len(node.dependencies) for node in every}
    ready = [node for node, count in waiting.items() if count == 0]
    done = 0
    while ready:
        done += 1
        for other in ready.pop().dependents:
            waiting[other] -= 1
            if waiting[other] == 0:
                ready.append(other)
    return done < len(every)


def depth_of(node: Node, side: str) -> int:
    """The longest chain on one side, without recursion."""
    stack = [node]
    while stack:
        top = stack[-1]
        if side in top.depths:
            stack.pop()
            continue
        missing = [other for other in getattr(top, side) if side not in other.depths]
        if missing:
            stack.extend(missing)
            continue
        top.depths[side] = 1 + max((other.depths[side] for other in getattr(top, side)), default=-1)
        stack.pop()
    return node.depths[side]


class Player:
    """The scheduling rules with one worker."""

    def __init__(self, work: Callable[[Node, bool], object], randomize: bool, depths_count: bool) -> None:
        self.queue: list[Node] = []
        self.work = work
        self.randomize = randomize
        self.depths_count = depths_count
        if randomize:
            libc.srand(1)

    def schedule(self, node: Node, stop: bool) -> None:
        pending, queued, ended = (STOP_PENDING, STOP_QUEUED, STOPPED) if stop else (START_PENDING, START_QUEUED, STARTED)
        if node.state in (queued, ended):
            return
        if node.state == IDLE:
            node.state = pending
        satisfied = True
        for other in node.dependents if stop else node.dependencies:
            if other.state == IDLE:
                self.schedule(other, stop)
                satisfied = False
            elif other.state in (pending, queued):
                satisfied = False
        if satisfied:
            node.state = queued
            self.queue.append(node)

    def pick(self) -> Node:
        candidates, best_class, best_depth = [], 2 ** 32 - 1, 0
        for node in self.queue:
            depth = 0
            if self.depths_count:
                depth = depth_of(node, "dependents" if node.state == START_QUEUED else "dependencies")
            if node.schedule_class < best_class:
                candidates, best_class, best_depth = [node], node.schedule_class, depth
            elif node.schedule_class == best_class and depth > best_depth:
                candidates, best_depth = [node], depth
            elif node.schedule_class == best_class and depth == best_depth:
                candidates.append(node)
        chosen = candidates[libc.rand() % len(candidates) if self.randomize else 0]
        self.queue.remove(chosen)
        return chosen

    def run(self, nodes: list[Node], stop: bool) -> bool:
        for node in nodes:
            self.schedule(node, stop)
        while self.queue:
            node = self.pick()
            self.work(node, stop)
            node.state = STOPPED if stop else STARTED
            for other in node.dependencies if stop else node.dependents:
                if other.state == (STOP_PENDING if stop else START_PENDING):
                    self.schedule(other, stop)
        return all(node.state == (STOPPED if stop else STARTED) for node in nodes)


def edges(ran: list[Node], stop: bool) -> list[tuple[Node, Node]]:
    """Who has to wait for whom: plugins joined by barriers alone. What was marked started holds nobody up."""
    edges = []
    for node in ran:
        queue, seen = list(node.dependents if stop else node.dependencies), set()
        while queue:
            other = queue.pop()
            if other in seen or not other.ran:
                continue
            seen.add(other)
            if other.kind == "plugin":
                edges.append((other, node))
            else:
                queue += other.dependents if stop else other.dependencies
    return edges
