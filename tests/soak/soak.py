"""The soak: random hosts, booted, each run compared with an independent model. The last line is "N passed, N failed"."""
import argparse
import concurrent.futures
import os
import random
import resource
import sys
import time
import traceback

from boot import MakeBoot, Result
from ending import Call
from support.host import BUILD
from workshop import Workshop

FOLDER = BUILD.parent / "soak"
EVERY = 50  # boots per line of progress

workshop = None


def Begin(prepared):
    global workshop
    workshop = prepared
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


def Boot(seed):
    try:
        return MakeBoot(seed, workshop)
    except Exception:  # the soak goes on, and says what happened
        return Result(seed, [traceback.format_exc()], kept=workshop.folder / f"boot-{seed}")


def Main():
    parser = argparse.ArgumentParser(prog="./dev soak", description="Boots random hosts and compares each run with a model.")
    parser.add_argument("boots", nargs="?", type=int, default=50, metavar="N", help="how many boots (default: 50)")
    parser.add_argument("--seed", type=int, help="of the first boot; the others follow by one (default: drawn)")
    parser.add_argument("--jobs", type=int, default=2, help="how many boots at a time (default: 2)")
    arguments = parser.parse_args()
    first = random.SystemRandom().randrange(10 ** 8) if arguments.seed is None else arguments.seed
    prepared = Workshop(FOLDER)
    prepared.Prepare()
    print(f"==> {arguments.boots} boots from seed {first} on", flush=True)
    begin = time.monotonic()
    done = failed = runs = plugins = repeats = 0
    with concurrent.futures.ProcessPoolExecutor(arguments.jobs, initializer=Begin, initargs=(prepared,)) as pool:
        for result in pool.map(Boot, range(first, first + arguments.boots)):
            done, runs, plugins = done + 1, runs + result.runs, plugins + result.plugins
            repeats += result.repeats
            if result.problems:
                failed += 1
                print(f"FAILED: ./dev soak 1 --seed {result.seed}; its root is kept in {os.path.relpath(result.kept)}")
                print("\n".join(f"  {problem}" for problem in result.problems), flush=True)
            if done % EVERY == 0 or done == arguments.boots:
                print(f"{done} boots, {runs} runs, {plugins} plugins, {failed} failed, {repeats} made again, {time.monotonic() - begin:.0f} s", flush=True)
    print(f"{done - failed} passed, {failed} failed", flush=True)
    sys.exit(failed != 0)


if __name__ == "__main__":
    Call(Main, "./dev soak")
