"""Every function of kevra.torch with small inputs, and what numpy's side gives for them."""

from collections.abc import Callable
from dataclasses import dataclass

import kevra
import kevra.torch as kt
import numpy as np
import torch

WINDOW, N_FFT, HOP, LENGTH = "hann", 16, 6, 61
BINS = N_FFT // 2 + 1
BANK = kevra.mel_filter_bank(8000, N_FFT, 4, scale="htk", norm=None)
INVERSE = np.linalg.pinv(BANK)
EDGES, COUNTS = [0, 3, 5, 9], [1, 1, 2]
PLAN = kevra.constant_q_plan(4000, 16, n_bins=14, bins_per_octave=6, f_min=220)


@dataclass(frozen=True)
class Operation:
    name: str
    call: Callable  # of tensors
    staged: Callable  # of numpy arrays with one batch axis
    shapes: tuple = ((2, LENGTH),)
    positive: bool = False  # magnitudes
    complex_too: bool = False

    def __str__(self):
        return self.name

    def inputs(self, dtype, seed=1):
        random = torch.Generator().manual_seed(seed)
        dtype = torch.promote_types(dtype, torch.complex64) if self.complex_too else dtype
        tensors = [torch.randn(shape, dtype=dtype, generator=random) for shape in self.shapes]
        return [t.abs() + 0.1 if self.positive else t for t in tensors]


def _by_frame(staged, *setting):
    """A staged function of rows, (rows, n), on a spectrogram (batch, n, frames)."""
    def call(m):
        rows = np.ascontiguousarray(m.swapaxes(1, 2))
        return staged(rows.reshape(-1, rows.shape[2]), *setting).reshape(*rows.shape[:2], -1).swapaxes(1, 2)
    return call


def _db(s, top_db):
    levels = 20 * np.log10(np.maximum(s, 0.3) / 2)
    return levels if top_db is None else np.maximum(levels, levels.max(axis=(1, 2), keepdims=True) - top_db)


def _statistic(m, stat, fstep=500.0, p=2.0, amin=1e-2):
    i, power = fstep * np.arange(m.shape[1])[:, None], np.maximum(m**2, amin)
    centroid = (i * m).sum(axis=1) / m.sum(axis=1)
    if stat == "centroid":
        return centroid
    if stat == "flatness":
        return np.exp(np.log(power).mean(axis=1)) / power.mean(axis=1)
    return ((m * abs(i - centroid[:, None]) ** p).sum(axis=1) / m.sum(axis=1)) ** (1 / p)


def _contrast(m, linear):
    result = []
    for low, high, q in zip(EDGES, EDGES[1:], COUNTS):
        band = np.sort(m[:, low:high], axis=1)
        peak, valley = band[:, -q:].mean(axis=1), band[:, :q].mean(axis=1)
        result.append(peak - valley if linear else 10 * np.log10(peak / valley))
    return np.stack(result, axis=1)


