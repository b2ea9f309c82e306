"""Gradients where a formula divides by zero: of silence, and of spectra that have single bins of exactly 0."""

import kevra
import numpy as np
from adjoints.device import On, Out, run

N_FFT, HOP = 16, 8
BINS = N_FFT // 2 + 1
BANK = kevra.mel_filter_bank(8000, N_FFT, 4, scale="htk", norm=None)
PLAN = kevra.constant_q_plan(4000, 16, n_bins=14, bins_per_octave=6, f_min=220)


def signals(real) -> dict[str, np.ndarray]:
    """Under a boxcar of 16 samples: no sound; all bins but the first are 0; the first bin alone is 0."""
    pair = np.zeros(N_FFT, real)
    pair[:2] = 1, -1
    return {"silence": np.zeros((1, 64), real), "a constant": np.ones((1, 64), real),
            "a pair": np.tile(pair, 4)[None]}


def gradients(y: np.ndarray) -> dict[str, np.ndarray]:
    frames = (y.shape[1] - N_FFT) // HOP + 1
    def framed(name, bins, *form):
        layout = (1, bins, frames, bins * frames, 1, bins)
        return run(name, On(np.ones(bins * frames, y.dtype)), On(y), Out(y.shape, y.dtype), *layout, *form)
    sizes = N_FFT, HOP, False
    found = {
        f"stft, {output}": framed("stft_adjoint_mode_resident", BINS, *sizes, 64, output, 1e-10, "boxcar")
        for output in ("magnitude", "power", "db")}
    found |= {
        f"mel of {of}, {output}": framed("mel_adjoint_resident", 4, BANK, *sizes, 64, power, output, 1e-10, "boxcar")
        for power, of in ((1, "magnitudes"), (2, "powers")) for output in ("power", "magnitude", "db")}
    ones = np.ones((1, 3, frames), y.dtype)
    found["cepstra"] = run("cepstra_adjoint_resident", On(ones), On(y), Out(y.shape, y.dtype), 1, 64, BANK, *sizes, 3,
                           0.0, 80.0, 1e-10, "boxcar")
    energy = kevra.rms_staged(y, N_FFT, HOP, False)
    found["rms"] = run("rms_adjoint_resident", On(y), On(energy), On(np.ones_like(energy)), Out(y.shape, y.dtype), 1,
                       64, frames, N_FFT, HOP, False)
    design = PLAN.arguments(64)
    g = np.ones((1, PLAN.n_bins, PLAN.frames(64)), y.dtype)
    for output in "magnitude", "db":
        found[f"cqt, {output}"] = run("cqt_adjoint_resident", On(y), On(g), Out(y.shape, y.dtype), 1, 64, *design,
                                      output, 1e-10)
    return found


def of_rows(real) -> dict[str, np.ndarray]:
    """Of magnitudes that are all 0."""
    m = np.zeros((1, BINS), real)
    one, place = On(np.ones(1, real)), Out(m.shape, real)
    bands = np.int32([0, 4, BINS]), np.int32([1, 2])
    found = {f"{name} of no magnitudes": run("spectral_adjoint_resident", On(m), one, place, 1, BINS, stat, 0.25, 2.0,
                                             1e-10)
             for name, stat in (("bandwidth", 1), ("flatness", 2))}
    found["contrast of no magnitudes"] = run("contrast_adjoint_resident", On(m), On(np.ones(2, real)), place, 1, BINS,
                                             *bands, 1e-10, False)
    for has_top in False, True:
        found[f"decibels of nothing{', with a floor' * has_top}"] = run(
            "db_adjoint_resident", On(m), On(np.ones_like(m)), place, 1, BINS, 10.0, 1e-10, 80.0, has_top)
    found["tonnetz of no chroma"] = run("tonnetz_adjoint_resident", On(np.zeros((1, 12), real)), On(np.ones(6, real)),
                                        Out((1, 12), real), 1)
    return found


def measure() -> tuple[list[str], list[str]]:
    """Which gradients are not finite, and which gradients of silence are not 0."""
    infinite, not_zero = [], []
    for real in np.float32, np.float64:
        cases = {"no magnitudes": of_rows(real)}
        cases |= {told: gradients(y) for told, y in signals(real).items()}
        for told, found in cases.items():
            for name, gradient in found.items():
                if not np.isfinite(gradient).all():
                    infinite.append(f"{name}, {told}, {np.dtype(real)}")
                elif told in ("silence", "no magnitudes") and gradient.any():
                    not_zero.append(f"{name}, {told}, {np.dtype(real)}")
    return infinite, not_zero
