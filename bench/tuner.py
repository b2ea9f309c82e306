"""Tuned kernels against the defaults over 20 shapes, and what a repeat of the defaults differs by."""

import ctypes
import os
import sys
import tempfile
import time
from collections.abc import Callable
from dataclasses import dataclass, replace

import numpy as np

CACHE = 8 << 20  # bytes: more than a core's own cache
os.environ.setdefault("KEVRA_CPU_CACHE", str(CACHE))  # a virtual machine may tell its host's, of gigabytes

import kevra  # noqa: E402
from harness import Figure, Hip, options, progress, report  # noqa: E402
from kevra import TunedShape  # noqa: E402

RATE = 16000
MOST = 1 << 22  # floats: no shape reads or writes more
SIGNAL = {"batch": 8, "length": RATE}
PLANS = [kevra.constant_q_plan(RATE, hop, bins) for hop, bins in ((256, 60), (128, 36))]
SHAPES = [
    *(("fft", {"batch": 64, "n": n}) for n in (256, 1000, 1024, 2048)),
    *(("rfft", {"batch": 128, "n": n}) for n in (400, 512, 2048)),
    *(("stft", {**SIGNAL, "n_fft": n, "hop": n // 4, "output": "power"}) for n in (256, 400, 512, 1024, 2048)),
    *(("istft", {"batch": 8, "frames": 4 * RATE // n, "n_fft": n, "hop": n // 4}) for n in (400, 512, 1024)),
    *(("mel", {**SIGNAL, "n_fft": n, "hop": n // 4, "fb": kevra.mel_filter_bank(RATE, n, 40)})
      for n in (400, 512, 1024)),
    *(("cqt", {"batch": 1, "length": RATE, "plan": plan}) for plan in PLANS),
]


@dataclass
class Case:
    """One direction of one shape: its hints, the plain call, and the calls' times in microseconds."""

    name: str
    tuned: list[TunedShape]
    call: Callable[[], None]
    default_us: float = 0
    tuned_us: float = 0
    ratio: float = 0  # tuned over default
    repeat: float = 0  # the default again, over itself

    def is_default(self) -> bool:
        return not any(value for one in self.tuned for value in one.hint)


def cases(op: str, shape: dict, x: int, out: int) -> list[Case]:
    tuned = kevra.tune(op, **shape)
    size = shape.get("n") or shape.get("n_fft") or f"{shape['plan'].n_bins} bins"
    calls = plain_calls(op, shape, x, out)
    if len(calls) == 1:  # a constant-Q transform has a hint an octave
        return [Case(f"{op} {size}", tuned, calls[0])]
    return [Case(f"{op} {size}{way}", [one], call) for way, one, call in zip(("", " inverse"), tuned, calls)]


def plain_calls(op: str, shape: dict, x: int, out: int) -> list[Callable[[], None]]:
    """The resident calls of a shape, forward and inverse where it has both."""
    batch = shape["batch"]
    if op == "fft":
        return [lambda inverse=inverse: kevra.fft_resident(x, out, batch, shape["n"], inverse, 1, 0, 0)
                for inverse in (False, True)]
    if op == "rfft":
        return [lambda way=way: way(x, out, batch, shape["n"], 1, 0, 0)
                for way in (kevra.rfft_resident, kevra.irfft_resident)]
    if op == "cqt":
        plan = shape["plan"].arguments(RATE)
        return [lambda: kevra.cqt_resident(x, out, batch, RATE, *plan, "complex", 1e-10, 1)]
    n_fft, frames = shape["n_fft"], (shape["n_fft"], shape["hop"], True)
    if op == "stft":
        return [lambda: kevra.stft_resident(x, out, batch, RATE, *frames, "power", 1e-10, "hann", 1)]
    if op == "mel":
        return [lambda: kevra.mel_resident(x, out, batch, RATE, shape["fb"], *frames, 2, "power", 1e-10, "hann", 1)]
    bins, count = n_fft // 2 + 1, shape["frames"]
    return [lambda: kevra.istft_resident(x, out, batch, bins, count, count * bins, 1, bins, *frames, -1, "hann", 1)]


def compare(case: Case, rounds: int, hip: Hip, flush: int) -> Case:
    """Times the default, the winner and the default again in turn, each with cold caches. What each round says of the
    three counts by its median: other work on the machine passes over all of them."""
    default = [replace(t, ept=0, fpb=0, tpf=0, core=0, var=0) for t in case.tuned]
    start, stop = hip.event(), hip.event()
    times = np.empty((rounds, 3))
    for one in times:
        for i, hints in enumerate((default, case.tuned, default)):
            for hint in hints:
                hint.apply()
            case.call()  # makes the plan anew
            hip.call("hipMemsetD8Async", ctypes.c_void_p(flush), 0, ctypes.c_size_t(CACHE), None)
            hip.record(start)
            case.call()
            hip.record(stop)
            hip.synchronize()
            one[i] = hip.microseconds(start, stop)
    first, tuned, again = times.T
    medians = (first, tuned, tuned / np.sqrt(first * again), again / first)
    default_us, tuned_us, ratio, repeat = (float(np.median(values)) for values in medians)
    return replace(case, default_us=default_us, tuned_us=tuned_us, ratio=ratio, repeat=repeat)


def main() -> int:
    chosen = options(__doc__, rounds=40)
    started = time.perf_counter()
    with tempfile.TemporaryDirectory(prefix="kevra-bench-") as folder:
        os.environ["KEVRA_CACHE_DIR"] = folder
        hip = Hip()
        flush, out = hip.malloc(CACHE), hip.malloc(MOST * 4)
        x = hip.upload(np.random.default_rng(1).standard_normal(MOST, np.float32))
        rows = [compare(case, chosen.rounds, hip, flush)
                for op, shape in progress(SHAPES, "tuning") for case in cases(op, shape, x, out)]

    print(f"{'shape':<18} {'default us':>11} {'tuned us':>11} {'gain':>7} {'repeat':>7}  ept fpb tpf core var")
    for row in rows:
        hint = row.tuned[0]
        print(f"{row.name:<18} {row.default_us:11.1f} {row.tuned_us:11.1f} {1 / row.ratio:6.2f}x "
              f"{row.repeat - 1:+7.1%}  {hint.ept:3} {hint.fpb:3} {hint.tpf:3} {hint.core:4} {hint.var:3}")
    best, worst = min(rows, key=lambda row: row.ratio), max(rows, key=lambda row: row.ratio)
    noise = max(abs(row.repeat - 1) for row in rows)
    notes = {
        "best gain": f"{1 / best.ratio:.2f} times at {best.name}",
        "gain on average": f"{np.exp(-np.mean(np.log([row.ratio for row in rows]))):.2f} times, geometric mean",
        "default kept": f"{sum(row.is_default() for row in rows)} of {len(rows)} directions of {len(SHAPES)} shapes",
        "noise of a repeat": f"{noise:.1%}, the largest of all",
        "slowest winner": worst.name,
        "took": f"{time.perf_counter() - started:.0f} s, all kernels compiled anew",
    }
    measured = f"median of {chosen.rounds} alternating calls, {CACHE >> 20} MiB overwritten before each"
    return report(chosen, measured, [Figure("winner over default", worst.ratio, "times", 1 + noise)], notes)


if __name__ == "__main__":
    sys.exit(main())
