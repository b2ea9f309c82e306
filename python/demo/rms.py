"""The RMS energy of a recording, frame by frame, on a GPU or on the CPU device: see ./demo."""

import argparse
import struct
import subprocess
import sys
import time
import warnings
from pathlib import Path

import matplotlib

matplotlib.use("Agg")
import kevra
import matplotlib.pyplot as plt
import numpy as np
from kevra import _diagnostics
from scipy.io import wavfile

FRAME, HOP = 2048, 512
RECORDINGS = Path("/usr/share/sounds/alsa")
DEFAULT = ["Front_Center", "Front_Left", "Front_Right", "Side_Left", "Side_Right", "Rear_Left", "Rear_Center"]
WARM_CALLS = 50

INK, MUTED, GRID = "#1f2430", "#667085", "#e4e7ec"
CHANNEL_COLOURS = ["#2f6fde", "#d9731a", "#2a9d6f", "#9a4fc4"]


def main() -> int:
    parser = argparse.ArgumentParser(prog="./demo", description=__doc__)
    parser.add_argument("file", nargs="?", help="a WAV file (default: speech recordings of alsa-utils)")
    parser.add_argument("--output", default="out", help="folder for the picture (default: out)")
    options = parser.parse_args()
    try:
        name, rate, signal = read_recordings(options.file)
    except (OSError, ValueError) as problem:
        print(f"./demo: {problem}", file=sys.stderr)
        return 1
    channels, samples = signal.shape
    print(f"Signal    {name}: {channels} channel{'s' if channels > 1 else ''}, {samples / rate:.2f} s at {rate} Hz")
    print(f"Device    {choose_device()}")

    energy, cold, warm, compiled = measure(signal)
    source = "kernel compiled" if compiled else "kernel read from the disk cache"
    loudest = 20 * np.log10(max(float(energy.max()), 1e-10))
    print(f"RMS       {energy.shape[1]} frames of {FRAME} samples, every {HOP} samples; loudest frame {loudest:.1f} dB")
    print(f"Time      first call {cold * 1e3:.1f} ms ({source}), then {warm * 1e3:.2f} ms a call")

    error, bound = largest_error(energy, signal)
    verdict = "agrees with" if error <= bound else "DIFFERS from"
    print(f"Check     {verdict} numpy in double precision: largest relative error {error:.1e}, bound {bound:.1e}")
    picture = draw(name, rate, signal, energy, Path(options.output))
    print(f"Picture   {picture}")
    return 0 if error <= bound else 1


def read_recordings(file):
    """The name, the sample rate and the channels as float32 rows of one file, or of the default recordings."""
    if file is not None:
        rate, signal = read_wav(Path(file))
        return Path(file).name, rate, signal
    parts = [read_wav(RECORDINGS / f"{name}.wav") for name in DEFAULT]
    return "speech recordings of alsa-utils", parts[0][0], np.concatenate([part[1] for part in parts], axis=1)


def read_wav(path: Path):
    try:
        with warnings.catch_warnings():  # chunks that it does not know are of no interest here
            warnings.simplefilter("ignore", wavfile.WavFileWarning)
            rate, data = wavfile.read(path)
    except OSError as problem:
        raise OSError(f"{path} cannot be read: {problem.strerror or problem}; name a WAV file.") from None
    except (ValueError, EOFError, struct.error, ArithmeticError, LookupError, TypeError, UnboundLocalError) as problem:
        reason = str(problem).rstrip(".") if isinstance(problem, ValueError) else "damaged or cut short"
        raise ValueError(f"{path} is no WAV file that can be read ({reason}); give PCM or float data.") from None
    signal = to_float_rows(data)
    if rate < 1 or signal.size == 0 or signal.shape[1] < 2 or not np.isfinite(signal).all():
        raise ValueError(f"{path} holds no usable sound; it needs a sample rate and 2 finite samples at least.")
    return rate, signal


def to_float_rows(data: np.ndarray) -> np.ndarray:
    """Samples as read, (samples,) or (samples, channels), to (channels, samples) with full scale at 1."""
    if data.dtype == np.uint8:  # 8-bit WAV is unsigned
        scaled = (data.astype(np.float32) - 128) / 128
    elif data.dtype.kind == "i":
        scaled = data / np.float64(np.iinfo(data.dtype).max + 1)
    else:
        scaled = data
    return np.ascontiguousarray(np.atleast_2d(scaled.T), dtype=np.float32)


