"""Input for measurements."""

import ctypes

import numpy as np

from . import _diagnostics

_BLOCK = 1 << 20


class Noise:
    """Memory of a device with so many normal random numbers; ``with`` gives its address."""

    def __init__(self, count: int, storage: str, device: int):
        self.bytes = count * np.dtype(storage).itemsize
        if self.bytes >= 2**63:  # what a size_t holds is no question of memory
            raise ValueError(f"tune: the input has {self.bytes} bytes, must have less than 2**63; tune a smaller batch")
        self.noise = np.random.default_rng(0).standard_normal(min(count, _BLOCK)).astype(storage)
        self.device = device

    def __enter__(self) -> int:
        self.hip = ctypes.CDLL(_diagnostics.read()["library"])
        self.hip.hipGetErrorString.restype = ctypes.c_char_p
        self.address = ctypes.c_void_p()
        self._call("hipSetDevice", self.device)
        self._call("hipMalloc", ctypes.byref(self.address), ctypes.c_size_t(self.bytes))
        try:
            self._fill()
        except BaseException:
            self.__exit__()
            raise
        return self.address.value

    def __exit__(self, *_):
        self.hip.hipFree(self.address)

    def _fill(self):
        for start in range(0, self.bytes, self.noise.nbytes):
            size = min(self.noise.nbytes, self.bytes - start)
            self._call("hipMemcpyHtoD", ctypes.c_void_p(self.address.value + start),
                       ctypes.c_void_p(self.noise.ctypes.data), ctypes.c_size_t(size))

    def _call(self, name: str, *arguments):
        status = getattr(self.hip, name)(*arguments)
        if status != 0:
            words = (self.hip.hipGetErrorString(status) or b"unknown HIP error").decode(errors="replace")
            raise RuntimeError(f"tune: {name} failed for {self.bytes} bytes of input on device {self.device}: {words}")
