"""Device memory that an adjoint holds while it works, beyond its arguments."""

from dataclasses import dataclass

import kevra
import numpy as np
from adjoints.device import Call, On, Out
from kevra import _diagnostics

BATCH, RATE, BANDS = 4, 16000, 64
N_FFT, LONG = 1024, 16384  # frames that a block holds, and frames that go through device memory
FUSED = ["stft", "stft, power", "istft", "mel, decibels"]  # one kernel a frame, which keeps nothing of it
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


def table() -> list[Held]:
    """At hops of a quarter and of an eighth of a frame."""
    short, long = ([of_signals(n_fft, n_fft // share) for share in (4, 8)] for n_fft in (N_FFT, LONG))
    others = [of_rows(BATCH * frames_of(N_FFT // share)) | of_plans(N_FFT // share) for share in (4, 8)]
    rows = at_two_hops(short) + at_two_hops(others) + at_two_hops(long, f", frames of {LONG}")
    kevra.set_deterministic(1)
    rows += at_two_hops([{name: calls[name] for name in FUSED} for calls in short], ", deterministic")
    kevra.set_deterministic(0)
    return rows


def at_two_hops(calls: list[dict], told: str = "") -> list[Held]:
    return [Held(name + told, [held(*of[name][0]) for of in calls], [of[name][1] for of in calls]) for name in calls[0]]


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


def frames_of(hop: int) -> int:
    return RATE // hop + 1


def of_signals(n_fft: int, hop: int) -> dict[str, tuple[tuple, int]]:
    """By name: the call, and the bytes that a forward pass would store for it."""
    frames, bins = frames_of(hop), n_fft // 2 + 1
    spectra = BATCH * frames * bins
    bank = kevra.mel_filter_bank(RATE, n_fft, BANDS)
    x, gx = On(np.ones((BATCH, RATE), REAL)), Out((BATCH, RATE), REAL)
    sizes = n_fft, hop, True

    def framed(values):
        return BATCH, values, frames, values * frames, 1, values

    def gradient(*shape, dtype=REAL):
        return On(np.ones(shape, dtype))

    return {
        "stft": (("stft_adjoint_resident", gradient(spectra, dtype=np.complex64), gx, *framed(bins), *sizes, RATE,
                  "hann"), 0),
        "stft, power": (("stft_adjoint_mode_resident", gradient(spectra), x, gx, *framed(bins), *sizes, RATE, "power",
                         1e-10, "hann"), 8 * spectra),
        "istft": (("istft_adjoint_resident", gradient(BATCH, RATE), Out((spectra,), np.complex64), BATCH, RATE, *sizes,
                   frames, "hann"), 0),
        "mel, decibels": (("mel_adjoint_resident", gradient(BATCH * frames * BANDS), x, gx, *framed(BANDS), bank,
                           *sizes, RATE, 2, "db", 1e-10, "hann"), 8 * spectra + 4 * BATCH * frames * BANDS),
        "cepstra": (("cepstra_adjoint_resident", gradient(BATCH * 13 * frames), x, gx, BATCH, RATE, bank, *sizes, 13,
                     0.0, 80.0, 1e-10, "hann"), 8 * spectra + 8 * BATCH * frames * BANDS),
        "rms": (("rms_adjoint_resident", x, gradient(BATCH, frames), gradient(BATCH, frames), gx, BATCH, RATE, frames,
                 n_fft, hop, True), 0),
    }


def of_rows(rows: int) -> dict[str, tuple[tuple, int]]:
    """Their forward pass reads its argument alone, so that nothing else would have to be kept."""
    bins = N_FFT // 2 + 1
    m, gm = On(np.ones((rows, bins), REAL)), Out((rows, bins), REAL)
    g = On(np.ones(rows * bins, REAL))
    matrix = np.ones((bins, BANDS))
    bands, counts = np.int32([0, 8, 64, bins]), np.int32([1, 2, 9])
    return {
        "bandwidth": (("spectral_adjoint_resident", m, g, gm, rows, bins, 1, 1.0, 2.0, 0.0), 0),
        "contrast": (("contrast_adjoint_resident", m, g, gm, rows, bins, bands, counts, 1e-10, False), 0),
        "decibels": (("db_adjoint_resident", m, g, gm, rows, bins, 10.0, 1e-10, 80.0, True), 0),
        "onset strength": (("onset_strength_adjoint_resident", m, g, gm, 1, rows, bins), 0),
        "tonnetz": (("tonnetz_adjoint_resident", On(np.ones((rows, 12), REAL)), g, Out((rows, 12), REAL), rows), 0),
        "inverse mel scale": (("inverse_mel_scale_adjoint_resident", On(np.ones((rows, BANDS), REAL)), g,
                               Out((rows, BANDS), REAL), rows, matrix, "ones of a bench", True), 4 * rows * bins),
    }


def of_plans(hop: int) -> dict[str, tuple[tuple, int]]:
    """Of constant-Q plans, and a convolution."""
    x, gx = On(np.ones((BATCH, RATE), REAL)), Out((BATCH, RATE), REAL)
    plan = kevra.constant_q_plan(RATE, hop, n_bins=72)
    bins = BATCH * plan.n_bins * plan.frames(RATE)
    spectra = sum(BATCH * plan.frames(RATE) * (octave[2] // 2 + 1) for octave in plan.octaves)
    g = On(np.ones(bins, np.complex64))
    taps = 512
    nf = 16875  # RATE + taps - 1 and a little
    return {
        "cqt": (("cqt_adjoint_resident", x, g, gx, BATCH, RATE, *plan.arguments(RATE), "complex", 1e-10), 0),
        "cqt, magnitude": (("cqt_adjoint_resident", x, g, gx, BATCH, RATE, *plan.arguments(RATE), "magnitude", 1e-10),
                           8 * (spectra + bins)),
        "chroma": (("chroma_adjoint_resident", x, g, gx, BATCH, RATE, *plan.chroma_arguments(RATE)),
                   8 * (spectra + bins) + 4 * bins),
        "convolution": (("conv_adjoint_resident", x, On(np.ones((1, taps), REAL)), gx, BATCH, 1, RATE, taps, nf, 0,
                         taps - 1, RATE - taps + 1, False, False), 8 * (BATCH + 1) * (nf // 2 + 1)),
    }
