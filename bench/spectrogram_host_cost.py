"""Host cost of warm STFT, mel and ISTFT calls on launches that do nothing, on top of an empty binding call."""

import os
import sys

import harness
import kevra

BATCH, SAMPLES, N_FFT, HOP, BANDS = 1, 16384, 512, 128, 40
FRAMES, BINS = SAMPLES // HOP + 1, N_FFT // 2 + 1
EPS, FLOAT = 1e-10, 1
BAR = 1.0  # microseconds


def main() -> int:
    os.environ["KEVRA_CPU_NULL"] = "1"
    chosen = harness.options(__doc__, rounds=200)
    harness.cpu_device_only(chosen, "Launches that do nothing are the CPU device's")
    hip = harness.Hip()
    y, spectrum = hip.malloc(4 * SAMPLES), hip.malloc(8 * FRAMES * BINS)
    figures, notes = [], {}
    with harness.cache_folder():
        for name, function, arguments in calls(y, spectrum):
            kevra.set_deterministic("in order" in name)
            cost, told = harness.host_cost(chosen.rounds, function, arguments)
            notes[f"{name}: empty call"] = told["empty call"]
            figures.append(harness.Figure(name, cost, "us", BAR))
    measured = f"{chosen.rounds} rounds of {harness.CALLS} calls each, alternating, same arguments"
    return harness.report(chosen, measured, figures, notes)


def calls(y: int, spectrum: int) -> list[tuple[str, str, tuple]]:
    bank = kevra.mel_filter_bank(16000, N_FFT, BANDS)
    forward, frame = (y, spectrum, BATCH, SAMPLES), (N_FFT, HOP, True)
    # Two launches, a fill unless frames are added in order, and a block of scratch memory.
    back = (spectrum, y, BATCH, BINS, FRAMES, FRAMES * BINS, 1, BINS, *frame, SAMPLES, "hann", FLOAT, 0, 0)
    return [
        ("stft", "stft_resident", (*forward, *frame, "complex", EPS, "hann", FLOAT, 0, 0)),
        ("mel", "mel_resident", (*forward, bank, *frame, 2.0, "db", EPS, "hann", FLOAT, 0, 0)),
        ("istft", "istft_resident", back),
        ("istft, frames in order", "istft_resident", back),
    ]


if __name__ == "__main__":
    sys.exit(main())
