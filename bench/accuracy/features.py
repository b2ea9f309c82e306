"""Random settings of the operations on frames: cepstra, statistics and contrast of spectra, the ways back."""

import dataclasses

import kevra
import numpy as np
from accuracy import settings, spectra, trials
from accuracy.settings import Setting
from accuracy.transforms import REFERENCE
from accuracy.trials import CODES, STORAGE, Trial

STATISTICS = ["centroid", "bandwidth", "flatness", "rolloff"]
FLOOR = 1e-10  # under a sum of magnitudes that divides
ROLL = "rolloff, its running sum over the whole"
WIDEST_SORTED = 4096  # elements that fit any device's shared memory in double
WIDE_ROWS, WIDE_BAND = 3, 1 << 15  # more than fit anywhere
FINE_BINS = 65536  # of a histogram over a band's range


def drawn(random: np.random.Generator, number: int) -> Setting:
    return settings.setting(int(random.integers(1 << 31)), number)


def signal_of(setting: Setting, random: np.random.Generator, precision: str) -> np.ndarray:
    return random.standard_normal((setting.batch, setting.length)).astype(STORAGE[precision])


def cepstra(random: np.random.Generator, number: int, precision: str) -> list[Trial]:
    setting, wide = dataclasses.replace(drawn(random, number), power=2, band_output="db"), REFERENCE[precision]
    window, weights = spectra.window_of(setting, random, wide)
    bank, y = spectra.bank_of(setting, random), signal_of(setting, random, precision)
    n_out, lifter = int(random.integers(1, 41)), float(random.choice([0, 22, random.uniform(5, 40)]))
    top_db = float(random.choice([-1, 80, random.uniform(1, 100)]))
    decibels = spectra.in_form(spectra.reference(setting, "mel", y, weights, bank, wide), "db")
    if top_db >= 0:
        decibels = np.maximum(decibels, decibels.max(axis=(1, 2), keepdims=True) - wide(top_db))
    wanted = decibels @ cosines(n_out, setting.bands, lifter, wide).T
    frame = (setting.n_fft, setting.hop, setting.center, n_out, lifter, top_db, spectra.EPS)

    def queue(x, out):
        kevra.cepstra_resident(x, out, *y.shape, bank, *frame, window, CODES[precision])

    calls = {"resident": trials.resident([y], wanted.shape, y.dtype, queue)}
    if precision == "double":
        calls["staged"] = trials.staged(lambda: kevra.cepstra_staged(y, window, bank, *frame).swapaxes(1, 2))
    what = f"{setting}, {n_out} of them, lifter {lifter:.3g}, top_db {top_db:.3g}"
    return [Trial("cepstra", what, wanted, calls)]


def cosines(n_out: int, bands: int, lifter: float, wide) -> np.ndarray:
    """The orthonormal DCT-II with its liftering weights; (n_out, bands)."""
    pi = 4 * np.arctan(wide(1))
    k, m = np.arange(n_out).astype(wide)[:, None], np.arange(bands).astype(wide)
    scale = np.where(k == 0, np.sqrt(wide(1) / bands), np.sqrt(wide(2) / bands))
    weight = 1 + wide(lifter) / 2 * np.sin(pi * (k + 1) / wide(lifter)) if lifter > 0 else wide(1)
    return scale * weight * np.cos(pi * (2 * m + 1) * k / (2 * bands))


def inverse_mel(random: np.random.Generator, number: int, precision: str) -> list[Trial]:
    rows, n_in, n_out = (trials.log_uniform(random, 1, most) for most in (200, 256, 2049))
    m = random.standard_normal((rows, n_in)).astype(STORAGE[precision])
    p = random.standard_normal((n_out, n_in))
    clamp, key = bool(random.integers(2)), f"accuracy {number} {precision}"
    wide = REFERENCE[precision]
    stored = p.astype(STORAGE[precision]).astype(wide)
    wanted = np.einsum("fm,km->fk", m.astype(wide), stored)
    wanted = np.maximum(wanted, 0) if clamp else wanted

    def queue(m_there, out):
        kevra.inverse_mel_scale_resident(m_there, out, rows, p, key, clamp, CODES[precision])

    calls = {
        "staged": trials.staged(kevra.inverse_mel_scale_staged, m, p, key, clamp),
        "resident": trials.resident([m], wanted.shape, m.dtype, queue),
    }
    return [Trial("inverse mel scale", f"{rows} rows, {n_in} to {n_out}{', clamped' * clamp}", wanted, calls)]


