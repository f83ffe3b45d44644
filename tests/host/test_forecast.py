"""Forecasts of the companion beside boots: how far the model of a measured boot is from what was measured."""
import json
import random
import subprocess

import pytest

from lofterdev.host import BUILD, Host

ANALYZE = BUILD / "apps" / "lofter-analyze" / "lofter-analyze"
ERROR = 0.05
ATTEMPTS = 3  # what a busy machine does between two plugins is in no log


def random_steps(generator: random.Random, count: int) -> list[str]:
    """Lines of the debug configuration, each of which sleeps. What one requires ranks below what it provides, so there is no cycle."""
    def some(ranks: range) -> str:
        return ",".join(f"barrier-{rank}" for rank in generator.sample(ranks, min(len(ranks), generator.randint(0, 2))))
    steps = []
    for number in range(count):
        rank = generator.randint(0, 8)
        steps.append(f"p{number}:{some(range(rank))}:{some(range(rank, 10))}:sleep {generator.randint(5, 50) / 1000}")
    return steps


def error_of_model(host: Host, *options: str) -> float:
    """Of a boot that is made for it: a part of the measured length."""
    assert host.lofter(*options).status == 0
    host.restart()
    result = subprocess.run([ANALYZE, "--root", host.root, "whatif", "--format=json"], capture_output=True, check=True)
    answer = json.loads(result.stdout)
    assert answer["predicted_us"] == answer["modelled_us"]
    return abs(answer["modelled_us"] - answer["measured_us"]) / answer["measured_us"]


@pytest.mark.parametrize("seed", range(20))
@pytest.mark.parametrize("options", [[], ["--parallel"]], ids=["serial", "4 threads"])
def test_the_model_of_a_measured_boot_is_as_long_as_the_boot(host: Host, seed: int, options: list[str]) -> None:
    generator = random.Random(seed)
    host.write("/sys/devices/system/cpu/online", "0-1\n")  # a processor has two threads
    host.debug_configuration(*random_steps(generator, 20))
    errors: list[float] = []
    while not errors or min(errors) > ERROR and len(errors) < ATTEMPTS:
        errors.append(error_of_model(host, *options))
    assert min(errors) <= ERROR, errors
