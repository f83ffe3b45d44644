"""The soak: random hosts, booted, each run compared with an independent model. The last line is "N passed, N failed"."""
import argparse
import concurrent.futures
import os
import random
import resource
import time
import traceback

from boot import make_boot, Result
from lofterdev.ending import call
from lofterdev.host import BUILD
from lofterdev.tally import finish
from workshop import Workshop

FOLDER = BUILD.parent / "soak"
EVERY = 50  # boots per line of progress

workshop: Workshop | None = None


def begin_worker(prepared: Workshop) -> None:
    global workshop
    workshop = prepared
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


def boot(seed: int) -> Result:
    assert workshop is not None
    try:
        return make_boot(seed, workshop)
    except Exception:  # the soak goes on, and says what happened
        return Result(seed, [traceback.format_exc()], kept=workshop.folder / f"boot-{seed}")


def main() -> None:
    parser = argparse.ArgumentParser(prog="./dev soak", description="Boots random hosts and compares each run with a model.")
    parser.add_argument("boots", nargs="?", type=int, default=50, metavar="N", help="how many boots (default: 50)")
    parser.add_argument("--seed", type=int, help="of the first boot; the others follow by one (default: drawn)")
    parser.add_argument("--jobs", type=int, default=2, help="how many boots at a time (default: 2)")
    arguments = parser.parse_args()
    first = random.SystemRandom().randrange(10 ** 8) if arguments.seed is None else arguments.seed
    prepared = Workshop(FOLDER)
    prepared.prepare()
    print(f"==> {arguments.boots} boots from seed {first} on", flush=True)
    begin = time.monotonic()
    done = failed = runs = plugins = repeats = 0
    with concurrent.futures.ProcessPoolExecutor(arguments.jobs, initializer=begin_worker, initargs=(prepared,)) as pool:
        for result in pool.map(boot, range(first, first + arguments.boots)):
            done, runs, plugins = done + 1, runs + result.runs, plugins + result.plugins
            repeats += result.repeats
            if result.problems:
                failed += 1
                print(f"FAILED: ./dev soak 1 --seed {result.seed}; its root is kept in {os.path.relpath(result.kept or FOLDER)}")
                print("\n".join(f"  {problem}" for problem in result.problems), flush=True)
            if done % EVERY == 0 or done == arguments.boots:
                print(f"{done} boots, {runs} runs, {plugins} plugins, {failed} failed, {repeats} made again,"
                      f" {time.monotonic() - begin:.0f} s", flush=True)
    finish(done - failed, failed)


if __name__ == "__main__":
    call(main, "./dev soak")
