"""Draws docs/spectrograms.png: one signal in short and in long frames, and in mel bands."""

import sys
from pathlib import Path

import matplotlib

matplotlib.use("Agg")
import kevra
import matplotlib.pyplot as plt
import numpy as np
from analysis import setting_for
from picture import COLOURS, bar, draw_level, draw_mel, head, style
from recording import choose_device

RATE, SECONDS = 16000, 2.0
SHORT, LONG = 256, 2048
COLOUR_RANGE = {"cmap": COLOURS, "vmin": -90, "vmax": 0}


def signal():
    """Two steady tones 40 Hz apart, a glide that rises by five octaves, and two clicks 20 ms apart."""
    t = np.arange(int(RATE * SECONDS)) / RATE
    octaves = 5 / SECONDS
    glide = np.sin(2 * np.pi * 200 * (2 ** (octaves * t) - 1) / (octaves * np.log(2)))
    y = 0.3 * glide + 0.1 * np.sin(2 * np.pi * 1000 * t) + 0.1 * np.sin(2 * np.pi * 1040 * t)
    for second in 1.20, 1.22:
        y[round(second * RATE)] += 0.9
    return y[None].astype(np.float32)


def main() -> int:
    choose_device()
    y = signal()
    figure, axes = plt.subplots(1, 3, sharex=True, figsize=(13, 4.2), layout="constrained")
    for axis, frame in zip(axes[:2], (SHORT, LONG), strict=True):
        s = setting_for(RATE, y.shape[1], frame)
        level = kevra.stft_staged(y, s.level_window, s.frame, s.hop, True, "db")
        draw_level(axis, level[0], s, COLOUR_RANGE)
        head(axis, f"Frames of {frame} samples ({frame / RATE * 1e3:.0f} ms)")
    mel = kevra.mel_staged(y, s.level_window, s.bank, s.frame, s.hop, True, 2, "db")
    image = draw_mel(axes[2], mel[0], s, COLOUR_RANGE)
    head(axes[2], f"The same in {len(s.bank)} mel bands")
    axes[0].set_ylabel("frequency in Hz")
    axes[2].set_ylabel("frequency of the bands' peaks in Hz")
    for axis in axes:
        axis.set_xlabel("time in seconds")
        axis.set_xlim(0, SECONDS)
        style(axis)
    bar(figure, image, axes)
    path = Path(__file__).parents[2] / "docs" / "spectrograms.png"
    figure.savefig(path, dpi=120, metadata={"Software": None})
    print(path)
    return 0


if __name__ == "__main__":
    sys.exit(main())
