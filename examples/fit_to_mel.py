"""Finds a sound that has a given mel spectrogram, by gradient descent on its samples.

The target is known by its level in 64 mel bands only: phases are lost, and so is what a band does not tell apart. The
search begins with noise and follows the gradient of the distance in decibels, through kevra.torch.mel, into the
samples. Written are a picture, with the loss of each step, and both sounds.
"""

import argparse
import sys
import time
from pathlib import Path

import kevra
import matplotlib
import numpy as np
import torch
from scipy.io import wavfile

import kevra.torch as kt

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402
from matplotlib.ticker import ScalarFormatter  # noqa: E402

RATE = 16000
N_FFT, HOP, BANDS = 1024, 256, 64
QUIET = 1e-5  # power that counts as silence: the loss is not to chase what nobody hears
FALL = 0.02  # of the learning rate, from the first step to the last


def main() -> int:
    parser = argparse.ArgumentParser(prog="examples/run fit_to_mel", description=__doc__)
    parser.add_argument("--steps", type=int, default=400, help="of the descent (default: 400)")
    parser.add_argument("--seconds", type=float, default=2.0, help="of sound (default: 2)")
    parser.add_argument("--output", default="out", help="folder for the picture and the sounds (default: out)")
    parser.add_argument("--gpu", action="store_true", help="on the GPU that HIP finds, not the CPU device")
    chosen = parser.parse_args()
    if not chosen.gpu:
        kevra.use_cpu_device()
    place = "cuda" if chosen.gpu else "cpu"
    torch.manual_seed(1)

    target = torch.from_numpy(melody(int(chosen.seconds * RATE))).to(place)
    started = time.perf_counter()
    sound, losses = fit(levels(target), len(target), chosen.steps)
    seconds = time.perf_counter() - started

    folder = Path(chosen.output)
    folder.mkdir(parents=True, exist_ok=True)
    draw(levels(target), levels(sound), losses, folder / "fit-to-mel.png")
    for name, samples in ("target", target), ("fitted", sound):
        wavfile.write(folder / f"fit-to-mel-{name}.wav", RATE, samples.cpu().numpy())
    print(f"Device    {kevra.device_name()}")
    print(f"Distance  {losses[0]:.2f} dB of noise, {losses[-1]:.2f} dB after {chosen.steps} steps in {seconds:.1f} s")
    print(f"Written   {folder / 'fit-to-mel.png'} and both sounds beside it")
    return 0 if losses[-1] < losses[0] / 2 else 1


def melody(samples: int) -> np.ndarray:
    """Five notes with seven partials each that fade, and a vibrato."""
    t = np.arange(samples) / RATE
    notes = np.array_split(t, 5)
    parts = []
    for note, pitch in zip(notes, (262, 330, 392, 494, 523)):
        since = note - note[0]
        phase = 2 * np.pi * pitch * since + 0.4 * np.sin(2 * np.pi * 6 * since)
        fade = np.exp(-3 * since) * np.minimum(1, since / 0.01)
        parts.append(fade * sum(np.sin(k * phase) / k**1.5 for k in range(1, 8)))
    return (0.3 * np.concatenate(parts)).astype(np.float32)


BANK = kevra.mel_filter_bank(RATE, N_FFT, BANDS)


def levels(sound: torch.Tensor) -> torch.Tensor:
    """In decibels, (bands, frames)."""
    return kt.mel(sound, "hann", BANK, N_FFT, HOP, output="db", eps=QUIET)


def fit(target: torch.Tensor, samples: int, steps: int) -> tuple[torch.Tensor, list[float]]:
    sound = (0.05 * torch.randn(samples, device=target.device)).requires_grad_()
    optimiser = torch.optim.Adam([sound], lr=0.01)
    schedule = torch.optim.lr_scheduler.ExponentialLR(optimiser, FALL ** (1 / steps))
    losses = []
    for step in range(steps):
        optimiser.zero_grad()
        loss = (levels(sound) - target).abs().mean()
        loss.backward()
        optimiser.step()
        schedule.step()
        losses.append(loss.item())
        show_progress(step + 1, steps, losses[-1])
    return sound.detach(), losses


def show_progress(done: int, steps: int, loss: float) -> None:
    if sys.stderr.isatty():
        filled = 30 * done // steps
        end = "\n" if done == steps else ""
        print(f"\rstep {done}/{steps} [{'#' * filled}{'.' * (30 - filled)}] {loss:6.2f} dB", end=end, file=sys.stderr)


def draw(target: torch.Tensor, fitted: torch.Tensor, losses: list[float], path: Path) -> None:
    figure, axes = plt.subplots(3, 1, figsize=(8, 9), layout="constrained")
    top = target.max().item()
    for axis, values, title in zip(axes, (target, fitted), ("Target", "Fitted sound")):
        image = axis.imshow(values.cpu(), origin="lower", aspect="auto", cmap="magma", vmin=top - 70, vmax=top,
                            extent=(0, values.shape[1] * HOP / RATE, 0, BANDS))
        axis.set(title=title, xlabel="time in s", ylabel="mel band")
        figure.colorbar(image, ax=axis, label="level in dB")
    axes[2].semilogy(np.arange(1, len(losses) + 1), losses)
    axes[2].set(title="Loss", xlabel="step", ylabel="mean distance in dB")
    axes[2].yaxis.set_major_formatter(ScalarFormatter())
    axes[2].yaxis.set_minor_formatter(ScalarFormatter())
    axes[2].grid(alpha=0.3)
    figure.savefig(path, dpi=110)
    plt.close(figure)


if __name__ == "__main__":
    sys.exit(main())
