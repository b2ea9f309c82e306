"""What ``tune`` runs for each operation: a tuner's arguments, and the shapes that its winners are for."""

from __future__ import annotations

import operator
from collections.abc import Callable
from dataclasses import dataclass

import numpy as np

from . import _rocm

_HALF, _FLOAT, _DOUBLE, _PACKED = range(4)
_STORAGE = {_HALF: "f2", _FLOAT: "f4", _DOUBLE: "f8", _PACKED: "f2"}
_BITS = {_HALF: 16, _FLOAT: 32, _DOUBLE: 64, _PACKED: 16}
_PACKED_BITS = 8  # where arithmetic is half as well
_EPS = 1e-10
_DEFAULT = dict(ept=0, fpb=0, tpf=0, core=0, var=0)


@dataclass(frozen=True)
class Job:
    """One run of a tuner. ``shapes`` are what ``set_shape_hint`` knows its winners by; ``winners`` takes the address of
    the input and the tuner's device and counts, and gives one winner a shape, or none at all. The input is ``values``
    real numbers of type ``storage``: ``batch`` rows of ``length`` samples, of istft frames."""

    shapes: list[tuple]
    batch: int
    length: int
    values: int
    storage: str
    winners: Callable[..., list[dict]]


def stft(prec, batch, length, n_fft, hop, center=True, output="complex", window="hann"):
    batch, length, n_fft, hop = _counts(batch=batch, length=length, n_fft=n_fft, hop=hop)
    shape = "stft", n_fft, hop, bool(center), _frame_bits(prec, n_fft), _form(output), 0

    def winners(address, **run):
        arguments = address, batch, length, n_fft, hop, center, output, _EPS, window, prec
        return _one(_rocm.stft_autotune_gpu(*arguments, **run))

    return Job([shape], batch, length, batch * length, _STORAGE[prec], winners)


def istft(prec, batch, frames, n_fft, hop, center=True, window="hann"):
    batch, frames, n_fft, hop = _counts(batch=batch, frames=frames, n_fft=n_fft, hop=hop)
    bins = n_fft // 2 + 1
    shape = "istft", n_fft, hop, bool(center), _BITS[prec], "complex", 0

    def winners(address, **run):
        arguments = address, batch, bins, frames, frames * bins, 1, bins, n_fft, hop, center, window, prec
        return _one(_rocm.istft_autotune_gpu(*arguments, **run))

    return Job([shape], batch, frames, 2 * batch * frames * bins, _STORAGE[prec], winners)


def mel(prec, batch, length, fb, n_fft, hop, center=True, power=2, output="power", window="hann"):
    batch, length, n_fft, hop = _counts(batch=batch, length=length, n_fft=n_fft, hop=hop)
    bank = np.atleast_1d(np.ascontiguousarray(fb, np.float64))
    shape = "mel", n_fft, hop, bool(center), _frame_bits(prec, n_fft), _form(output), len(bank)

    def winners(address, **run):
        arguments = address, batch, length, bank, n_fft, hop, center, power, output, _EPS, window, prec
        return _one(_rocm.mel_autotune_gpu(*arguments, **run))

    return Job([shape], batch, length, batch * length, _STORAGE[prec], winners)


def fft(prec, batch, n):
    bits = _PACKED_BITS if prec == _PACKED else _BITS[prec]
    return _rows("fft", _rocm.fft_autotune_gpu, prec, bits, batch, n, 2)


def rfft(prec, batch, n):
    return _rows("rfft", _rocm.rfft_autotune_gpu, prec, _BITS[prec], batch, n, 1)


def _rows(op, tuner, prec, bits, batch, n, reals):
    batch, n = _counts(batch=batch, n=n)
    shapes = [(op, n, 0, inverse, bits, "complex", 0) for inverse in (False, True)]

    def winners(address, **run):
        both = tuner(address, batch, n, prec, **run)
        return [both["forward"], both["inverse"]] if both else []

    return Job(shapes, batch, n, reals * batch * n, _STORAGE[prec], winners)


def cqt(prec, batch, length, plan, output="complex"):
    if prec == _PACKED:
        raise ValueError("tune: prec is 3, must be 0, 1 or 2 for cqt")
    batch, length = _counts(batch=batch, length=length)
    bits = 64 if prec == _DOUBLE else 32
    sizes = dict.fromkeys((n_fft, hop) for _, hop, n_fft, *_ in plan.octaves)
    shapes = [("cqt", int(n_fft), int(hop), False, bits, _form(output), 0) for n_fft, hop in sizes]

    def winners(address, **run):
        arguments = address, batch, length, *plan.arguments(length), output, _EPS, prec
        winner = _rocm.cqt_autotune_gpu(*arguments, **run)
        return [{**_DEFAULT, "core": winner["core"], "ms": winner["ms"]}] * len(shapes)

    return Job(shapes, batch, length, batch * length, _STORAGE[prec], winners)


def _one(winner: dict) -> list[dict]:
    return [winner] if winner else []


def _frame_bits(prec, n_fft):
    return _PACKED_BITS if prec == _PACKED and n_fft & (n_fft - 1) == 0 else _BITS[prec]


def _form(output):
    return output if output in ("magnitude", "power", "db") else "complex"


def _counts(**values) -> list[int]:
    for name, value in values.items():
        if not 1 <= operator.index(value) < 2**31:
            raise ValueError(f"tune: {name} is {value}, must be from 1 to {2**31 - 1}")
    return [operator.index(value) for value in values.values()]


JOBS = {"stft": stft, "istft": istft, "mel": mel, "fft": fft, "rfft": rfft, "cqt": cqt}


def job(op: str, prec=_FLOAT, **shape) -> Job:
    if prec not in _BITS:
        raise ValueError(f"tune: prec is {prec!r}, must be 0 (half), 1 (float), 2 (double) or 3 (packed half)")
    return JOBS[op](prec, **shape)
