"""Draws constant-Q transforms above the chroma that they fold into, a column a signal."""

from pathlib import Path

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt
import numpy as np
from chords import NOTES
from harmony import BINS_PER_OCTAVE
from picture import COLOURS, bar, head, show, style

LEVEL_RANGE = 70  # dB from the brightest to the darkest colour


def draw(panels, path: Path) -> Path:
    figure, axes = plt.subplots(
        2, len(panels), sharex="col", squeeze=False, figsize=(2 + 6 * len(panels), 7.6), layout="constrained",
        height_ratios=[1.8, 1],
    )
    top = 10 * np.ceil(max(panel.level.max() for panel in panels) / 10)
    for panel, (constant_q, chroma) in zip(panels, axes.T):
        image = draw_constant_q(constant_q, panel, top)
        classes = draw_chroma(chroma, panel)
        head(constant_q, panel.name)
        head(chroma, "Chroma: its octaves added up")
        chroma.set_xlabel("time in seconds")
        for axis in constant_q, chroma:
            style(axis)
    axes[0, 0].set_ylabel("frequency in Hz")
    axes[1, 0].set_ylabel("pitch class")
    bar(figure, image, axes[0])
    bar(figure, classes, axes[1], "strength\n(loudest class = 1)", extend="neither", aspect=22)
    path.parent.mkdir(parents=True, exist_ok=True)
    figure.savefig(path, dpi=120, metadata={"Software": None})
    plt.close(figure)
    return path


def draw_constant_q(axis, panel, top):
    """Bins stand at equal heights, so octaves do."""
    octaves = range(0, len(panel.level), BINS_PER_OCTAVE)
    axis.set_yticks(octaves, [f"{panel.plan.frequencies[one]:.0f}" for one in octaves])
    edges = (-0.5, len(panel.level) - 0.5)
    return show(axis, panel.level, panel, edges, edges, {"cmap": COLOURS, "vmin": top - LEVEL_RANGE, "vmax": top})


def draw_chroma(axis, panel):
    axis.set_yticks(range(12), [note if len(note) == 1 else "" for note in NOTES])
    for chord in panel.chords:
        middle = (chord.start + chord.stop) / 2
        axis.text(middle, 11.2, chord.name, ha="center", va="top", fontsize=9.5, fontweight="bold", color="white")
    edges = (-0.5, 11.5)
    return show(axis, panel.chroma, panel, edges, edges, {"cmap": "viridis", "vmin": 0, "vmax": 1})
