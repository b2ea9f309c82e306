"""Draws docs/constant-q.png: what a level of a plan sees, and a chord progression through it."""

import sys
from pathlib import Path

import matplotlib

matplotlib.use("Agg")
import chords
import kevra
import matplotlib.pyplot as plt
import numpy as np
from harmony import BINS, BINS_PER_OCTAVE, Panel
from harmony_picture import draw_constant_q
from picture import GRID, INK, MUTED, bar, head, style
from recording import choose_device

RATE, HOP = 22050, 512
FOLDED, FILTER = "#c2410c", "#7ea6e8"
POINTS = 4096


def draw_level(axis, plan):
    """Over the rate before the last decimator that the plan's highest octave goes through."""
    level, _, n_fft, first, basis, _ = plan.octaves[0]
    before = plan.sample_rate / 2 ** (level - 1)
    share = np.linspace(0, 0.5, POINTS)
    n = np.arange(65) - 32
    passes = decibels(plan.taps @ np.cos(2 * np.pi * np.outer(n, share)))
    # A basis row is the filter's spectrum but for its gain; zeros around the filter draw it smoothly.
    responses = np.fft.rfft(np.fft.irfft(basis * n_fft, n_fft), 16 * n_fft) / 2
    at = np.arange(responses.shape[1]) / (16 * n_fft) / 2
    for response in responses[::-3]:
        axis.plot(at, decibels(response), color=FILTER, linewidth=0.9)
    axis.plot([], [], color=FILTER, linewidth=0.9, label="every third filter")
    axis.plot(share, passes, color=INK, linewidth=1.6, label="decimator")
    axis.plot(0.5 - share[share >= 0.25], passes[share >= 0.25], color=FOLDED, linewidth=1.6,
              label="what folds back")
    axis.set_xlim(0, 0.5)
    axis.set_ylim(-120, 8)
    axis.grid(color=GRID, linewidth=0.8)
    axis.set_xlabel(f"frequency over the rate before the decimator, {before:g} Hz")
    axis.set_ylabel("gain in dB")
    axis.legend(loc="upper right", bbox_to_anchor=(1, 0.9), frameon=False, labelcolor=INK, fontsize=9)
    highest = plan.frequencies[first + len(basis) - 1]
    head(axis, f"Half-band filter, and the octave up to {highest:.0f} Hz behind it")


def decibels(gains):
    return 20 * np.log10(np.maximum(abs(gains), 1e-7))


def main() -> int:
    choose_device()
    figure, (left, right) = plt.subplots(1, 2, figsize=(13, 4.4), layout="constrained")
    draw_level(left, kevra.constant_q_plan(RATE, HOP, scale="amplitude", sparsity=0))
    plan = kevra.constant_q_plan(RATE, HOP, BINS, BINS_PER_OCTAVE, scale="amplitude")
    y = chords.synthesise(RATE)
    level = kevra.cqt_staged(y, *plan.arguments(y.shape[1]), "db")[0]
    top = 10 * np.ceil(level.max() / 10)
    image = draw_constant_q(right, Panel("", plan, level, level[:0], []), top)
    for chord in chords.chords():
        right.text((chord.start + chord.stop) / 2, BINS - 2, chord.name, ha="center", va="top", fontsize=9, color="white")
    head(right, f"Eight chords in {BINS} bins, {BINS_PER_OCTAVE} an octave")
    right.set_xlabel("time in seconds")
    right.set_ylabel("frequency in Hz")
    for axis in left, right:
        style(axis)
    bar(figure, image, right)
    path = Path(__file__).parents[2] / "docs" / "constant-q.png"
    figure.savefig(path, dpi=120, metadata={"Software": None})
    print(path)
    return 0


if __name__ == "__main__":
    sys.exit(main())
