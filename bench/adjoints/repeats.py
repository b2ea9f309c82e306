"""Whether gradients repeat to the bit when blocks and threads run in another order, one process an order."""

import hashlib
import multiprocessing
import os

import kevra
import numpy as np
from adjoints import linear, nonlinear


def differing(runs: int, processes: int) -> tuple[list[str], list[str]]:
    """The adjoints whose bits differ between runs in deterministic mode, and those whose bits do without it."""
    spawn = multiprocessing.get_context("spawn")
    with spawn.Pool(processes, maxtasksperchild=1) as pool:
        first = pool.apply(digests, (0,))  # compiles everything
        others = pool.map(digests, range(1, runs), chunksize=1)
    return tuple([name for name in first[mode] if any(other[mode][name] != first[mode][name] for other in others)]
                 for mode in (1, 0))


def digests(order: int) -> dict[int, dict[str, str]]:
    os.environ["KEVRA_CPU_ORDER"] = f"shuffle:{order}"
    kevra.use_cpu_device()
    return {mode: {name: digest(gradient, mode) for name, gradient in gradients().items()} for mode in (1, 0)}


def digest(gradient, mode: int) -> str:
    kevra.set_deterministic(mode)
    return hashlib.blake2b(gradient().tobytes()).hexdigest()


def gradients() -> dict:
    found = {}
    for place, name in enumerate(linear.OPERATIONS):
        for real in np.float32, np.float64:
            pair = linear.OPERATIONS[name](np.random.default_rng(place), real)
            found[f"{name}, {np.dtype(real)}"] = pair.adjoint
    for place, (name, (make, *setting)) in enumerate(nonlinear.OPERATIONS.items()):
        random = np.random.default_rng(place)
        draw, forward, gradient = make(*setting)
        x = draw(random)
        weights = random.standard_normal(forward(x).shape)
        found[f"{name}, float64"] = lambda gradient=gradient, x=x, weights=weights: gradient(x, weights)
    return found
