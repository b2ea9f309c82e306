"""Choosing kernels by measurement: ``tune`` for shapes, ``load_tuned`` for all that were tuned before."""

from __future__ import annotations

import itertools

from . import _rocm, _tuned_file
from ._noise import Noise
from ._progress import progress
from ._tuned_file import TunedShape
from ._tuning_jobs import JOBS, Job, job

_NO_LISTS = ("window", "fb")  # these are sequences themselves


def tune(op, *, prec=1, device=0, again=False, iters=None, warmup=None, **shape) -> list[TunedShape]:
    """Measures which kernels are fastest for a shape, and uses them from here on, in this process and in later ones.

    Every variant that the operation has for the shape is run on the device, with cold caches, on noise. The fastest
    becomes the shape's hint (``set_shape_hint``) and is kept in ``tuned_file(device)``; a later program takes it from
    there by ``load_tuned()``, or by the same call of ``tune``, which measures nothing twice.

    op and shape:
        "stft": batch, length, n_fft, hop, center=True, output="complex", window="hann"
        "istft": batch, frames, n_fft, hop, center=True, window="hann"
        "mel": batch, length, fb, n_fft, hop, center=True, power=2, output="power", window="hann"
        "fft", "rfft": batch, n; both directions
        "cqt": batch, length, plan (of constant_q_plan), output="complex"
    Each but window and fb, and prec, may be a list: every combination is tuned, with a progress bar on the terminal.
    A hint holds for the transform's size, hop, form of output and precision, whatever batch and length: tune with those
    that matter most.
    prec: 0 half storage, 1 float, 2 double, 3 packed half, as the resident functions take it.
    again: measure what the file already has.
    iters, warmup: the most runs of a variant in each measurement, by default the tuners' own.

    Returns one ``TunedShape`` for each hint that was set. Shapes that no hint steers (prime lengths, say) have none.
    Raises TypeError for what is missing or unknown in a shape, ValueError for what the operation refuses, RuntimeError
    when HIP fails or there is no device. Other work on the device falsifies the times.
    """
    if op not in JOBS:
        raise ValueError(f"tune: op is {op!r}, must be one of {', '.join(JOBS)}")
    counts = {name: count for name, count in (("iters", iters), ("warmup", warmup)) if count is not None}
    jobs = [job(op, **one) for one in _combinations({"prec": prec, **shape})]
    kept = {} if again else _tuned_file.read(device)
    found = []
    for one in progress(jobs, f"tuning {op}"):
        tuned = _known(one, kept)
        if not tuned:
            tuned = _measured(one, device, counts)
            if tuned:  # kept at once: an interrupt loses nothing
                _tuned_file.keep(tuned, device)
        for winner in tuned:
            winner.apply(device)
        found += tuned
    return found


def load_tuned(device=None) -> int:
    """Sets the hints that ``tune`` has kept for this device, or for every device, and returns how many.

    A file that is damaged, or of another device or version, is passed over with a warning.
    """
    devices = range(_rocm.device_count()) if device is None else [device]
    hints = [(tuned, number) for number in devices for tuned in _tuned_file.read(number).values()]
    for tuned, number in hints:
        tuned.apply(number)
    return len(hints)


def _combinations(shape: dict) -> list[dict]:
    lists = [value if isinstance(value, (list, tuple, range)) and name not in _NO_LISTS else [value]
             for name, value in shape.items()]
    return [dict(zip(shape, values)) for values in itertools.product(*lists)]


def _known(one: Job, kept: dict[tuple, TunedShape]) -> list[TunedShape]:
    tuned = [kept.get(shape) for shape in one.shapes]
    measured = all(winner is not None and (winner.batch, winner.length) == (one.batch, one.length) for winner in tuned)
    return tuned if measured else []


def _measured(one: Job, device: int, counts: dict) -> list[TunedShape]:
    """The tuner's winners, or the default where a second run of the tuner prefers it: other work on the machine may
    hold up the default in one of them."""
    with Noise(one.values, one.storage, device) as address:
        first, second = ([TunedShape(*shape, **winner, batch=one.batch, length=one.length)
                          for shape, winner in zip(one.shapes, one.winners(address, device=device, **counts))]
                         for _ in range(2))
    return [winner if any(again.hint) else again for winner, again in zip(first, second)]
