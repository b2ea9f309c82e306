"""Blocks in SIMD lanes: speed against scipy, librosa and PyTorch, groups that part, rounding, compile time.

Transforms run on one thread and are timed by the processor time of their process; their rows lie in device memory.
Spectrograms take and give numpy arrays on all cores. librosa and PyTorch are left out where they are not installed.
"""

import json
import os
import re
import statistics
import subprocess
import sys
import tempfile

import harness
import numpy as np

EPS = 2.0**-23
SMALL = {"fft 64", "fft 128", "fft 256"}
SHORT_BAR, LONG_BAR = 1.0, 0.6  # of scipy's speed
MUSIC_BARS = {"librosa": 3.0, "torch": 1.0}
NAMES = {"logmel": "log-mel, 5 min, 2048 hop 512, 128 bands", "magnitude": "STFT magnitude of the same"}
FATE = re.compile(r": (\d+) groups of \d+ blocks in lanes, (\d+) of them diverged")


def main() -> int:
    chosen = harness.options(__doc__.splitlines()[0], rounds=9, compiles=3)
    harness.cpu_device_only(chosen, "Lanes are the CPU device's")
    with harness.cache_folder():
        transforms, _ = child("time transforms", chosen.rounds, KEVRA_CPU_THREADS=1)
        music, _ = child("time music", chosen.rounds, KEVRA_CPU_THREADS=os.cpu_count())
        _, reports = child("run", KEVRA_DEBUG=1)
        apart = rounding()
    notes = dict(music["absent"])
    for name, speed in {**transforms["speeds"], **music["speeds"]}.items():
        notes[NAMES.get(name, name)] = f"{speed['seconds'] * 1e3:.4g} ms median"
    figures = [speed_figure(name, speed) for name, speed in transforms["speeds"].items()]
    figures += [figure for name, speed in music["speeds"].items() for figure in music_figures(name, speed)]
    figures.append(parting_figure(reports))
    figures += [harness.Figure(f"{name}, with lanes against without", off, "eps", 4) for name, off in apart.items()]
    figures.append(compile_figure(chosen.compiles, notes))
    measured = f"{chosen.rounds} rounds, of long calls fewer, alternating; ratios within a round, their median"
    return harness.report(chosen, measured, figures, notes)


def child(part: str, *arguments, **environment) -> tuple[dict, str]:
    """What a part of child_lanes.py answers, and what it writes on stderr."""
    command = [sys.executable, str(harness.HERE / "child_lanes.py"), part, *map(str, arguments)]
    variables = {**os.environ, **{name: str(value) for name, value in environment.items()}}
    ran = subprocess.run(command, capture_output=True, text=True, check=False, env=variables)
    if ran.returncode != 0:
        raise SystemExit(f"The part '{part}' failed with exit status {ran.returncode}:\n{ran.stdout}{ran.stderr}")
    return json.loads(ran.stdout.splitlines()[-1]), ran.stderr


def speed_figure(name: str, speed: dict) -> harness.Figure:
    bar = SHORT_BAR if name in SMALL else LONG_BAR
    return harness.Figure(f"{name}, of scipy's speed", speed["against"]["scipy"], "", bar, at_least=True)


def music_figures(name: str, speed: dict) -> list[harness.Figure]:
    return [
        harness.Figure(f"{NAMES[name]}, of {peer}'s speed", ratio, "", MUSIC_BARS[peer], at_least=True)
        for peer, ratio in speed["against"].items()
    ]


def parting_figure(reports: str) -> harness.Figure:
    """The worst kernel's share of such calls as are timed; one that has to wait and has no lane form counts as all of them."""
    fates = [(int(groups), int(diverged)) for groups, diverged in FATE.findall(reports)]
    shares = [100 * diverged / groups for groups, diverged in fates if groups != 0]
    shares += [100.0] * reports.count("not in lanes: ")
    return harness.Figure("groups that diverge, worst kernel", max(shares, default=float("nan")), "%", 1)


def rounding() -> dict[str, float]:
    """The largest difference that lanes make, in eps of the row's largest value, for each operation."""
    worst = {}
    with tempfile.TemporaryDirectory(prefix="kevra-bench-") as folder:
        saved = []
        for lanes in (1, 0):
            os.mkdir(f"{folder}/{lanes}")
            saved.append(child("results", f"{folder}/{lanes}", KEVRA_CPU_LANES=lanes)[0])
        for name in saved[0]:
            with_lanes, without = (np.load(files[name]) for files in saved)
            rows = (0, 1) if name in NAMES else (1,)  # frames follow each other in the last dimension
            apart = np.abs(with_lanes - without).max(axis=rows) / np.abs(without).max(axis=rows)
            kind = NAMES.get(name, name.split()[0])
            worst[kind] = max(worst.get(kind, 0.0), float(apart.max()) / EPS)
    return worst


def compile_figure(rounds: int, notes: dict[str, str]) -> harness.Figure:
    """Of the kernel that takes the most longer; with and without lanes in turn, each time from an empty cache."""
    taken = {1: [], 0: []}
    for _ in range(rounds):
        for lanes, runs in taken.items():
            with harness.cache_folder():
                runs.append(child("compile", KEVRA_CPU_LANES=lanes)[0])
    ratios = {}
    for name in taken[1][0]:
        with_lanes, without = (statistics.median(run[name] for run in runs) for runs in taken.values())
        ratios[name] = with_lanes / without
        notes[f"compile of {NAMES.get(name, name)}"] = f"{with_lanes:.3f} s, {without:.3f} s without lanes"
    worst = max(ratios, key=ratios.get)
    name = f"compile time, of the time without lanes, most for {NAMES.get(worst, worst)}"
    return harness.Figure(name, ratios[worst], "", 1.6)


if __name__ == "__main__":
    sys.exit(main())
