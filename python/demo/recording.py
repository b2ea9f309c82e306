"""A recording as waveform, spectrograms, cepstra, onsets, constant-Q transform and chroma, and its round trip through
the spectrum: see ./demo."""

import argparse
import subprocess
import sys
from pathlib import Path

import harmony
import harmony_picture
import kevra
import numpy as np
from analysis import analyse, setting_for
from checks import check, peak, round_trip_error
from picture import draw
from sound import read_recordings, write_wav


def main() -> int:
    parser = argparse.ArgumentParser(prog="./demo", description=__doc__)
    parser.add_argument("file", nargs="?", help="a WAV file (default: speech recordings of alsa-utils)")
    parser.add_argument("--output", default="out", help="folder for the picture and the sound (default: out)")
    options = parser.parse_args()
    try:
        name, rate, signal = read_recordings(options.file)
    except (OSError, ValueError) as problem:
        print(f"./demo: {problem}", file=sys.stderr)
        return 1
    channels, samples = signal.shape
    tell("Signal", f"{name}: {count(channels, 'channel')}, {samples / rate:.2f} s at {rate} Hz")
    tell("Device", choose_device())

    setting = setting_for(rate, samples)
    result, times = analyse(signal, setting)
    tell_frames(setting, result)
    panels, harmony_checks, harmony_times = harmony.analyse(name, rate, signal)
    tell_times(times | harmony_times)
    checks = check(signal, result, setting) + harmony_checks
    tell_checks(checks)

    folder = Path(options.output)
    tell("Picture", draw(name, signal, setting, result, folder / "spectrogram.png"))
    tell("", harmony_picture.draw(panels, folder / "constant-q.png"))
    path = write_wav(folder / "round-trip.wav", rate, result.round_trip)
    tell("Round trip", f"{path}, {distance(round_trip_error(signal, result), peak(signal))}")
    return 0 if all(one.passed for one in checks) else 1


def tell(what, text):
    print(f"{what:<11} {text}")


def count(number, thing):
    return f"{number} {thing}" if number == 1 else f"{number} {thing}s"


def tell_frames(s, result):
    length, step = (f"{count(n, 'sample')} ({n / s.rate * 1e3:.1f} ms)" for n in (s.frame, s.hop))
    tell("Frames", f"{result.rms.shape[1]} of {length}, every {step}; Hann window, {count(len(s.bank), 'mel band')}")
    loudest = float(result.rms.max())
    level = f"loudest frame {20 * np.log10(loudest):.1f} dB RMS, full scale being 0 dB" if loudest > 0 else "silence"
    tell("Loudness", level)


def tell_times(times):
    for what, (name, timing) in zip(["Time"] + [""] * len(times), times.items(), strict=False):
        source = "compiled" if timing.compiled else "from the disk cache"
        tell(what, f"{name:<11} {timing.later * 1e3:9.2f} ms; the first call {timing.first * 1e3:.0f} ms ({source})")


def tell_checks(checks):
    for what, one in zip(["Check"] + [""] * len(checks), checks, strict=False):
        verdict = f"{'agrees with' if one.passed else 'DIFFERS from'} {one.against}"
        tell(what, f"{one.name:<11} {verdict}: off by {one.error:.1e} {one.unit}, {one.bound:.1e} allowed")


def distance(error, loudest):
    if error == 0:
        return "the recording to the last bit"
    return f"at most {error:.1e} from the recording, {20 * np.log10(error / max(loudest, 1e-30)):.0f} dB of its peak"


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


if __name__ == "__main__":
    sys.exit(main())
