"""Linear operations and their adjoints: <Ax, y> against <x, A'y> on random settings."""

import math
from collections.abc import Callable
from dataclasses import dataclass

import kevra
import numpy as np
from accuracy import constant_q
from adjoints.device import COMPLEX, On, Out, noise, run, turned

LENGTHS = [8, 64, 256, 512, 1024, 2048, 100, 240, 360, 441, 1000, 1200, 101, 254, 1018, 1009, 2039, 16384]
WINDOWS = ["hann", "hamming", "blackman", "boxcar", "own"]


@dataclass
class Pair:
    """One setting: x, y, A x and A' y."""

    setting: str
    x: np.ndarray
    y: np.ndarray
    forward: Callable[[], np.ndarray]
    adjoint: Callable[[], np.ndarray]

    def error(self) -> float:
        """Over norm(Ax) norm(y), the sums in double."""
        ax, back = self.forward(), self.adjoint()
        there = inner(ax, self.y)
        return abs(there - inner(self.x, back)) / (norm(ax) * norm(self.y))


def inner(a: np.ndarray, b: np.ndarray) -> float:
    """Real, since an operation on spectra may be linear over the real numbers alone."""
    wide = np.complex128 if np.iscomplexobj(a) else np.float64
    return float(np.sum(a.astype(wide) * np.conj(b.astype(wide))).real)


def norm(a: np.ndarray) -> float:
    return math.sqrt(inner(a, a))


def frames_of(random) -> tuple:
    n_fft = int(random.choice(LENGTHS))
    window = str(random.choice(WINDOWS))
    hop = int(random.integers(max(1, n_fft // 8), n_fft // 2 + 1))
    shape = random.uniform(0.2, 1, n_fft) if window == "own" else window
    return n_fft, hop, bool(random.integers(2)), shape, f"n_fft {n_fft}, hop {hop}, {window}"


def stft(random, real) -> Pair:
    n_fft, hop, center, window, told = frames_of(random)
    batch, length = int(random.integers(1, 4)), n_fft + int(random.integers(1, 6 * n_fft))
    x = noise(random, (batch, length), real)
    frames = (length + 2 * (n_fft // 2) * center - n_fft) // hop + 1
    y, lying, strides = turned(random, (batch, n_fft // 2 + 1, frames), COMPLEX[np.dtype(real)])
    return Pair(
        f"{told}, center {center}, {batch} x {length}, strides {strides}", x, y,
        lambda: kevra.stft_staged(x, window, n_fft, hop, center, "complex"),
        lambda: run("stft_adjoint_resident", On(lying), Out(x.shape, real), *y.shape, *strides, n_fft, hop, center,
                    length, window))


def istft(random, real) -> Pair:
    n_fft, hop, center, window, told = frames_of(random)
    batch, frames = int(random.integers(1, 4)), int(random.integers(2, 9))
    z = noise(random, (batch, frames, n_fft // 2 + 1), COMPLEX[np.dtype(real)])
    forward = kevra.istft_staged(z, window, n_fft, hop, center)
    y = noise(random, forward.shape, real)
    return Pair(
        f"{told}, center {center}, {batch} x {frames} frames", z, y, lambda: forward,
        lambda: run("istft_adjoint_resident", On(y), Out(z.shape, z.dtype), batch, y.shape[1], n_fft, hop, center,
                    frames, window))


def cqt(random, real) -> Pair:
    s = constant_q.setting(int(random.integers(1 << 30)), int(random.integers(32)))
    key = f"adjoint {s.number} {random.integers(1 << 62)}"
    x = noise(random, (s.batch, s.length), real)
    y = noise(random, (s.batch, s.n_bins, s.frames), COMPLEX[np.dtype(real)])
    return Pair(
        str(s), x, y, lambda: kevra.cqt_staged(x, *s.arguments(key), "complex"),
        lambda: run("cqt_adjoint_resident", On(x), On(y), Out(x.shape, real), s.batch, s.length, *s.arguments(key),
                    "complex", 1e-10))


def convolution(random, real, of_kernel: bool, is_complex: bool) -> Pair:
    """In its first operand, or in its second one, the kernel."""
    dtype = COMPLEX[np.dtype(real)] if is_complex else real
    rows, n, m = (int(random.integers(1, high)) for high in (5, 3000, 400))
    rows_b = rows if random.integers(2) else 1
    a, b = noise(random, (rows, n), dtype), noise(random, (rows_b, m), dtype)
    start = int(random.integers(0, m))
    count = int(random.integers(1, n + m - start))
    nf = n + m - 1 + int(random.integers(0, 200))
    y = noise(random, (rows, count), dtype)
    forward = kevra.conv_cplx_staged if is_complex else kevra.conv_fft_staged
    x, other = (b, a) if of_kernel else (a, b)
    shared = of_kernel and rows_b != rows
    return Pair(
        f"{rows} x {n} with {rows_b} x {m}, samples {start} to {start + count}, through {nf}", x, y,
        lambda: forward(a, b, nf, start, count),
        lambda: run("conv_adjoint_resident", On(y), On(other), Out(x.shape, dtype), rows, len(other), count,
                    other.shape[1], nf, start, other.shape[1] - 1, x.shape[1], shared, is_complex))


def inverse_mel(random, real) -> Pair:
    bands, bins, rows = (int(random.integers(1, high)) for high in (129, 1030, 200))
    matrix = random.standard_normal((bins, bands))
    key = f"adjoint {random.integers(1 << 62)}"
    x, y = noise(random, (rows, bands), real), noise(random, (rows, bins), real)
    return Pair(
        f"{bins} x {bands}, {rows} rows", x, y, lambda: kevra.inverse_mel_scale_staged(x, matrix, key, False),
        lambda: run("inverse_mel_scale_adjoint_resident", On(x), On(y), Out(x.shape, real), rows, matrix, key, False))


OPERATIONS = {
    "stft": stft,
    "istft": istft,
    "cqt": cqt,
    "convolution, signal": lambda random, real: convolution(random, real, False, False),
    "convolution, kernel": lambda random, real: convolution(random, real, True, False),
    "complex convolution, signal": lambda random, real: convolution(random, real, False, True),
    "complex convolution, kernel": lambda random, real: convolution(random, real, True, True),
    "inverse mel scale": inverse_mel,
}


def measure(name: str, number: int, seed: int) -> dict[str, tuple[float, str]]:
    """Error and setting, by precision; an error that is NaN for a failure, with its text."""
    results = {}
    for precision, real in ("float", np.float32), ("double", np.float64):
        random = np.random.default_rng([seed, number, list(OPERATIONS).index(name)])
        try:
            pair = OPERATIONS[name](random, real)
            results[precision] = pair.error(), pair.setting
        except Exception as failure:  # the others go on, and the figure is missed
            results[precision] = math.nan, f"setting {number}: {type(failure).__name__}: {failure}"
    return results
