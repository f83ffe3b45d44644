"""Waiting for a fact, with a bound: the one place where host tests look at a clock."""
import select
import time
from collections.abc import Callable
from typing import TypeVar

T = TypeVar("T")


def eventually(fact: Callable[[], T], what: str, seconds: float = 10) -> T:
    """Returns the first true value of fact(); fails when there was none in time."""
    deadline = time.monotonic() + seconds
    while True:
        value = fact()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"not within {seconds} s: {what}")
        select.select([], [], [], 0.01)
