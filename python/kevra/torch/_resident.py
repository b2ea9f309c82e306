"""How tensors reach resident functions: address, precision and stream; and what a gradient may not be used for."""

import ctypes
import functools

import torch

import kevra
from kevra import _diagnostics

_DOUBLE = (torch.float64, torch.complex128)


@functools.cache
def device_type():
    """PyTorch's name of the memory that kevra runs on."""
    if not kevra.available():
        raise RuntimeError("no HIP device available; kevra.use_cpu_device() runs everything on the processor")
    return "cpu" if kevra.device_arch().startswith("cpu-") else "cuda"


def queue(function, *arguments):
    """``function(*arguments, prec, device, stream)`` with tensors as their addresses. What it is to work on, precision
    and place, is told by the first tensor."""
    first = next(argument for argument in arguments if isinstance(argument, torch.Tensor))
    prec = 2 if first.dtype in _DOUBLE else 1
    numbers = [a.data_ptr() if isinstance(a, torch.Tensor) else a for a in arguments]
    if first.device.type == "cpu":
        function(*numbers, prec, 0, 0)
        _wait(function.__name__)
    else:
        # The guard puts back the device that PyTorch has chosen: the function makes its own the current one.
        with torch.cuda.device(first.device):
            function(*numbers, prec, first.device.index, torch.cuda.current_stream(first.device).cuda_stream)


def _wait(name):
    """PyTorch reads CPU tensors at once, so the CPU device's null stream has to be through."""
    hip = _hip()
    status = hip.hipStreamSynchronize(None)
    if status != 0:
        raise RuntimeError(f"{name} failed on the CPU device: {hip.hipGetErrorString(status).decode()}")


@functools.cache
def _hip():
    hip = ctypes.CDLL(_diagnostics.read()["library"])
    hip.hipGetErrorString.restype = ctypes.c_char_p
    return hip


def once(name):
    """Makes ``gradients(ctx, incoming)`` the backward of a Function. It returns a tuple, of which gradients of
    arguments that are no tensors may be left out at the end. Differentiating the result again is refused."""

    def decorate(gradients):
        @functools.wraps(gradients)
        def backward(ctx, incoming):
            incoming = incoming.resolve_conj().resolve_neg()
            with torch.no_grad():
                results = gradients(ctx, incoming)
            if torch.is_grad_enabled():  # a graph of the gradient is wanted
                sources = (incoming, *ctx.saved_tensors)
                results = tuple(g if g is None else _NotAgain.apply(name, g, *sources) for g in results)
            return results + (None,) * (len(ctx.needs_input_grad) - len(results))

        return staticmethod(backward)

    return decorate


class _NotAgain(torch.autograd.Function):
    """Stands behind a gradient that is itself to be differentiated."""

    @staticmethod
    def forward(ctx, name, gradient, *_sources):
        ctx.name = name
        return gradient.view_as(gradient)

    @staticmethod
    def backward(ctx, _):
        raise RuntimeError(
            f"kevra.torch.{ctx.name}: second derivatives are not offered; take gradients without create_graph=True, "
            "or detach() them before they enter a loss"
        )
