"""FFT, RMS, spectrograms, features, constant-Q transforms and filters on a GPU, against other libraries.

Peers are PyTorch, torchaudio, nnAudio and CuPy on the same GPU, where installed.

Input and output lie in device memory, and events time what is queued. Measured is whatever HIP runtime is bound:
the one that KEVRA_HIP_PATH names, else the CUDA device where there is an NVIDIA driver, else the system's HIP.
"""

import ctypes
import os
import sys

import kevra
from peers import comparison, contenders


def main() -> int:
    chosen = comparison.options(__doc__, {})
    # Before kevra binds its runtime: PyTorch may bring the HIP library that both have to share.
    peers = {"torch": "PyTorch", "torchaudio": "torchaudio", "nnAudio.features": "nnAudio", "cupy": "CuPy"}
    libraries, absent = contenders.find(peers, needs_gpu=True)
    if not os.environ.get("KEVRA_HIP_PATH") and nvidia_driver():
        kevra.use_cuda_device()
    if not kevra.available():
        raise SystemExit("No GPU: `python -m kevra` tells what was looked for; `bench/run cpu` needs none.")
    scripts = {"first_call": ["--gpu", "--warm", str(chosen.starts), "--cold", str(chosen.starts)]}
    return comparison.compare(chosen, "gpu", contenders.on_the_gpu, libraries, absent, scripts)


def nvidia_driver() -> bool:
    try:
        ctypes.CDLL("libcuda.so.1")
    except OSError:
        return False
    return True


if __name__ == "__main__":
    sys.exit(main())
