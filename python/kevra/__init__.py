"""Audio and spectral signal processing on AMD GPUs, for numpy arrays.

Functions ending in ``_staged`` take and return numpy arrays; those ending in ``_resident`` take raw device
addresses and a stream, queue their work and return. Kernels are compiled on first use and kept on disk.

Without an AMD GPU, call ``use_cpu_device()`` before anything else: a stand-in for the HIP runtime then runs the
same kernels on the processor. ``use_cuda_device()`` runs them on an NVIDIA GPU.
"""

from . import _rocm
from ._device_choice import cpu_device_path, cuda_device_path, use_cpu_device, use_cuda_device
from ._rocm import *  # noqa: F403
from ._tuned_file import TunedShape, tuned_file
from .constant_q import ConstantQPlan, constant_q_plan, half_band_taps
from .filters import mel_filter_bank
from .inverse_constant_q import constant_q_inverse, dual_octaves
from .tuning import load_tuned, tune

__version__ = "0.1.0"
__all__ = sorted(
    [name for name in dir(_rocm) if not name.startswith("_")]
    + ["cpu_device_path", "cuda_device_path", "use_cpu_device", "use_cuda_device", "mel_filter_bank"]
    + ["ConstantQPlan", "constant_q_plan", "half_band_taps", "constant_q_inverse", "dual_octaves"]
    + ["TunedShape", "load_tuned", "tune", "tuned_file"]
)
