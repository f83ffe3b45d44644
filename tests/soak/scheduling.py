"""The graph and the rules of scheduling, for one worker: lists and walks, as slow and as plain as they can be told."""
import ctypes

IDLE, START_PENDING, STOP_PENDING, START_QUEUED, STOP_QUEUED, STARTED, STOPPED = range(7)

libc = ctypes.CDLL(None)  # for rand(): randomized runs draw from its default sequence


class Node:
    def __init__(self, name, kind="plugin", scheduleClass=1):
        self.name, self.kind, self.scheduleClass = name, kind, scheduleClass
        self.dependencies, self.dependents = [], []
        self.state = IDLE
        self.version = -1
        self.runOnce, self.release = False, ""
        self.requiredFlags, self.disablingFlags = set(), set()
        self.source = None
        self.marks = []       # what its work leaves behind, in order
        self.pause = 0        # milliseconds that its work takes at least
        self.depths = {}
        self.ran = False

    def AddDependency(self, other):
        self.dependencies.append(other)
        other.dependents.append(self)

    def AddDependent(self, other):
        other.AddDependency(self)


def HasCycle(nodes):
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


def Depth(node, side):
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

    def __init__(self, work, randomize, depthsCount):
        self.queue = []
        self.work = work
        self.randomize = randomize
        self.depthsCount = depthsCount
        if randomize:
            libc.srand(1)

    def Schedule(self, node, stop):
        pending, queued, ended = (STOP_PENDING, STOP_QUEUED, STOPPED) if stop else (START_PENDING, START_QUEUED, STARTED)
        if node.state in (queued, ended):
            return
        if node.state == IDLE:
            node.state = pending
        satisfied = True
        for other in node.dependents if stop else node.dependencies:
            if other.state == IDLE:
                self.Schedule(other, stop)
                satisfied = False
            elif other.state in (pending, queued):
                satisfied = False
        if satisfied:
            node.state = queued
            self.queue.append(node)

    def Pick(self):
        candidates, bestClass, bestDepth = [], 2 ** 32 - 1, 0
        for node in self.queue:
            depth = 0
            if self.depthsCount:
                depth = Depth(node, "dependents" if node.state == START_QUEUED else "dependencies")
            if node.scheduleClass < bestClass:
                candidates, bestClass, bestDepth = [node], node.scheduleClass, depth
            elif node.scheduleClass == bestClass and depth > bestDepth:
                candidates, bestDepth = [node], depth
            elif node.scheduleClass == bestClass and depth == bestDepth:
                candidates.append(node)
        chosen = candidates[libc.rand() % len(candidates) if self.randomize else 0]
        self.queue.remove(chosen)
        return chosen

    def Run(self, nodes, stop):
        for node in nodes:
            self.Schedule(node, stop)
        while self.queue:
            node = self.Pick()
            self.work(node, stop)
            node.state = STOPPED if stop else STARTED
            for other in node.dependencies if stop else node.dependents:
                if other.state == (STOP_PENDING if stop else START_PENDING):
                    self.Schedule(other, stop)
        return all(node.state == (STOPPED if stop else STARTED) for node in nodes)


def Edges(ran, stop):
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
