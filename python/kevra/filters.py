"""Banks of filters for ``mel_staged`` and ``mel_resident``."""

from __future__ import annotations

import numpy as np

# Slaney's scale: linear below 1 kHz, 15 mels to 1 kHz, then 27 mels to a factor of 6.4.
_SLANEY_LINEAR = 15 / 1000  # mel per Hz
_SLANEY_KNEE = 1000.0  # Hz
_SLANEY_LOG = 27 / np.log(6.4)  # mel per unit of ln f


def _hz_to_mel(hz, scale):
    if scale == "htk":
        return 2595 * np.log10(1 + hz / 700)
    above = _SLANEY_LINEAR * _SLANEY_KNEE + _SLANEY_LOG * np.log(np.maximum(hz, _SLANEY_KNEE) / _SLANEY_KNEE)
    return np.where(hz < _SLANEY_KNEE, _SLANEY_LINEAR * hz, above)


def _mel_to_hz(mel, scale):
    if scale == "htk":
        return 700 * (10 ** (mel / 2595) - 1)
    knee = _SLANEY_LINEAR * _SLANEY_KNEE
    above = _SLANEY_KNEE * np.exp((np.maximum(mel, knee) - knee) / _SLANEY_LOG)
    return np.where(mel < knee, mel / _SLANEY_LINEAR, above)


def _check(sample_rate, n_fft, n_mels, f_min, f_max, scale, norm):
    if not sample_rate > 0:
        raise ValueError(f"mel_filter_bank: sample_rate is {sample_rate}, must be above 0")
    if n_fft < 2:
        raise ValueError(f"mel_filter_bank: n_fft is {n_fft}, must be at least 2")
    if n_mels < 1:
        raise ValueError(f"mel_filter_bank: n_mels is {n_mels}, must be at least 1")
    if not 0 <= f_min < f_max:
        raise ValueError(f"mel_filter_bank: f_min is {f_min}, must be from 0 to below f_max, {f_max}")
    if scale not in ("slaney", "htk"):
        raise ValueError(f"mel_filter_bank: scale is {scale!r}, must be 'slaney' or 'htk'")
    if norm not in ("slaney", None):
        raise ValueError(f"mel_filter_bank: norm is {norm!r}, must be 'slaney' or None")


def mel_filter_bank(sample_rate, n_fft, n_mels, f_min=0.0, f_max=None, scale="slaney", norm="slaney"):
    """Triangular filters, evenly spaced on a mel scale, over the bins of an n_fft-point spectrum.

    With n_mels + 2 frequencies e[0] = f_min .. e[n_mels + 1] = f_max at equal mel distances, filter m rises from 0 at
    e[m] to 1 at e[m + 1] and falls to 0 at e[m + 2], linearly in Hz, sampled at the bins k * sample_rate / n_fft.

    sample_rate, f_min, f_max: in Hz; f_max defaults to sample_rate / 2.
    scale: "htk" is mel = 2595 log10(1 + f / 700); "slaney" is mel = 15 f / 1000 below 1 kHz and
    15 + 27 ln(f / 1000) / ln 6.4 from there on.
    norm: "slaney" multiplies filter m by 2 / (e[m + 2] - e[m]), which gives all filters equal area; None leaves the
    peaks at 1.

    Returns a float64 array (n_mels, n_fft // 2 + 1), C-contiguous. A filter narrower than the distance of two bins
    may miss them all: its row is zero. Raises ValueError for values out of bounds.

    Sources: D. O'Shaughnessy, Speech Communication: Human and Machine, 1987 ("htk"); M. Slaney, Auditory Toolbox,
    Interval Research technical report 1998-010 ("slaney", scale and norm).
    """
    f_max = sample_rate / 2 if f_max is None else f_max
    _check(sample_rate, n_fft, n_mels, f_min, f_max, scale, norm)
    low, high = (_hz_to_mel(np.float64(f), scale) for f in (f_min, f_max))
    edges = _mel_to_hz(np.linspace(low, high, n_mels + 2), scale)[:, None]
    bins = np.arange(n_fft // 2 + 1) * (sample_rate / n_fft)
    rise = (bins - edges[:-2]) / (edges[1:-1] - edges[:-2])
    fall = (edges[2:] - bins) / (edges[2:] - edges[1:-1])
    bank = np.maximum(0, np.minimum(rise, fall))
    return bank * (2 / (edges[2:] - edges[:-2])) if norm == "slaney" else bank
