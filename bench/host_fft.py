"""Speed of the CPU transform, one row on one thread, against scipy.fft, with FFTW beside both.

The lengths are those that filters of the chirp kernels have: multiples of 4 with prime factors up to 7. What a call of
scipy.fft costs before it transforms anything is measured with one number and taken off its times.
"""

import statistics
import sys
import time
from itertools import repeat
from pathlib import Path

import harness
import kevra
import numpy as np
import scipy.fft

BAR = 1.2  # times the speed of scipy.fft, at the median over the lengths
ROUNDS = 7
DTYPES = {"double": np.complex128, "float": np.complex64}


def lengths(first: int, last: int) -> list[int]:
    found = []
    for n in range(-(-first // 4) * 4, last + 1, 4):
        rest = n
        for prime in (2, 3, 5, 7):
            while rest % prime == 0:
                rest //= prime
        if rest == 1:
            found.append(n)
    return found


def time_scipy(row, calls: int) -> float:
    least = float("inf")
    for _ in range(ROUNDS):
        started = time.perf_counter()
        for _ in repeat(None, calls):
            scipy.fft.fft(row, workers=1)
        least = min(least, (time.perf_counter() - started) / calls)
    return least


def measure(bench, n: int, dtype, call_cost: float) -> dict[str, float]:
    """Microseconds of a transform of length n."""
    random = np.random.default_rng(n)
    row = (random.standard_normal(n) + 1j * random.standard_normal(n)).astype(dtype)
    out = np.empty_like(row)
    calls = max(3, 100_000 // n)  # about half a millisecond
    bench.time_host_fft(row, out, 1, 1)  # builds the plan
    expected = scipy.fft.fft(row.astype(np.complex128))
    if np.linalg.norm(out - expected) > 1e-5 * np.linalg.norm(expected):
        raise SystemExit(f"host_fft of length {n} is wrong, so its speed means nothing.")
    seconds = {
        "host_fft": bench.time_host_fft(row, out, ROUNDS, calls),
        "scipy": max(time_scipy(row, calls) - call_cost, 1e-9),
        "fftw": bench.time_fftw(row.copy(), out, ROUNDS, calls),
    }
    return {name: value * 1e6 for name, value in seconds.items() if value is not None}


def main() -> int:
    more = {"table": {"action": "store_true", "help": "print every length, not only the figures"}}
    chosen = harness.options(__doc__.splitlines()[0], more, first=84, last=65536)
    sys.path.insert(0, str(Path(kevra._rocm.__file__).parents[2] / "bench"))
    import _host_fft_bench as bench

    figures, notes = [], {}
    sizes = lengths(chosen.first, chosen.last)
    for name, dtype in DTYPES.items():
        call_cost = time_scipy(np.zeros(1, dtype), 2000)
        times = {n: measure(bench, n, dtype, call_cost) for n in harness.progress(sizes, name)}
        if chosen.table:
            for n, each in times.items():
                print(f"{name} {n:6}", *(f"{who} {value:9.3f} us" for who, value in each.items()))
        ratios = [each["scipy"] / each["host_fft"] for each in times.values()]
        figures.append(harness.Figure(f"{name} against scipy", statistics.median(ratios), "times", BAR, at_least=True))
        notes[f"{name} least, most"] = f"{min(ratios):.2f}, {max(ratios):.2f} times scipy"
        notes[f"{name} scipy call"] = f"{call_cost * 1e6:.2f} us, taken off"
        if all("fftw" in each for each in times.values()):
            beside = [each["fftw"] / each["host_fft"] for each in times.values()]
            notes[f"{name} against FFTW"] = f"{statistics.median(beside):.2f} times at the median"
        else:
            notes[f"{name} against FFTW"] = "not measured, FFTW is not installed (libfftw3-double3, libfftw3-single3)"
    measured = f"{len(sizes)} lengths from {sizes[0]} to {sizes[-1]}, one row, one thread, least of {ROUNDS} rounds"
    return harness.report(chosen, measured, figures, notes)


if __name__ == "__main__":
    sys.exit(main())
