"""Adjoints called with numpy arrays: what is on the device for the length of a call."""

from dataclasses import dataclass

import harness
import kevra
import numpy as np

CODES = {np.dtype(np.float32): 1, np.dtype(np.float64): 2, np.dtype(np.complex64): 1, np.dtype(np.complex128): 2}
COMPLEX = {np.dtype(np.float32): np.complex64, np.dtype(np.float64): np.complex128}


@dataclass
class On:
    """An argument that the function finds in device memory; other arrays stay host arrays."""

    array: np.ndarray


@dataclass
class Out:
    """What the function writes."""

    shape: tuple
    dtype: object


def run(name: str, *arguments) -> np.ndarray:
    """kevra's function of the name, with its precision, device and stream behind the arguments; what its Out holds."""
    with Call(name, *arguments) as call:
        call.queue()
        return call.result()


class Call:
    """A function and its arguments in device memory, to be queued any number of times."""

    def __init__(self, name: str, *arguments):
        self.hip, self.function, self.blocks = harness.Hip(), getattr(kevra, name), []
        out = next(a for a in arguments if isinstance(a, Out))
        self.out = np.empty(out.shape, out.dtype)
        self.arguments = [self._placed(argument) for argument in arguments]
        self.arguments += [CODES[self.out.dtype], 0, 0]

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.hip.synchronize()
        self.hip.free(*self.blocks)

    def _placed(self, argument):
        if isinstance(argument, On):
            self.blocks.append(self.hip.upload(np.ascontiguousarray(argument.array)))
            return self.blocks[-1]
        if isinstance(argument, Out):
            self.address = self.hip.malloc(max(self.out.nbytes, 1))
            self.blocks.append(self.address)
            return self.address
        return argument

    def queue(self) -> None:
        self.function(*self.arguments)

    def result(self) -> np.ndarray:
        self.hip.synchronize()
        self.hip.download(self.out, self.address)
        return self.out.copy()


def turned(random, shape: tuple, dtype) -> tuple[np.ndarray, np.ndarray, list[int]]:
    """Normal noise of a shape that lies in memory in any order of its axes: the values, what is to be uploaded, and the
    strides in elements."""
    order = random.permutation(len(shape))
    lying = noise(random, [shape[axis] for axis in order], dtype)
    values = lying.transpose(np.argsort(order))
    return values, lying, [stride // lying.itemsize for stride in values.strides]


def noise(random, shape, dtype) -> np.ndarray:
    values = random.standard_normal(shape)
    if np.issubdtype(dtype, np.complexfloating):
        values = values + 1j * random.standard_normal(shape)
    return values.astype(dtype)
