"""What may be handed in: checks of tensors and of constants, and the shapes that the operations work in."""

import math
import operator
from typing import NamedTuple

import numpy as np
import torch

from . import _resident

_WIDENED = {torch.float16: torch.float32, torch.bfloat16: torch.float32, torch.complex32: torch.complex64}
_COMPLEX = {torch.float32: torch.complex64, torch.float64: torch.complex128}
_REAL = {of: real for real, of in _COMPLEX.items()}


def checked(function, name, tensor, axes=1, complex_too=False):
    """The tensor, float16 and the like widened, lazy conjugates and signs written out; refuses other types, other
    devices and too few axes."""
    if not isinstance(tensor, torch.Tensor):
        raise TypeError(f"{function}: {name} is a {type(tensor).__name__}, must be a torch.Tensor")
    if tensor.layout != torch.strided:
        raise TypeError(f"{function}: {name} is {tensor.layout}, must be dense; call its to_dense()")
    dtype = _WIDENED.get(tensor.dtype, tensor.dtype)
    if dtype not in _COMPLEX and not (complex_too and dtype in _REAL):
        wanted = "float32, float64 or complex" if complex_too else "float32 or float64"
        remedy = "; take its abs() or real part" if dtype in _REAL else ""
        raise TypeError(f"{function}: {name} is {tensor.dtype}, must be {wanted}{remedy}")
    kind = _resident.device_type()
    if tensor.device.type != kind:
        where = "the CPU device" if kind == "cpu" else "a GPU"
        raise ValueError(
            f"{function}: {name} is on {tensor.device} and kevra runs on {where}; move it by .to('{kind}')")
    if tensor.ndim < axes:
        raise ValueError(f"{function}: {name} has {tensor.ndim} dimensions, must have at least {axes}")
    return tensor.to(dtype).resolve_conj().resolve_neg()


def as_complex(function, name, tensor, axes):
    tensor = checked(function, name, tensor, axes, complex_too=True)
    return tensor if tensor.is_complex() else tensor.to(_COMPLEX[tensor.dtype])


def complex_of(dtype):
    return _COMPLEX[dtype]


def real_of(dtype):
    return _REAL.get(dtype, dtype)


def constant(function, name, value):
    """A window, a bank or a matrix for a resident function, which takes host arrays."""
    if not isinstance(value, torch.Tensor):
        return value
    if value.requires_grad:
        raise ValueError(f"{function}: {name} requires a gradient, and none is offered for it; pass {name}.detach()")
    return value.cpu().numpy()


def one_of(function, name, value, allowed):
    if value not in allowed:
        raise ValueError(f"{function}: {name} is {value!r}, must be one of {', '.join(map(repr, allowed))}")
    return value


def batched(tensor, axes):
    """(batch, last axes), the leading axes as one, and what they were. A view wherever there can be one."""
    leading = tensor.shape[:-axes]
    return tensor.reshape(math.prod(leading), *tensor.shape[-axes:]), leading


def unbatched(tensor, leading):
    """A view with the first axis split into what it was."""
    return tensor.reshape(*leading, *tensor.shape[1:])


def frame_rows(tensor):
    """(batch, frames, bins) of (..., bins, frames), contiguous, and the leading axes. A view of what stft and mel
    return."""
    rows, leading = batched(tensor, 2)
    return rows.transpose(1, 2).contiguous(), leading


class Framing(NamedTuple):
    """How a signal is cut into frames. Sizes out of bounds give no frames here: the operation refuses them itself."""

    window: object
    n_fft: int
    hop: int
    center: bool

    @property
    def bins(self):
        return max(0, self.n_fft // 2 + 1)

    @property
    def padding(self):
        return self.n_fft // 2 if self.center else 0

    def frames(self, length):
        return max(0, (length + 2 * self.padding - self.n_fft) // max(self.hop, 1) + 1)


def framing(function, window, n_fft, hop, center):
    return Framing(constant(function, "window", window), operator.index(n_fft), operator.index(hop), bool(center))


def filter_bank(function, fb):
    """The bank as resident functions take it, and how many filters it has."""
    fb = np.asarray(constant(function, "fb", fb))
    return fb, len(fb) if fb.ndim else 0
