"""Draws a recording over one time axis: waveform, spectrogram, mel spectrogram, cepstra and onset strength."""

from pathlib import Path

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt
import numpy as np
from matplotlib.ticker import FuncFormatter, MaxNLocator

INK, MUTED, GRID, WAVE = "#1f2430", "#667085", "#e4e7ec", "#7ea6e8"
COLOURS = "magma"
SIGNED_COLOURS = "RdBu_r"
SHAPE_SHARE = 99.5  # of the coefficients, in percent, are within the colours
MOST_CHANNELS = 2
LEVEL_RANGE = 90  # dB from the brightest to the darkest colour
FLOOR = -100  # dB of silence
ENVELOPE = 2000  # columns of a drawn waveform, more than a picture has pixels across
ROUND_HERTZ = [125, 250, 500, 1000, 2000, 4000, 8000, 16000, 32000, 64000]


def draw(name, signal, s, result, path: Path) -> Path:
    """One column a channel, two at most."""
    shown = min(len(signal), MOST_CHANNELS)
    figure, axes = plt.subplots(
        5, shown, sharex=True, sharey="row", squeeze=False, figsize=(4.5 + 6.5 * shown, 12.4), layout="constrained",
        height_ratios=[1, 1.7, 1.7, 1.3, 0.8],
    )
    top = max(10 * np.ceil(max(result.level[:shown].max(), result.mel[:shown].max()) / 10), FLOOR + LEVEL_RANGE)
    colours = {"cmap": COLOURS, "vmin": max(top - LEVEL_RANGE, FLOOR), "vmax": top}
    shape = shape_colours(result.cepstra[:shown])
    for channel in range(shown):
        wave, level, mel, cepstra, onset = axes[:, channel]
        draw_waveform(wave, signal[channel], result.rms[channel], s)
        draw_level(level, result.level[channel], s, colours)
        image = draw_mel(mel, result.mel[channel], s, colours)
        shape_image = draw_cepstra(cepstra, result.cepstra[channel], s, shape)
        draw_onset(onset, result.onset[channel], s)
        onset.set_xlim(0, signal.shape[1] / s.rate)
        onset.set_xlabel("time in seconds")
        of = f", channel {channel + 1}" if len(signal) > 1 else ""
        titles = ["Waveform and RMS", "Spectrogram", "Mel spectrogram", "Mel cepstra (MFCC)", "Onset strength"]
        for axis, title in zip(axes[:, channel], titles, strict=True):
            head(axis, title + of)
    axes[0, 0].set_ylabel("amplitude\n(full scale = 1)")
    axes[1, 0].set_ylabel("frequency in Hz")
    axes[2, 0].set_ylabel(f"{len(s.bank)} mel bands\n(frequency of their peaks in Hz)")
    axes[3, 0].set_ylabel("coefficient")
    axes[4, 0].set_ylabel("mean rise\nin dB a frame")
    legend(axes[0, -1])
    for axis in axes.flat:
        style(axis)
    bar(figure, image, axes[1:3, :])
    bar(figure, shape_image, axes[3, :], "coefficient in dB", extend="both", aspect=15)
    rest = f" (channels 1 and 2 of {len(signal)})" if len(signal) > shown else ""
    figure.suptitle(name + rest, x=0.008, ha="left", fontsize=14, fontweight="bold", color=INK)
    frames = f"{s.rate} Hz, frames of {s.frame} samples every {s.hop}, Hann window"
    figure.text(0.992, 0.988, frames, ha="right", va="top", fontsize=9.5, color=MUTED)
    path.parent.mkdir(parents=True, exist_ok=True)
    figure.savefig(path, dpi=120)
    plt.close(figure)
    return path