def choose_device() -> str:
    """Picks a GPU where there is one, else the CPU device, and says which and why.

    A child process asks: in this one, a "no" would stand for good and rule the CPU device out.
    """
    question = "import kevra; raise SystemExit(0 if kevra.available() else 1)"
    reason = "the HIP runtime has it"
    if subprocess.run([sys.executable, "-c", question], check=False).returncode != 0:
        kevra.use_cpu_device()
        reason = "no AMD GPU was found, so the CPU device runs the kernels on the processor"
    if not kevra.available():
        raise SystemExit("./demo: the CPU device does not start; `python -m kevra --use-cpu-device` tells more.")
    return f"{kevra.device_name()} ({kevra.device_arch()}): {reason}"


def measure(signal):
    """The energy, the seconds of the first and of a later call, and whether the first one had to compile."""
    before = cached_objects()
    started = time.perf_counter()
    energy = kevra.rms_staged(signal, FRAME, HOP, True)
    cold = time.perf_counter() - started
    compiled = cached_objects() != before
    times = []
    for _ in range(WARM_CALLS):
        started = time.perf_counter()
        kevra.rms_staged(signal, FRAME, HOP, True)
        times.append(time.perf_counter() - started)
    return energy, cold, sorted(times)[WARM_CALLS // 2], compiled


def cached_objects():
    """The code objects on disk; one that was stale is replaced under its name, which its time of change tells."""
    return {(file.name, file.stat().st_mtime_ns) for file in Path(_diagnostics.read()["cache"]).glob("*.hsaco")}


def largest_error(energy, signal):
    """The largest relative error against numpy in double precision, and what rounding allows.

    Each of 256 threads adds FRAME / 256 squares and 8 more additions join them, each within half a unit in the last
    place; the square, the division and the root add three. Frames quieter than -300 dB count as that loud.
    """
    padded = np.pad(signal.astype(np.float64), [(0, 0), (FRAME // 2, FRAME // 2)], mode="reflect")
    frames = np.lib.stride_tricks.sliding_window_view(padded, FRAME, axis=1)[:, ::HOP]
    exact = np.sqrt(np.mean(frames**2, axis=2))
    roundings = FRAME // 256 + 8 + 3
    error = np.max(np.abs(energy - exact) / np.maximum(exact, 1e-15))
    return error, roundings * np.finfo(np.float32).eps / 2


def draw(name, rate, signal, energy, folder: Path) -> Path:
    """For each channel (four at most) the waveform under its energy; below, all levels in dB."""
    shown = min(len(signal), len(CHANNEL_COLOURS))
    figure, axes = plt.subplots(
        shown + 1, 1, sharex=True, figsize=(11, 2.1 * shown + 3.2), layout="constrained",
        height_ratios=[1.0] * shown + [1.2],
    )
    seconds = np.arange(signal.shape[1]) / rate
    frame_seconds = np.arange(energy.shape[1]) * HOP / rate
    figure.suptitle(f"RMS energy: {name}", x=0.01, ha="left", fontsize=13, fontweight="bold", color=INK)
    for channel, axis in enumerate(axes[:-1]):
        colour = CHANNEL_COLOURS[channel]
        axis.plot(seconds, signal[channel], color=colour, linewidth=0.4, alpha=0.55, label="waveform")
        axis.plot(frame_seconds, energy[channel], color=INK, linewidth=1.2, label="RMS")
        peak = max(float(np.abs(signal[channel]).max()), 1e-6)
        axis.set_ylim(-1.08 * peak, 1.08 * peak)
        axis.set_ylabel("amplitude" if shown == 1 else f"channel {channel + 1}")
    legend = axes[0].legend(
        loc="lower right", bbox_to_anchor=(1, 1), ncols=2, frameon=False, labelcolor=INK, fontsize=9
    )
    legend.legend_handles[0].set(linewidth=2, alpha=1)
    level = 20 * np.log10(np.maximum(energy, 1e-10))  # digital silence leaves the picture at the bottom
    for channel in range(shown):
        axes[-1].plot(frame_seconds, level[channel], color=CHANNEL_COLOURS[channel], linewidth=1.2)
    axes[-1].set_ylim(-100, max(0.0, float(level.max()) + 3))
    axes[-1].set_ylabel("RMS level in dB\n(full scale = 0 dB)")
    axes[-1].set_xlabel("time in seconds")
    axes[-1].set_xlim(0, signal.shape[1] / rate)
    for axis in axes:
        style(axis)
    folder.mkdir(parents=True, exist_ok=True)
    path = folder / "rms.png"
    figure.savefig(path, dpi=120)
    return path


def style(axis) -> None:
    axis.grid(color=GRID, linewidth=0.8)
    axis.set_axisbelow(True)
    axis.spines[["top", "right"]].set_visible(False)
    axis.spines[["left", "bottom"]].set_color(MUTED)
    axis.tick_params(colors=MUTED, labelsize=9)
    axis.yaxis.label.set_color(INK)
    axis.xaxis.label.set_color(INK)


if __name__ == "__main__":
    sys.exit(main())
