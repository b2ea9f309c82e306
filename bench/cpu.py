"""FFT, RMS, spectrograms, features, constant-Q transforms and filters on the CPU device, against other libraries.

Peers are numpy, scipy and, where installed, librosa, PyTorch, torchaudio and nnAudio.

The CPU device is a stand-in that runs GPU kernels on the processor: these figures tell what it costs to work without
a GPU, and nothing about GPUs. `resident` works in device memory, `staged` takes and gives numpy arrays as its peers do.
"""

import functools
import os
import sys

import kevra
from peers import comparison, contenders


def main() -> int:
    chosen = comparison.options(__doc__, {"threads": os.cpu_count()})
    os.environ["KEVRA_CPU_THREADS"] = str(chosen.threads)
    kevra.use_cpu_device()
    peers = {"librosa": "librosa", "torch": "PyTorch", "torchaudio": "torchaudio", "nnAudio.features": "nnAudio"}
    libraries, absent = contenders.find(peers, needs_gpu=False)
    scripts = {
        "fft_host_cost": ["--rounds", "200"],
        "resident_host_cost": ["--rounds", "200"],
        "spectrogram_host_cost": ["--rounds", "200"],
        "first_call": ["--warm", str(chosen.starts), "--cold", str(chosen.starts)],
        "lanes": ["--rounds", str(chosen.rounds)],
    }
    everyone = functools.partial(contenders.on_the_cpu, threads=chosen.threads)
    return comparison.compare(chosen, "cpu", everyone, libraries, absent, scripts, counted=("lanes",))


if __name__ == "__main__":
    sys.exit(main())
