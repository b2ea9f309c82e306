"""An operation held against its reference on a random setting, and what a second call of the shape costs the pools."""

import math
from collections.abc import Callable
from dataclasses import dataclass

import harness
import kevra
import numpy as np
from accuracy import transforms
from kevra import _diagnostics

CODES = {"float": 1, "double": 2}
STORAGE = {precision: transforms.STORAGE[precision] for precision in CODES}


def relative_l2(got: np.ndarray, wanted: np.ndarray) -> float:
    size = norm(wanted)
    return float(norm(got - wanted) / (size if size > 0 else 1))


def norm(values: np.ndarray) -> np.floating:
    return np.sqrt(np.square(abs(values)).sum())


def of_the_peak(got: np.ndarray, wanted: np.ndarray) -> float:
    return float(abs(got - wanted).max() / abs(wanted).max())


@dataclass
class Trial:
    """Calls that have to give `wanted`, by their route. A call returns its result and how many blocks of memory a
    second one has taken from HIP, or None where the route does not take the setting."""

    figure: str  # what the error counts towards
    setting: str
    wanted: np.ndarray
    calls: dict[str, Callable[[], tuple[np.ndarray, int] | None]]
    error: Callable[[np.ndarray, np.ndarray], float] = relative_l2


@dataclass
class Outcome:
    figure: str
    precision: str
    route: str
    setting: str
    error: float = math.nan
    misses: int = 0
    failure: str = ""

    def __str__(self) -> str:
        return f"{self.figure} {self.precision}, {self.route}, {self.setting}"


# An operation's trials of one setting: operation(random, number, precision).
Operation = Callable[[np.random.Generator, int, str], list[Trial]]


def outcomes(operation: Operation, number: int, seed: int) -> list[Outcome]:
    found = []
    for precision, code in CODES.items():
        random = np.random.default_rng([seed, number, code])
        for trial in operation(random, number, precision):
            for route, call in trial.calls.items():
                outcome = Outcome(trial.figure, precision, route, trial.setting)
                try:
                    answer = call()
                    if answer is None:
                        continue
                    result, outcome.misses = answer
                    if result.shape != trial.wanted.shape:
                        raise ValueError(f"shape {result.shape}, must be {trial.wanted.shape}")
                    outcome.error = trial.error(result, trial.wanted)
                except Exception as failure:  # the others go on, and a figure is missed
                    outcome.failure = f"{type(failure).__name__}: {failure}"
                found.append(outcome)
    return found


def staged(function: Callable, *arguments) -> Callable:
    def call():
        kevra.drain_pool()
        result = function(*arguments).copy()  # its pinned memory goes back
        held = held_blocks()
        function(*arguments)
        return result, held_blocks() - held

    return call


def resident(inputs: list[np.ndarray], shape: tuple[int, ...], dtype, queue: Callable) -> Callable:
    """`queue` gets the addresses of the inputs and of the result, and returns False where it queues nothing."""

    def call():
        kevra.drain_pool()
        result = np.empty(shape, dtype)
        hip = harness.Hip()
        addresses = [hip.upload(np.ascontiguousarray(array)) for array in inputs]
        addresses.append(hip.malloc(result.nbytes))
        try:
            if queue(*addresses) is False:
                return None
            hip.synchronize()
            hip.download(result, addresses[-1])
            held = held_blocks()
            queue(*addresses)
            hip.synchronize()
            return result, held_blocks() - held
        finally:
            hip.synchronize()
            hip.free(*addresses)

    return call


def held_blocks() -> int:
    """Of both pools, in use and cached: nothing but a miss raises it. Blocks of other shapes are no part of the figure:
    a second call may spread its requests over them and its own in another way, and miss one once more."""
    return sum(pool["in_use_blocks"] + pool["cached_blocks"] for pool in _diagnostics.read()["pools"].values())


def log_uniform(random: np.random.Generator, low: int, high: int) -> int:
    return int(np.exp(random.uniform(np.log(low), np.log(high + 1))))
