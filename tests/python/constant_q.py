"""Constant-Q transforms by their definition, in double, and plans of every kind at random."""

import itertools
from dataclasses import dataclass, replace

import numpy as np
from spectrograms import in_form  # noqa: F401

_keys = itertools.count()


@dataclass(frozen=True)
class Plan:
    """What describes a transform; `octaves` are tuples (level, hop, n_fft, row_lo, br, bi)."""

    n_levels: int
    octaves: list
    taps: np.ndarray
    plan_key: str
    n_bins: int
    frames: int

    def __str__(self):
        octaves = [(*octave[:4], octave[4].shape) for octave in self.octaves]
        return f"{self.n_levels} levels, {self.n_bins} bins, {self.frames} frames, {octaves}"

    @property
    def arguments(self):
        return self.n_levels, self.octaves, self.taps, self.plan_key, self.n_bins, self.frames

    def changed(self, **changes):
        """The same but for the changes, under a key of its own."""
        return replace(self, **{"plan_key": new_key(), **changes})


def new_key():
    return f"test{next(_keys)}"


def half_band(rng=None):
    """A windowed sinc, its zeros replaced by NaNs that nothing may read."""
    t = np.arange(65) - 32
    beta = 8 if rng is None else rng.uniform(4, 12)
    return np.where((t == 0) | (t % 2 != 0), np.sinc(t / 2) / 2 * np.kaiser(65, beta), np.nan)


def basis(rng, rows, n_fft):
    """Rows of a few or all columns, with zeros among them, one in eight empty."""
    bins = n_fft // 2 + 1
    br, bi = np.zeros((2, rows, bins))
    for row in range(rows):
        low, high = sorted(rng.integers(0, bins + 1, 2))
        if rng.integers(8) == 0:
            high = low
        for part in br, bi:
            part[row, low:high] = rng.standard_normal(high - low) * rng.integers(0, 4, high - low).clip(max=1)
    return br / n_fft, bi / n_fft


def lengths(length, n_levels):
    out = [length]
    while len(out) < n_levels:
        out.append((out[-1] + 1) // 2)
    return out


SIZES = [16, 64, 256, 512, 1024, 2048, 100, 250, 441, 750, 1022]


def draw(rng, length, n_levels, frames, sizes=SIZES):
    """A plan with some octaves on some levels, their rows and the list in any order."""
    levels = [n_levels - 1, *rng.integers(0, n_levels, rng.integers(0, 4))]
    rows = rng.integers(1, 13, len(levels))
    starts = rng.permutation(len(levels))
    row_lo = np.zeros(len(levels), int)
    row_lo[starts[1:]] = np.cumsum(rows[starts])[:-1]
    octaves = []
    for level, count, first in zip(levels, rows, row_lo):
        n_fft = int(rng.choice(sizes))
        longest = (lengths(length, n_levels)[level] - n_fft % 2) // max(frames - 1, 1)
        hop = int(rng.integers(1, longest + 1))
        octaves.append((int(level), hop, n_fft, int(first), *basis(rng, count, n_fft)))
    rng.shuffle(octaves)
    return Plan(n_levels, octaves, half_band(rng), new_key(), int(rows.sum()), frames)


def reference(y, plan):
    """Complex, (batch, n_bins, frames)."""
    taps = np.nan_to_num(plan.taps)
    signals = [y.astype(np.float64)]
    while len(signals) < plan.n_levels:
        padded = np.pad(signals[-1], ((0, 0), (32, 32)))
        signals.append(np.array([np.correlate(row, taps, "valid")[::2] for row in padded]))
    out = np.full((len(y), plan.n_bins, plan.frames), np.nan, complex)
    for level, hop, n_fft, row_lo, br, bi in plan.octaves:
        padded = np.pad(signals[level], ((0, 0), (n_fft // 2,) * 2))
        frames = np.lib.stride_tricks.sliding_window_view(padded, n_fft, axis=1)[:, ::hop][:, : plan.frames]
        out[:, row_lo : row_lo + len(br)] = (np.fft.rfft(frames) @ (br + 1j * bi).T).swapaxes(1, 2)
    return out


def transpose(g, plan, length):
    """What `reference` sends a signal of so many samples to, turned around: real, (batch, length), from complex g."""
    taps = np.nan_to_num(plan.taps)
    sizes = lengths(length, plan.n_levels)
    gradient = np.zeros((len(g), 0))
    for level in reversed(range(plan.n_levels)):
        above = np.zeros((len(g), sizes[level] + 64))
        for j in range(gradient.shape[1]):
            above[:, 2 * j:2 * j + 65] += gradient[:, j, None] * taps
        gradient = above[:, 32:32 + sizes[level]]
        for on, hop, n_fft, row_lo, br, bi in plan.octaves:
            if on != level:
                continue
            spectra = np.einsum("ki,bkt->bti", br - 1j * bi, g[:, row_lo:row_lo + len(br)])
            frames = np.fft.ifft(spectra, n_fft, norm="forward").real
            padded = np.zeros((len(g), sizes[level] + 2 * (n_fft // 2)))
            for t in range(plan.frames):
                padded[:, t * hop:t * hop + n_fft] += frames[:, t]
            gradient = gradient + padded[:, n_fft // 2:n_fft // 2 + sizes[level]]
    return gradient


def bin_gradients(spectrum, g, output, eps=1e-10):
    """dE/dC from the gradient g of a form of C; 0 where a form has none."""
    power = abs(spectrum) ** 2
    divisor = {"magnitude": np.sqrt(power), "db": (power + eps) * np.log(10) / 20}.get(output, np.ones_like(power))
    factor = np.divide({"power": 2 * g}.get(output, g), divisor, out=np.zeros(g.shape, g.dtype), where=divisor > 0)
    return factor * (1 if output == "complex" else spectrum)


def relative(got, want):
    return np.linalg.norm(got - want) / np.linalg.norm(want)
