"""Plans for the constant-Q transform: what ``cqt_...`` and ``chroma_...`` are told about bins, filters and octaves."""

from __future__ import annotations

import hashlib
import operator
from dataclasses import dataclass
from functools import cached_property

import numpy as np

_C1 = 440 * 2 ** (-45 / 12)  # Hz, 32.70
_C = 440 * 2 ** (-9 / 12)  # Hz, pitch class 0
_WINDOW_BANDWIDTH = 1.5  # of Hann, in rate / length: its noise bandwidth
_WINDOW_LOBE = 2.0  # from the middle of Hann's main lobe to its first zero, in rate / length

_TAPS = 65  # what the decimator reads
_KAISER_DECIBELS = 96  # the widest pass band whose mirror image still has 90 dB
_PASS_BAND = 0.202  # of the rate before the decimator: flat to 0.001 dB, and nothing folds back into it


@dataclass(frozen=True, eq=False, repr=False)
class ConstantQPlan:
    """A constant-Q transform as ``constant_q_plan`` designs it.

    What describes it: ``sample_rate`` and ``hop`` of the signal, ``frequencies`` (n_bins, in Hz) and ``lengths``
    (n_bins, the filters' in samples of the signal, not whole numbers).

    What the operations take: ``n_levels``; ``octaves``, tuples (level, hop, n_fft, row_lo, br, bi) with the basis of
    ``br`` + i ``bi`` (rows, n_fft // 2 + 1); ``taps`` (65); ``classes`` (n_bins), each from 0 to ``n_chroma`` - 1;
    ``plan_key``. ``arguments`` and ``chroma_arguments`` put them in order.

    The device's tables are kept under ``plan_key``, a digest of all that they hold: so the arrays are read-only, and
    ``dataclasses.replace`` makes a plan with other ones, under another key.
    """

    sample_rate: float
    hop: int
    frequencies: np.ndarray
    lengths: np.ndarray
    n_levels: int
    octaves: tuple
    taps: np.ndarray
    classes: np.ndarray
    n_chroma: int

    def __post_init__(self):
        for array in (self.frequencies, self.lengths, self.taps, self.classes, *_bases(self.octaves)):
            array.setflags(write=False)

    def __repr__(self):
        low, high = self.frequencies[[0, -1]]
        return (f"ConstantQPlan({self.n_bins} bins from {low:.4g} to {high:.4g} Hz, every {self.hop} samples at "
                f"{self.sample_rate:g} Hz, n_levels={self.n_levels}, {self.plan_key})")

    @property
    def n_bins(self) -> int:
        return len(self.frequencies)

    @cached_property
    def plan_key(self) -> str:
        digest = hashlib.blake2b(digest_size=16)
        numbers = [(*octave[:4], octave[4].shape) for octave in self.octaves]
        digest.update(repr((self.n_levels, numbers, self.n_chroma)).encode())
        for array in (self.taps, self.classes, *_bases(self.octaves)):
            digest.update(np.ascontiguousarray(array))
        return f"cqt_{digest.hexdigest()}"

    def frames(self, samples: int) -> int:
        """Frames of a signal of so many samples: one around each sample t * hop, t from 0, the signal being continued
        by zeros. No level of the decimated signal has fewer."""
        if samples < 1:
            raise ValueError(f"ConstantQPlan.frames: samples is {samples}, must be at least 1")
        return samples // self.hop + 1

    def arguments(self, samples: int) -> tuple:
        """What ``cqt_staged`` and ``cqt_resident`` take from n_levels to frames, for rows of so many samples:
        ``cqt_staged(y, *plan.arguments(y.shape[1]), "magnitude")``."""
        frames = self.frames(samples)
        return self.n_levels, list(self.octaves), self.taps, self.plan_key, self.n_bins, frames

    def chroma_arguments(self, samples: int) -> tuple:
        """What ``chroma_staged`` and ``chroma_resident`` take from n_levels to frames:
        ``chroma_staged(y, *plan.chroma_arguments(y.shape[1]))``."""
        n_levels, octaves, taps, plan_key, n_bins, frames = self.arguments(samples)
        return n_levels, octaves, taps, self.classes, plan_key, n_bins, self.n_chroma, frames


