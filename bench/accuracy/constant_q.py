"""One random constant-Q design measured: both routes, every form and precision, against numpy in double."""

from dataclasses import dataclass, field

import harness
import kevra
import numpy as np
from accuracy import transforms
from accuracy.settings import FORMS
from accuracy.spectra import BITS, CODES, EPS, decibel_errors, in_form, norm
from accuracy.transforms import STORAGE

FUSED, TWO_STAGES, BOTH = "fused", "two stages", "both"
SMALL_PRIMES = [100, 250, 400, 441, 750, 1000, 1022, 1200, 3000]
OTHERS = [254, 511, 1009, 2018, 1139]  # a chirp or a prime stage
MOST_LEVELS = 8
MOST_FRAMES = 60


@dataclass(frozen=True)
class Setting:
    number: int
    batch: int
    length: int
    n_levels: int
    octaves: list  # tuples (level, hop, n_fft, row_lo, br, bi)
    taps: np.ndarray
    n_bins: int
    frames: int
    output: str

    def __str__(self) -> str:
        octaves = ", ".join(f"level {o[0]} hop {o[1]} n_fft {o[2]} x {len(o[4])}" for o in self.octaves)
        return f"design {self.number}: {self.batch} x {self.length}, {self.frames} frames, {self.output}: {octaves}"

    def arguments(self, key: str) -> tuple:
        return self.n_levels, self.octaves, self.taps, key, self.n_bins, self.frames


@dataclass
class Measured:
    """What one precision of a design came to; after a failure there are no errors."""

    setting: Setting
    precision: str
    errors: dict[str, float] = field(default_factory=dict)
    fused: bool = False  # an octave ran as one kernel
    failure: str = ""

    def __str__(self) -> str:
        return f"{self.precision}, {self.setting}"


