"""Forward and backward of a log-mel loss through kevra.torch, against PyTorch's own operations, on the CPU.

16 signals of 1 s at 16 kHz, frames of 400 samples every 160, 80 bands in decibels, mean absolute distance to those of
another signal. Both sides take turns, with the same number of threads.
"""

import os
import statistics
import sys
import time

import harness
import kevra
import torch

import kevra.torch as kt

BATCH, RATE = 16, 16000
WINDOW, N_FFT, HOP, BANDS, EPS = "hann", 400, 160, 80, 1e-10
SPEED_BAR = 0.5  # of PyTorch's
AGREEMENT_BAR = 1e-4  # of the gradients, relative


def main() -> int:
    chosen = harness.options(__doc__, rounds=40, threads=os.cpu_count())
    harness.cpu_device_only(chosen, "torch_mel compares with PyTorch on the CPU")
    os.environ["KEVRA_CPU_THREADS"] = str(chosen.threads)
    torch.set_num_threads(chosen.threads)
    torch.manual_seed(1)
    bank = kevra.mel_filter_bank(RATE, N_FFT, BANDS)
    sides = {"kevra.torch": ours(bank), "PyTorch": theirs(bank)}
    signal, other = torch.randn(2, BATCH, RATE)
    targets = {name: levels(other) for name, levels in sides.items()}

    def step(name):
        y = signal.clone().requires_grad_()
        (sides[name](y) - targets[name]).abs().mean().backward()
        return y.grad

    times = {name: [] for name in sides}
    gradients = {name: step(name) for name in sides}  # compiles, makes plans
    for _ in harness.progress(range(chosen.rounds), "rounds"):
        for name, seconds in times.items():
            started = time.perf_counter()
            step(name)
            seconds.append(time.perf_counter() - started)
    mine, wanted = gradients.values()
    speed = statistics.median(times["PyTorch"]) / statistics.median(times["kevra.torch"])
    figures = [
        harness.Figure("speed", speed, "of PyTorch's", SPEED_BAR, at_least=True),
        harness.Figure("gradients apart", float((mine - wanted).norm() / wanted.norm()), "", AGREEMENT_BAR),
    ]
    notes = {name: f"{statistics.median(seconds) * 1e3:.2f} ms median, {min(seconds) * 1e3:.2f} ms least"
             for name, seconds in times.items()}
    notes["versions"] = f"PyTorch {torch.__version__}"
    measured = f"{chosen.rounds} rounds in turns, {chosen.threads} threads"
    return harness.report(chosen, measured, figures, notes)


def ours(bank):
    return lambda y: kt.mel(y, WINDOW, bank, N_FFT, HOP, output="db", eps=EPS)


def theirs(bank):
    window, weights = torch.hann_window(N_FFT), torch.from_numpy(bank).float()

    def levels(y):
        spectra = torch.stft(y, N_FFT, HOP, window=window, center=True, pad_mode="reflect", return_complex=True)
        power = torch.view_as_real(spectra).square().sum(dim=-1)  # quicker than abs().square(), backward above all
        return 10 * torch.log10(weights @ power + EPS)

    return levels


if __name__ == "__main__":
    sys.exit(main())