def constant_q_plan(sample_rate, hop, n_bins=84, bins_per_octave=12, f_min=_C1, filter_scale=1.0, scale="ortho",
                    sparsity=0.01, n_chroma=12):
    """Designs a constant-Q transform: bins at equal distances in pitch, each with a filter as long as Q periods.

    With B = bins_per_octave, bin k stands for f_k = f_min 2^(k / B) Hz. All bins share Q = filter_scale / a, where
    a = (2^(2 / B) - 1) / (2^(2 / B) + 1) makes the band f (1 - a) .. f (1 + a) as wide in pitch as the step from the
    bin below to the bin above. The filter of bin k is L_k = Q sample_rate / f_k samples of a Hann window,
    w_k(m) = (1 + cos(2 pi m / L_k)) / 2 for abs(m) < L_k / 2, and frame t is

        C[k, t] = s_k / W_k  sum over m of  w_k(m) x[t hop + m] exp(-2 pi j f_k m / sample_rate),   W_k = sum of w_k

    where x is zero outside the signal.

    sample_rate, f_min: in Hz. f_min is the lowest bin, C1 = 32.70 Hz by default; an instrument that is tuned c cents
    high wants it times 2^(c / 1200).
    hop: samples from frame to frame, any number from 1 up. An octave can only be computed at half of the rate of the
    one above where the hop is still a whole number there, so one that 2^6 divides serves seven octaves best. Octaves
    beyond that stay on the last level, with longer transforms: slower, and the same values.
    n_bins: how many, or None for all that fit. A bin's band, f_k (1 + 0.75 / Q), has to end below sample_rate / 2.
    scale: "ortho" is s_k = sqrt(L_k), which gives noise the same level in every bin; "amplitude" is s_k = 2, by which
    a sine at a bin's frequency has its own amplitude as magnitude.
    sparsity: what share of a filter's spectrum, as a sum of magnitudes, may be dropped to shorten the products;
    from 0 to below 1.
    n_chroma: pitch classes of an octave; bin k belongs to the one nearest to f_k, class 0 being C where A is 440 Hz.

    The sum is computed as a product of spectra (Parseval): B[k, i] = s_k conj(A_k[i]) / n_fft with the filter's
    spectrum A_k, of which the negative frequencies, small as they are, and the smallest values are left out. Each
    octave runs at the lowest rate that carries its filters whole, with n_fft the power of two that holds the longest;
    see ``half_band_taps`` for what decimation keeps.

    Returns a ConstantQPlan. Raises ValueError for values out of bounds, TypeError for counts that are not whole.

    Sources: J. C. Brown, Calculation of a constant Q spectral transform, J. Acoust. Soc. Am. 89, 1991 (the transform);
    J. C. Brown and M. S. Puckette, An efficient algorithm for the calculation of a constant Q transform, J. Acoust.
    Soc. Am. 92, 1992 (spectral basis, small values left out); C. Schoerkhuber and A. Klapuri, Constant-Q transform
    toolbox for music processing, SMC 2010 (octaves at halved rates); T. Fujishima, Realtime chord recognition of
    musical sound, ICMC 1999 (pitch classes). Q, the window and "ortho" are those of librosa's ``cqt``.
    """
    hop, bins_per_octave, n_chroma = (operator.index(count) for count in (hop, bins_per_octave, n_chroma))
    _check(sample_rate, hop, bins_per_octave, f_min, filter_scale, scale, sparsity, n_chroma)
    span = 2 ** (2 / bins_per_octave)
    q = filter_scale * (span + 1) / (span - 1)
    n_bins = _checked_bins(n_bins, sample_rate, bins_per_octave, f_min, q)
    frequencies = f_min * 2 ** (np.arange(n_bins) / bins_per_octave)
    lengths = q * sample_rate / frequencies
    gains = np.sqrt(lengths) if scale == "ortho" else np.full(n_bins, 2.0)
    octaves = []
    for stop in range(n_bins, 0, -bins_per_octave):  # from the top, so that the lowest one may be incomplete
        rows = slice(max(stop - bins_per_octave, 0), stop)
        level = _deepest_level(frequencies[stop - 1] * (1 + _WINDOW_LOBE / q), sample_rate, hop)
        n_fft = max(4, 1 << int(np.ceil(np.log2(lengths[rows.start] / 2**level))))
        basis = _basis(frequencies[rows] * 2**level / sample_rate, lengths[rows] / 2**level, n_fft)
        basis = _sparse(basis * gains[rows, None], sparsity)
        octaves.append((level, hop >> level, n_fft, rows.start, basis, np.zeros_like(basis)))
    classes = np.floor(n_chroma * np.log2(frequencies / _C) + 0.5 + 1e-6).astype(np.int64) % n_chroma
    n_levels = 1 + max(level for level, *_ in octaves)
    return ConstantQPlan(sample_rate, hop, frequencies, lengths, n_levels, tuple(octaves), half_band_taps(), classes,
                         n_chroma)