def setting(seed: int, number: int) -> Setting:
    """The number goes through the levels, then through the forms; all else is random."""
    random = np.random.default_rng([seed, number])
    n_levels = number % MOST_LEVELS + 1
    length = 2 * int(random.integers(2000, 20000)) + number % 2
    samples = samples_of(length, n_levels)
    frames = int(random.integers(1, min(MOST_FRAMES, samples[-1])))
    levels = [n_levels - 1, *random.integers(0, n_levels, random.integers(1, 7))]
    octaves, row_lo = [], 0
    for level in levels:
        n_fft = frame_length(random)
        longest = (samples[level] - n_fft % 2) // max(frames - 1, 1)
        hop = int(random.integers(1, longest + 1))
        rows = int(random.integers(1, 25))
        octaves.append((int(level), hop, n_fft, row_lo, *basis(random, rows, n_fft)))
        row_lo += rows
    random.shuffle(octaves)
    output = FORMS[number // MOST_LEVELS % len(FORMS)]
    batch = int(random.integers(1, 4))
    return Setting(number, batch, length, n_levels, octaves, half_band(random), row_lo, frames, output)


def frame_length(random) -> int:
    kind = random.integers(5)
    if kind < 3:
        return 2 ** int(random.integers(3, 14))
    return int(random.choice(SMALL_PRIMES if kind == 3 else OTHERS))


def basis(random, rows: int, n_fft: int) -> tuple[np.ndarray, np.ndarray]:
    """Rows over a few neighbouring columns, some over all, one in ten empty."""
    bins = n_fft // 2 + 1
    br, bi = np.zeros((2, rows, bins))
    for row in range(rows):
        width = bins if random.random() < 0.1 else 0 if random.random() < 0.1 else min(random.integers(1, 300), bins)
        low = int(random.integers(0, bins - width + 1))
        for part in br, bi:
            part[row, low : low + width] = random.standard_normal(width) / n_fft
    return br, bi


def half_band(random) -> np.ndarray:
    t = np.arange(65) - 32
    return np.sinc(t / 2) / 2 * np.kaiser(65, random.uniform(4, 12))


def samples_of(length: int, n_levels: int) -> list[int]:
    samples = [length]
    while len(samples) < n_levels:
        samples.append((samples[-1] + 1) // 2)
    return samples


def reference(y: np.ndarray, s: Setting) -> np.ndarray:
    """(batch, n_bins, frames), complex, by definition."""
    taps = np.where(np.arange(65) % 2 == 1, s.taps, 0)
    taps[32] = s.taps[32]
    signals = [y.astype(np.float64)]
    while len(signals) < s.n_levels:
        around = np.pad(signals[-1], ((0, 0), (32, 32)))
        windows = np.lib.stride_tricks.sliding_window_view(around, 65, axis=1)[:, ::2]
        signals.append(windows @ taps)
    out = np.empty((len(y), s.n_bins, s.frames), complex)
    for level, hop, n_fft, row_lo, br, bi in s.octaves:
        around = np.pad(signals[level], ((0, 0), (n_fft // 2, n_fft // 2)))
        frames = np.lib.stride_tricks.sliding_window_view(around, n_fft, axis=1)[:, ::hop][:, : s.frames]
        out[:, row_lo : row_lo + len(br)] = (np.fft.rfft(frames) @ (br + 1j * bi).T).swapaxes(1, 2)
    return out


def measure(s: Setting, seed: int) -> list[Measured]:
    return [measure_one(s, precision, seed) for precision in STORAGE]


def measure_one(s: Setting, precision: str, seed: int) -> Measured:
    result = Measured(s, precision)
    y = np.random.default_rng([seed, s.number, 1]).standard_normal((s.batch, s.length)).astype(STORAGE[precision])
    key = f"bench{s.number}"
    try:
        transforms.launched_kernels()
        compare = compare_half if precision == "half" else compare_routes
        result.errors = compare(s, precision, y, key)
        result.fused = any(name.startswith("raw_cqtf_") for name in transforms.launched_kernels())
    except Exception as failure:  # the others go on, and a figure is missed
        result.failure = f"{type(failure).__name__}: {failure}"
    finally:
        kevra.shape_hint_clear()
    return result


def compare_routes(s: Setting, precision: str, y: np.ndarray, key: str) -> dict[str, float]:
    wanted = reference(y, s)
    fused = kevra.cqt_staged(y, *s.arguments(key), "complex")
    formed = kevra.cqt_staged(y, *s.arguments(key), s.output, EPS)
    for _, hop, n_fft, *_ in s.octaves:
        kevra.set_shape_hint("cqt", n_fft, hop, False, BITS[precision], "complex", 0, 0, 0, 0, 0, 1)
    staged = kevra.cqt_staged(y, *s.arguments(key), "complex")
    errors = {FUSED: l2(fused, wanted), TWO_STAGES: l2(staged, wanted), BOTH: l2(fused, staged)}
    if s.output == "db":
        decibels = decibel_errors(formed.swapaxes(1, 2), in_form(wanted, "db").swapaxes(1, 2))
        return {**errors, "db": decibels["db weighted"]}
    return {**errors, s.output: l2(formed, in_form(wanted, s.output))}


def compare_half(s: Setting, precision: str, y: np.ndarray, key: str) -> dict[str, float]:
    """Over the largest of a result; only real forms of which the halves hold the range."""
    output = "magnitude" if s.output in ("power", "db") else s.output
    wanted = in_form(reference(y, s), output)
    got = resident(s, y, key, output)
    return {"half": float(abs(got - wanted).max() / abs(wanted).max())}


def resident(s: Setting, y: np.ndarray, key: str, output: str) -> np.ndarray:
    parts = 2 if output == "complex" else 1
    result = np.empty((s.batch, s.n_bins, s.frames * parts), np.float16)
    hip = harness.Hip()
    x, out = hip.upload(y), hip.malloc(result.nbytes)
    try:
        kevra.cqt_resident(x, out, *y.shape, *s.arguments(key), output, EPS, CODES["half"])
        hip.synchronize()
        hip.download(result, out)
    finally:
        hip.free(x, out)
    wide = result.astype(np.float64)
    return wide.view(np.complex128) if parts == 2 else wide


def l2(got: np.ndarray, wanted: np.ndarray) -> float:
    return float(norm(got - wanted) / norm(wanted))
