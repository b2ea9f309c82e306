"""Device memory that an adjoint holds while it works, beyond its arguments."""

from dataclasses import dataclass

import kevra
import numpy as np
from adjoints.device import Call, On, Out
from kevra import _diagnostics

BATCH, RATE, N_FFT, BANDS = 4, 16000, 1024, 64
BINS = N_FFT // 2 + 1
REAL = np.float32


@dataclass
class Held:
    name: str
    held: list[int]  # bytes, at the hops given
    stored: list[int]  # bytes of what a forward pass would keep that keeps what the gradient needs

    @property
    def told(self) -> str:
        return ", ".join(f"{held / 1e6:.3f} of {stored / 1e6:.3f} MB" for held, stored in zip(self.held, self.stored))

    @property
    def growth(self) -> float:
        return self.held[1] / max(self.held[0], 1)


def table(hops=(N_FFT // 4, N_FFT // 8)) -> list[Held]:
    measured = [calls(hop) for hop in hops]
    return [Held(name, [held(*of[name][0]) for of in measured], [of[name][1] for of in measured])
            for name in measured[0]]


def held(name: str, *arguments) -> int:
    """What the pool has taken from HIP for a call of its own: it was empty before."""
    with Call(name, *arguments) as call:
        call.queue()  # uploads tables, which stay
        call.hip.synchronize()
        kevra.drain_pool()
        before = pool_bytes()
        call.queue()
        call.hip.synchronize()
        return pool_bytes() - before


def pool_bytes() -> int:
    pool = _diagnostics.read()["pools"]["device"]
    return pool["in_use_bytes"] + pool["cached_bytes"]


def calls(hop: int) -> dict[str, tuple[tuple, int]]:
    """By name: the call, and the bytes that a forward pass would store for it."""
    frames = RATE // hop + 1
    spectra = BATCH * frames * BINS
    bank = kevra.mel_filter_bank(RATE, N_FFT, BANDS)
    x, gx = On(np.ones((BATCH, RATE), REAL)), Out((BATCH, RATE), REAL)
    sizes = N_FFT, hop, True

    def framed(bins):
        return BATCH, bins, frames, bins * frames, 1, bins

    def gradient(*shape, dtype=REAL):
        return On(np.ones(shape, dtype))

    found = {
        "stft": (("stft_adjoint_resident", gradient(spectra, dtype=np.complex64), gx, *framed(BINS), *sizes, RATE,
                  "hann"), 0),
        "stft, power": (("stft_adjoint_mode_resident", gradient(spectra), x, gx, *framed(BINS), *sizes, RATE, "power",
                         1e-10, "hann"), 8 * spectra),
        "istft": (("istft_adjoint_resident", gradient(BATCH, RATE), Out((spectra,), np.complex64), BATCH, RATE, *sizes,
                   frames, "hann"), 0),
        "mel, decibels": (("mel_adjoint_resident", gradient(BATCH * frames * BANDS), x, gx, *framed(BANDS), bank,
                           *sizes, RATE, 2, "db", 1e-10, "hann"), 8 * spectra + 4 * BATCH * frames * BANDS),
        "cepstra": (("cepstra_adjoint_resident", gradient(BATCH * 13 * frames), x, gx, BATCH, RATE, bank, *sizes, 13,
                     0.0, 80.0, 1e-10, "hann"), 8 * spectra + 8 * BATCH * frames * BANDS),
    }
    return found | of_rows(BATCH * frames) | of_signals(hop)


def of_rows(rows: int) -> dict[str, tuple[tuple, int]]:
    """Their forward pass reads its argument alone, so that nothing else would have to be kept."""
    m, gm = On(np.ones((rows, BINS), REAL)), Out((rows, BINS), REAL)
    g = On(np.ones(rows * BINS, REAL))
    matrix = np.ones((BINS, BANDS))
    bands, counts = np.int32([0, 8, 64, BINS]), np.int32([1, 2, 9])
    return {
        "bandwidth": (("spectral_adjoint_resident", m, g, gm, rows, BINS, 1, 1.0, 2.0, 0.0), 0),
        "contrast": (("contrast_adjoint_resident", m, g, gm, rows, BINS, bands, counts, 1e-10, False), 0),
        "decibels": (("db_adjoint_resident", m, g, gm, rows, BINS, 10.0, 1e-10, 80.0, True), 0),
        "onset strength": (("onset_strength_adjoint_resident", m, g, gm, 1, rows, BINS), 0),
        "tonnetz": (("tonnetz_adjoint_resident", On(np.ones((rows, 12), REAL)), g, Out((rows, 12), REAL), rows), 0),
        "inverse mel scale": (("inverse_mel_scale_adjoint_resident", On(np.ones((rows, BANDS), REAL)), g,
                               Out((rows, BANDS), REAL), rows, matrix, "ones of a bench", True), 4 * rows * BINS),
    }


def of_signals(hop: int) -> dict[str, tuple[tuple, int]]:
    x, gx = On(np.ones((BATCH, RATE), REAL)), Out((BATCH, RATE), REAL)
    frames = RATE // hop + 1
    plan = kevra.constant_q_plan(RATE, hop, n_bins=72)
    bins = BATCH * plan.n_bins * plan.frames(RATE)
    spectra = sum(BATCH * plan.frames(RATE) * (octave[2] // 2 + 1) for octave in plan.octaves)
    g = On(np.ones(bins, np.complex64))
    taps = 512
    nf = 16875  # RATE + taps - 1 and a little
    return {
        "rms": (("rms_adjoint_resident", x, On(np.ones((BATCH, frames), REAL)), g, gx, BATCH, RATE, frames, N_FFT, hop,
                 True), 0),
        "cqt": (("cqt_adjoint_resident", x, g, gx, BATCH, RATE, *plan.arguments(RATE), "complex", 1e-10), 0),
        "cqt, magnitude": (("cqt_adjoint_resident", x, g, gx, BATCH, RATE, *plan.arguments(RATE), "magnitude", 1e-10),
                           8 * (spectra + bins)),
        "chroma": (("chroma_adjoint_resident", x, g, gx, BATCH, RATE, *plan.chroma_arguments(RATE)),
                   8 * (spectra + bins) + 4 * bins),
        "convolution": (("conv_adjoint_resident", x, On(np.ones((1, taps), REAL)), gx, BATCH, 1, RATE, taps, nf, 0,
                         taps - 1, RATE - taps + 1, False, False), 8 * (BATCH + 1) * (nf // 2 + 1)),
    }