def half_band_taps():
    """The 65 taps of the low-pass before every second sample is dropped.

    With n from -32 to 32 around the middle, h[n] = sin(pi n / 2) / (pi n) times a Kaiser window. Such a half-band
    filter is 1/2 in the middle and 0 at every other even n; its gain at 0 Hz is 1. Of the rate before it, it passes
    0 to 0.202 within 0.001 dB and takes 90 dB and more from 0.298 up, so that nothing folds back below 0.202.

    Returns a float64 array (65,). Source: J. F. Kaiser, Nonrecursive digital filter design using the I0-sinh window
    function, ISCAS 1974 (the window, and its beta for a wanted attenuation).
    """
    n = np.arange(_TAPS) - _TAPS // 2
    odd = n % 2 == 1
    taps = np.where(odd | (n == 0), np.sinc(n / 2) / 2, 0) * np.kaiser(_TAPS, 0.1102 * (_KAISER_DECIBELS - 8.7))
    taps[odd] *= 0.5 / taps[odd].sum()
    return taps


def _bases(octaves):
    return [part for octave in octaves for part in octave[4:]]


def _check(sample_rate, hop, bins_per_octave, f_min, filter_scale, scale, sparsity, n_chroma):
    above_zero = {"sample_rate": sample_rate, "f_min": f_min, "filter_scale": filter_scale}
    for name, value in above_zero.items():
        if not 0 < value < np.inf:
            raise ValueError(f"constant_q_plan: {name} is {value}, must be above 0 and finite")
    for name, value in {"hop": hop, "bins_per_octave": bins_per_octave, "n_chroma": n_chroma}.items():
        if value < 1:
            raise ValueError(f"constant_q_plan: {name} is {value}, must be at least 1")
    if scale not in ("ortho", "amplitude"):
        raise ValueError(f"constant_q_plan: scale is {scale!r}, must be 'ortho' or 'amplitude'")
    if not 0 <= sparsity < 1:
        raise ValueError(f"constant_q_plan: sparsity is {sparsity}, must be from 0 to below 1")


def _checked_bins(n_bins, sample_rate, bins_per_octave, f_min, q):
    highest = sample_rate / 2 / (1 + _WINDOW_BANDWIDTH / 2 / q)
    fit = max(0, int(np.floor(bins_per_octave * np.log2(highest / f_min))) + 1)
    if fit == 0:
        raise ValueError(f"constant_q_plan: f_min is {f_min} Hz, must be at most {highest:.6g} Hz, where a bin's band "
                         f"ends at half of sample_rate, {sample_rate}")
    n_bins = fit if n_bins is None else operator.index(n_bins)
    if not 1 <= n_bins <= fit:
        raise ValueError(f"constant_q_plan: n_bins is {n_bins}, must be from 1 to {fit}: the next bin's band ends "
                         f"above half of sample_rate, {sample_rate}; take fewer bins or a lower f_min, {f_min:.6g} Hz")
    return n_bins


def _deepest_level(edge, sample_rate, hop):
    """How often the signal can be halved while the hop stays whole and frequencies up to `edge` pass."""
    level = 0
    while hop % 2 ** (level + 1) == 0 and edge <= _PASS_BAND * sample_rate / 2**level:
        level += 1
    return level


def _basis(frequencies, lengths, n_fft):
    """What to multiply a frame's spectrum by, (rows, n_fft // 2 + 1); frequencies as shares of the level's rate.

    The filters are turned about sample n_fft / 2, where frames have their middle. About sample 0 they equal the
    conjugate of their reversal, so their spectra are real; the way to the middle changes the sign of every other bin.
    """
    m = np.arange(n_fft) - n_fft // 2
    window = np.where(abs(m) < lengths[:, None] / 2, 0.5 + 0.5 * np.cos(2 * np.pi * m / lengths[:, None]), 0)
    window /= window.sum(axis=1, keepdims=True)
    filters = window * np.exp(2j * np.pi * frequencies[:, None] * m)
    spectra = np.fft.fft(np.fft.ifftshift(filters, axes=1), axis=1)[:, : n_fft // 2 + 1].real
    return spectra * np.where(np.arange(n_fft // 2 + 1) % 2, -1, 1) / n_fft


def _sparse(basis, share):
    """With each row's smallest values set to 0, as many as add up to at most `share` of the row's magnitudes."""
    magnitudes = np.sort(abs(basis), axis=1)
    dropped = np.cumsum(magnitudes, axis=1) <= share * magnitudes.sum(axis=1, keepdims=True)
    least = np.take_along_axis(magnitudes, dropped.sum(axis=1, keepdims=True), axis=1)
    return np.where(abs(basis) >= least, basis, 0)