def statistics(random: np.random.Generator, number: int, precision: str) -> list[Trial]:
    """All four of a setting."""
    setting, wide = drawn(random, number), REFERENCE[precision]
    window, weights = spectra.window_of(setting, random, wide)
    y = signal_of(setting, random, precision)
    magnitudes = abs(spectra.reference(setting, "stft", y, weights, None, wide))
    fstep, p = random.uniform(1, 50), float(random.choice([1, 2, 3, random.uniform(0.5, 4)]))
    amin, roll = 10 ** random.uniform(-10, -2), random.uniform(0.5, 0.99)
    options = (fstep, p, amin, roll)
    found = []
    for stat, name in enumerate(STATISTICS):
        what = f"{setting}, step {fstep:.3g}, p {p:.3g}, amin {amin:.1e}, roll {roll:.3g}"
        frame = (setting.n_fft, setting.hop, setting.center, stat, *options)
        of_signal = statistic_error(stat, magnitudes, options)
        calls = {"signal": signal_form("spectral", y, (window, *frame), magnitudes.shape[:2], precision)}
        if precision == "double":
            calls["staged"] = trials.staged(kevra.spectral_staged, y, window, *frame)
        wanted = statistic(stat, magnitudes, *options)
        found.append(Trial(ROLL if stat == 3 else name, what, wanted, calls, of_signal))
        rows = magnitudes.reshape(-1, magnitudes.shape[-1]).astype(STORAGE[precision])
        calls = {"reduce": reduce_form("spectral", rows, (stat, *options), (len(rows),), precision)}
        wanted, error = statistic(stat, rows.astype(wide), *options), statistic_error(stat, rows.astype(wide), options)
        found.append(Trial(ROLL if stat == 3 else name, what, wanted, calls, error))
    return found


def statistic(stat: int, m: np.ndarray, fstep: float, p: float, amin: float, roll: float) -> np.ndarray:
    frequencies = m.dtype.type(fstep) * np.arange(m.shape[-1])
    if stat == 2:
        w = np.maximum(m**2, m.dtype.type(amin))
        return np.exp(np.log(w).mean(axis=-1)) / w.mean(axis=-1)
    if stat == 3:
        running = np.cumsum(m, axis=-1)
        reached = running >= m.dtype.type(roll) * running[..., -1:]
        return frequencies[np.argmax(reached, axis=-1)]
    size = np.maximum(m.sum(axis=-1), m.dtype.type(FLOOR))
    centroid = (frequencies * m).sum(axis=-1) / size
    if stat == 0:
        return centroid
    spread = (m * abs(frequencies - centroid[..., None]) ** m.dtype.type(p)).sum(axis=-1) / size
    return spread ** (1 / m.dtype.type(p))


def statistic_error(stat: int, m: np.ndarray, options: tuple):
    """Where the running sum reaches its share only just, rounding decides between two bins: what counts is how far
    from the share the sum is at the bin given."""
    if stat != 3:
        return trials.relative_l2
    fstep, _, _, roll = options
    running = np.cumsum(m, axis=-1)
    running = np.concatenate([np.zeros_like(running[..., :1]), running], axis=-1) / running[..., -1:]

    def beside(got: np.ndarray, _) -> float:
        at = np.rint(got / fstep).astype(int)[..., None]
        if abs(got / fstep - at[..., 0]).max() > 1e-3:
            raise ValueError("a rolloff lies between two bins")
        before, behind = (np.take_along_axis(running, at + k, axis=-1) for k in (0, 1))
        return float(np.maximum(np.maximum(roll - behind, before - roll), 0).max())

    return beside


