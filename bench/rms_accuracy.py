"""Largest relative error of rms_staged against numpy in float64, over random shapes."""

import sys

import harness
import kevra
import numpy as np

BARS = {"float": 2e-6, "double": 1e-14}
TYPES = {"float": np.float32, "double": np.float64}


def main() -> int:
    chosen = harness.options(__doc__, shapes=200, seed=1)
    random = np.random.default_rng(chosen.seed)
    worst = dict.fromkeys(BARS, (0.0, ""))
    with harness.cache_folder():
        for _ in harness.progress(range(chosen.shapes), "shapes"):
            batch, samples, frame_length, hop, center = random_shape(random)
            signal = random.standard_normal((batch, samples))
            for name, dtype in TYPES.items():
                y = signal.astype(dtype)
                result = kevra.rms_staged(y, frame_length, hop, center)
                exact = reference(y, frame_length, hop, center)
                assert result.shape == exact.shape and result.dtype == dtype, (result.shape, exact.shape, result.dtype)
                error = float(np.max(np.abs(result - exact) / exact))
                shape = f"{batch} x {samples}, frame {frame_length}, hop {hop}, center {center}"
                if not error <= worst[name][0]:
                    worst[name] = (error, shape)
    figures = [harness.Figure(f"{name} error", worst[name][0], "relative", bar) for name, bar in BARS.items()]
    notes = {f"{name} worst at": shape for name, (_, shape) in worst.items()}
    measured = f"{chosen.shapes} random shapes (seed {chosen.seed}), each in float and double, normal noise"
    return harness.report(chosen, measured, figures, notes)


def random_shape(random: np.random.Generator):
    """Sizes over several orders of magnitude: frames longer than the signal, hops longer than the frame."""

    def size(low, high):
        return int(np.exp(random.uniform(np.log(low), np.log(high))))

    center = bool(random.integers(2))
    frame_length = size(1, 8192)
    samples = size(2, 65536) if center else frame_length + size(1, 65536)
    frames_wanted = size(1, 400)
    hop = max(samples // frames_wanted, 1)
    return size(1, 9), samples, frame_length, hop, center


def reference(y: np.ndarray, frame_length: int, hop: int, center: bool) -> np.ndarray:
    x = y.astype(np.float64)
    if center:
        pad = frame_length // 2
        x = np.pad(x, [(0, 0), (pad, pad)], mode="reflect")
    frames = np.lib.stride_tricks.sliding_window_view(x, frame_length, axis=1)[:, ::hop]
    return np.sqrt(np.mean(frames**2, axis=2))


if __name__ == "__main__":
    sys.exit(main())