def draw_waveform(axis, samples, rms, s):
    step = -(-len(samples) // ENVELOPE)
    starts = np.arange(0, len(samples), step)
    seconds = starts / s.rate
    if step < 4:
        axis.plot(np.arange(len(samples)) / s.rate, samples, color=WAVE, linewidth=0.8, label="waveform")
    else:
        low, high = np.minimum.reduceat(samples, starts), np.maximum.reduceat(samples, starts)
        axis.fill_between(seconds, low, high, color=WAVE, linewidth=0.4, label="waveform")
    axis.plot(frame_seconds(len(rms), s), rms, color=INK, linewidth=1.2, label="RMS")
    loudest = max(float(abs(samples).max()) * 1.05, 1e-6, *(abs(limit) for limit in axis.get_ylim()))
    axis.set_ylim(-loudest, loudest)
    axis.grid(color=GRID, linewidth=0.8)


def draw_level(axis, level, s, colours):
    bin_width = s.rate / s.frame
    axis.yaxis.set_major_formatter(FuncFormatter(lambda hertz, _: f"{hertz:g}"))
    return show(axis, level, s, (-bin_width / 2, (len(level) - 0.5) * bin_width), (0, s.rate / 2), colours)


def draw_mel(axis, mel, s, colours):
    """The bands stand at equal heights; the ticks name those whose peaks lie nearest to round frequencies."""
    peaks = s.bank.argmax(axis=1) * s.rate / s.frame
    ticks = {}
    for hertz in ROUND_HERTZ:
        band = int(abs(peaks - hertz).argmin())
        if peaks[0] <= hertz <= peaks[-1] and band - max(ticks, default=-len(mel)) >= len(mel) / 16:
            ticks[band] = hertz
    if len(ticks) < 2:
        ticks = {band: peaks[band] for band in {0, len(peaks) - 1}}
    axis.set_yticks(list(ticks), [f"{hertz:g}" for hertz in ticks.values()])
    edges = (-0.5, len(mel) - 0.5)
    return show(axis, mel, s, edges, edges, colours)


def shape_colours(cepstra):
    largest = np.percentile(abs(cepstra[:, 1:]), SHAPE_SHARE) if cepstra.shape[1] > 1 else 0
    return {"cmap": SIGNED_COLOURS, "vmin": -max(largest, 1), "vmax": max(largest, 1)}


def draw_cepstra(axis, cepstra, s, colours):
    """Without the first, which is the level and would outshine the shape."""
    edges = (0.5, max(len(cepstra), 2) - 0.5)
    shape = cepstra[1:] if len(cepstra) > 1 else 0 * cepstra
    return show(axis, shape, s, edges, edges, colours)


def draw_onset(axis, onset, s):
    axis.plot(frame_seconds(len(onset), s), onset, color=INK, linewidth=1.0)
    axis.set_ylim(0, max(float(onset.max()) * 1.05, 1))
    axis.grid(color=GRID, linewidth=0.8)


def show(axis, values, s, edges, limits, colours):
    """A frame's column stands around the middle of the frame."""
    middle = frame_seconds(values.shape[1], s)
    half = s.hop / s.rate / 2
    image = axis.imshow(
        values, origin="lower", aspect="auto", extent=(middle[0] - half, middle[-1] + half, *edges), **colours
    )
    axis.set_ylim(limits)
    return image


def frame_seconds(frames, s):
    return np.arange(frames) * (s.hop / s.rate)


def head(axis, title):
    axis.set_title(title, loc="left", fontsize=10.5, fontweight="bold", color=INK, pad=5)


def legend(axis):
    entries = axis.legend(
        loc="lower right", bbox_to_anchor=(1.005, 0.985), ncols=2, frameon=False, labelcolor=INK, fontsize=9.5,
        handlelength=1.4, borderaxespad=0,
    )
    for handle in entries.legend_handles:
        handle.set_linewidth(2)


def bar(figure, image, axes, label="level in dB (a sine at full scale = 0 dB)", extend="min", aspect=40):
    scale = figure.colorbar(image, ax=axes, aspect=aspect, pad=0.012, fraction=0.03, extend=extend)
    scale.set_label(label, color=INK, fontsize=10)
    scale.outline.set_visible(False)
    scale.ax.tick_params(colors=MUTED, labelcolor=INK, labelsize=9.5)


def style(axis) -> None:
    axis.set_axisbelow(True)
    axis.spines[["top", "right"]].set_visible(False)
    axis.spines[["left", "bottom"]].set_color(MUTED)
    axis.tick_params(colors=MUTED, labelcolor=INK, labelsize=9.5)
    axis.xaxis.set_major_locator(MaxNLocator(8, steps=[1, 2, 5, 10]))
    for label in axis.yaxis.label, axis.xaxis.label:
        label.set_color(INK)
        label.set_fontsize(10)