FORMS = ["complex", "magnitude", "power", "db"]
SPECTROGRAM = ((2, BINS, 5),)
BANDS = ((2, 4, 5),)
OPERATIONS = [
    *(Operation(f"stft {form}", lambda y, form=form: kt.stft(y, WINDOW, N_FFT, HOP, output=form),
                lambda y, form=form: kevra.stft_staged(y, WINDOW, N_FFT, HOP, True, form)) for form in FORMS),
    Operation("stft of 15, not centred", lambda y: kt.stft(y, np.hanning(15), 15, 4, False),
              lambda y: kevra.stft_staged(y, np.hanning(15), 15, 4, False, "complex")),
    Operation("istft", lambda z: kt.istft(z, WINDOW, N_FFT, HOP),
              lambda z: kevra.istft_staged(z.swapaxes(1, 2), WINDOW, N_FFT, HOP, True),
              ((2, BINS, 6),), complex_too=True),
    Operation("istft to a length", lambda z: kt.istft(z, WINDOW, N_FFT, 4, False, 37),
              lambda z: kevra.istft_staged(z.swapaxes(1, 2), WINDOW, N_FFT, 4, False, 37),
              ((2, BINS, 6),), complex_too=True),
    *(Operation(f"mel {form} of {power}", lambda y, f=form, p=power: kt.mel(y, WINDOW, BANK, N_FFT, HOP, True, p, f),
                lambda y, f=form, p=power: kevra.mel_staged(y, WINDOW, BANK, N_FFT, HOP, True, p, f))
      for form in FORMS[1:] for power in (1, 2)),
    *(Operation(f"mfcc, {top} dB", lambda y, top=top: kt.mfcc(y, WINDOW, BANK, N_FFT, HOP, True, 3, 5.0, top),
                lambda y, top=top: kevra.cepstra_staged(y, WINDOW, BANK, N_FFT, HOP, True, 3, 5.0, top or -1))
      for top in (6.0, None)),
    Operation("spectral_centroid", lambda m: kt.spectral_centroid(m, 500.0), lambda m: _statistic(m, "centroid"),
              SPECTROGRAM, True),
    *(Operation(f"spectral_bandwidth, {p}", lambda m, p=p: kt.spectral_bandwidth(m, 500.0, p),
                lambda m, p=p: _statistic(m, "bandwidth", p=p), SPECTROGRAM, True) for p in (2.0, 1.5)),
    Operation("spectral_flatness", lambda m: kt.spectral_flatness(m, 1e-2), lambda m: _statistic(m, "flatness"),
              SPECTROGRAM, True),
    *(Operation(f"contrast, linear {linear}", lambda m, linear=linear: kt.contrast(m, EDGES, COUNTS, 1e-10, linear),
                lambda m, linear=linear: _contrast(m, linear), SPECTROGRAM, True) for linear in (False, True)),
    *(Operation(f"db, {top} dB", lambda s, top=top: kt.db(s, 20, 0.3, 2.0, top), lambda s, top=top: _db(s, top),
                SPECTROGRAM, True) for top in (8.0, None)),
    *(Operation(f"rms, centred {center}", lambda y, center=center: kt.rms(y, 12, 5, center),
                lambda y, center=center: kevra.rms_staged(y, 12, 5, center)) for center in (True, False)),
    Operation("onset_strength", kt.onset_strength, kevra.onset_strength_staged, SPECTROGRAM, True),
    *(Operation(f"cqt {form}", lambda y, form=form: kt.cqt(y, PLAN, form),
                lambda y, form=form: kevra.cqt_staged(y, *PLAN.arguments(y.shape[1]), form), ((2, 96),))
      for form in FORMS),
    Operation("chroma", lambda y: kt.chroma(y, PLAN),
              lambda y: kevra.chroma_staged(y, *PLAN.chroma_arguments(y.shape[1])), ((2, 96),)),
    Operation("tonnetz", kt.tonnetz, kevra.tonnetz_staged, ((2, 12, 3),), True),
    *(Operation(f"convolve {mode}, {kernels}{' complex' * is_complex}",
                lambda a, b, mode=mode: kt.convolve(a, b, mode),
                lambda a, b, mode=mode: np.array([np.convolve(x, y, "full") for x, y in zip(a, [*b, *b])])[
                    :, {"full": slice(None), "same": slice(2, 19), "valid": slice(5, 17)}[mode]],
                ((2, 17), (kernels, 6)), complex_too=is_complex)
      for mode, kernels, is_complex in (("full", 2, False), ("same", 1, False), ("valid", 1, True), ("full", 2, True))),
    *(Operation(f"inverse_mel_scale, clamp {clamp}", lambda m, clamp=clamp: kt.inverse_mel_scale(m, INVERSE, clamp),
                _by_frame(kevra.inverse_mel_scale_staged, INVERSE, "test", clamp), BANDS) for clamp in (True, False)),
]