def signal_form(family: str, y: np.ndarray, options: tuple, shape: tuple, precision: str):
    def queue(x, out):
        return getattr(kevra, f"{family}_signal_resident")(x, out, *y.shape, *options, CODES[precision])

    return trials.resident([y], shape, y.dtype, queue)


def reduce_form(family: str, rows: np.ndarray, options: tuple, shape: tuple, precision: str):
    def queue(m, out):
        getattr(kevra, f"{family}_reduce_resident")(m, out, *rows.shape, *options, CODES[precision])

    return trials.resident([rows], shape, rows.dtype, queue)


def contrast(random: np.random.Generator, number: int, precision: str) -> list[Trial]:
    setting, wide = drawn(random, number), REFERENCE[precision]
    window, weights = spectra.window_of(setting, random, wide)
    y = signal_of(setting, random, precision)
    magnitudes = abs(spectra.reference(setting, "stft", y, weights, None, wide))
    batch, frames, bins = magnitudes.shape
    bt, bq = bands_of(random, bins)
    amin, linear = 10 ** random.uniform(-10, -2), bool(random.integers(2))
    what = f"{setting}, bands {bt.tolist()}, {bq.tolist()} each{', linear' * linear}"
    frame = (setting.n_fft, setting.hop, setting.center, bt, bq, amin, linear)
    wanted = contrast_of(magnitudes, bt, bq, amin, linear)
    calls = {"signal": signal_form("contrast", y, (window, *frame), wanted.shape, precision)}
    if precision == "double":
        calls["staged"] = trials.staged(lambda: kevra.contrast_staged(y, window, *frame).swapaxes(1, 2))
    rows = magnitudes.reshape(-1, bins).astype(STORAGE[precision])
    of_rows = contrast_of(rows.astype(wide), bt, bq, amin, linear)
    reduce = {"reduce": reduce_form("contrast", rows, (bt, bq, amin, linear), of_rows.shape, precision)}
    return [Trial("contrast", what, wanted, calls), Trial("contrast", what, of_rows, reduce)]


def bands_of(random: np.random.Generator, bins: int) -> tuple[np.ndarray, np.ndarray]:
    edges = np.unique(random.integers(0, bins + 1, int(random.integers(2, 9))))
    if len(edges) < 2 or np.diff(edges).max() > WIDEST_SORTED:
        edges = np.array([0, min(bins, WIDEST_SORTED)])
    bt = edges.astype(np.int32)
    widths = np.diff(bt)
    share = random.uniform(0.01, 0.5)
    return bt, np.maximum(1, share * widths).astype(np.int32)


def contrast_of(m: np.ndarray, bt: np.ndarray, bq: np.ndarray, amin: float, linear: bool) -> np.ndarray:
    found = []
    for low, high, q in zip(bt, bt[1:], bq):
        band = np.sort(m[..., low:high], axis=-1)
        valley, peak = band[..., :q].mean(axis=-1), band[..., -q:].mean(axis=-1)
        if not linear:
            floor = m.dtype.type(amin)
            peak, valley = 10 * np.log10(np.maximum(peak, floor)), 10 * np.log10(np.maximum(valley, floor))
        found.append(peak - valley)
    return np.stack(found, axis=-1)


