"""kevra's operations on PyTorch tensors, with gradients.

A function takes and returns tensors of the memory that kevra runs on: CPU tensors on the CPU device, GPU tensors on a
GPU, there on PyTorch's current stream. Addresses are handed over; nothing is copied but what is not contiguous. The
last axis of a signal are its samples, the last two of a spectrogram bins or bands and frames; any axes may lead.

float32 and float64 are computed in their own precision. float16 and bfloat16 become float32 first, through a cast that
carries gradients back; the result stays float32. Anything else raises TypeError, a tensor of the wrong device or shape
ValueError, and so do values out of bounds.

Gradients are those of the values computed, by the adjoint kernels; docs/gradients.md has the formulas. They keep no
spectrum from forward to backward but compute it again. Overlaps are added by atomics in any order, so that gradients
differ in their last bits from run to run; after ``kevra.set_deterministic(1)`` they do not, for more memory. Windows,
filter banks, matrices and plans are constants. Second derivatives are refused with a RuntimeError.
"""

try:
    import torch as _torch  # noqa: F401
except ModuleNotFoundError as error:
    if error.name != "torch":
        raise
    raise ImportError(
        "kevra.torch needs PyTorch, which this Python does not have; install torch, or use the functions of kevra "
        "itself, which take numpy arrays and device addresses"
    ) from None

from .constant_q import chroma, cqt, tonnetz
from .convolution import convolve
from .features import (
    contrast,
    onset_strength,
    rms,
    spectral_bandwidth,
    spectral_centroid,
    spectral_flatness,
)
from .levels import db, inverse_mel_scale
from .spectrograms import istft, mel, mfcc, stft

__all__ = [
    "chroma", "contrast", "convolve", "cqt", "db", "inverse_mel_scale", "istft", "mel", "mfcc", "onset_strength", "rms",
    "spectral_bandwidth", "spectral_centroid", "spectral_flatness", "stft", "tonnetz",
]