def wide_contrast(random: np.random.Generator, number: int, precision: str) -> list[Trial]:
    """Of a band too wide to be sorted: selected by histograms, in float for either precision. So are the sums, which
    round more than a fine bin where many elements count; those are steps that floats add up exactly."""
    n = WIDE_BAND + int(random.integers(1, WIDE_BAND))
    rows = random.exponential(size=(WIDE_ROWS, n)) + random.uniform(0, 2)
    stepped = bool(number % 2)
    rows = (np.rint(rows * 64) / 64 if stepped else rows).astype(STORAGE[precision])
    q = trials.log_uniform(random, 1, 2000 if stepped else 16)
    bt, bq = np.array([0, n], np.int32), np.array([q], np.int32)
    band = np.sort(rows.astype(np.float32), axis=-1).astype(np.float64)
    wanted = contrast_of(band, bt, bq, 1e-10, True)
    fine = (band[:, -1] - band[:, 0]) / FINE_BINS
    ties = tied(band - band[:, :1], q, fine) + tied(band[:, -1:] - band[:, ::-1], q, fine)

    def error(got: np.ndarray, wanted: np.ndarray) -> float:
        return float((abs(got - wanted)[:, 0] * q / (ties * fine)).max())

    calls = {"histogram": reduce_form("contrast", rows, (bt, bq, 1e-10, True), wanted.shape, precision)}
    return [
        Trial(
            "histogram contrast, per tied element in fine bins",
            f"{n} wide, {q} each{', in steps' * stepped}",
            wanted,
            calls,
            error,
        )
    ]


def tied(distances: np.ndarray, q: int, fine: np.ndarray) -> np.ndarray:
    """How many of the q least, in ascending rows, share the fine bin of the last one."""
    bins = np.floor(distances[:, :q] / fine[:, None])
    return (bins == bins[:, -1:]).sum(axis=1)


def griffin_lim(random: np.random.Generator, number: int, precision: str) -> list[Trial]:
    """One iteration: each more one multiplies what rounding does to the phases of faint bins."""
    setting, wide = drawn(random, number), REFERENCE[precision]
    # Other windows leave samples at the ends to a sliver of one frame.
    setting = dataclasses.replace(setting, center=True) if setting.window != "array" else setting
    hop, frames, bins = spectra.hop_back(setting.n_fft, random), int(random.integers(9, 20)), setting.n_fft // 2 + 1
    full = (frames - 1) * hop + setting.n_fft
    inside = full - (setting.n_fft // 2 * 2 if setting.center else 0)
    setting = dataclasses.replace(setting, hop=hop, length=inside, output="complex")
    window, weights = spectra.window_of(setting, random, wide)
    shape = (setting.batch, frames, bins)
    s = random.exponential(size=shape).astype(STORAGE[precision])
    phases = np.exp(2j * np.pi * random.uniform(size=shape))
    phases[..., 0] = 1  # bins that are real in the spectrum of every real frame
    phases[..., bins - 1] = 1
    ang = phases.astype(np.result_type(s.dtype, np.complex64))
    momentum = random.uniform(0, 1)
    wanted = back(s * ang.astype(np.result_type(wide, ang.dtype)), setting, weights)
    z = np.fft.rfft(spectra.frames_of(wanted, setting) * weights)
    wanted = back(s * (z / (abs(z) + wide(1e-16))), setting, weights)
    options = (setting.n_fft, hop, setting.center, 1, momentum, 0)

    def queue(s_there, ang_there, y):
        kevra.griffinlim_resident(s_there, ang_there, y, *shape, *options, window, CODES[precision])

    calls = {
        "staged": trials.staged(kevra.griffinlim_staged, s, ang, window, *options),
        "resident": trials.resident([s, ang], wanted.shape, s.dtype, queue),
    }
    return [Trial("Griffin-Lim, 1 iteration", f"{setting}, {frames} frames", wanted, calls)]


def back(spectrum: np.ndarray, setting: Setting, weights: np.ndarray) -> np.ndarray:
    """The signal nearest to a spectrum: frames times the window, added and divided by the sum of its squares."""
    n_fft, hop = setting.n_fft, setting.hop
    frames = np.fft.irfft(spectrum, n_fft) * weights
    total = np.zeros((len(frames), (frames.shape[1] - 1) * hop + n_fft), frames.dtype)
    envelope = np.zeros(total.shape[1], frames.dtype)
    for f in range(frames.shape[1]):
        total[:, f * hop : f * hop + n_fft] += frames[:, f]
        envelope[f * hop : f * hop + n_fft] += weights**2
    pad = n_fft // 2 if setting.center else 0
    inside = slice(pad, total.shape[1] - pad)
    return total[:, inside] / envelope[inside]
