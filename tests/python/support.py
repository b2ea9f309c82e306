"""What several test modules share: references and tolerances, device memory, processes that start afresh."""

import ctypes
import math
import multiprocessing
import os
import tempfile

import kevra
import numpy as np
import pytest
import scipy.fft
from kevra import _diagnostics

HALF, FLOAT, DOUBLE = 0, 1, 2
# Check mode looks at every access of some hundred thousand blocks there, and finds what it finds in few of them.
too_many_blocks_to_check = pytest.mark.skipif("KEVRA_CPU_CHECK" in os.environ, reason="takes minutes in check mode")
STORAGE = (np.float16, np.float32, np.float64)
# Unit roundoff of storage and of arithmetic.
UNIT = ((2**-11, 2**-24), (2**-24, 2**-24), (2**-53, 2**-53))


def rms_tolerance(prec, frame_length):
    """Relative: a thread adds frame_length / 256 squares, eight halvings follow, then division, root, conversion."""
    storage, arithmetic = UNIT[prec]
    return storage + arithmetic * (math.ceil(frame_length / 256) + 12)


def rms_reference(x, frames, frame_length, hop, center):
    """By index arithmetic, in more than double; frames may reach past the signal by any number of its lengths."""
    n = x.shape[1]
    q = hop * np.arange(frames)[:, None] - center * (frame_length // 2) + np.arange(frame_length)
    if n > 1:
        q = abs((q + n - 1) % (2 * n - 2) - (n - 1))
    return np.sqrt(np.mean(x.astype(np.longdouble)[:, q] ** 2, axis=-1))


def fft_reference(x, inverse):
    return (scipy.fft.ifft if inverse else scipy.fft.fft)(x.astype(np.clongdouble))


# A transform's error over eps: of a row in the Euclidean norm, a multiple of sqrt(log2 n); of its worst element
# against the row's root mean square, a multiple of ln n. A prime above 13 is a convolution, which rounds more.
FFT_ERROR = {DOUBLE: (2**-52, 1.0, 4.0), FLOAT: (2**-23, 2.5, 4.0)}
PRIME_ERROR = {DOUBLE: 1.5, FLOAT: 3.0}
LONG_ERROR = {DOUBLE: 2.0, FLOAT: 4.0}  # the chirp's convolution, and two passes through device memory
CHIRP_ELEMENT_ERROR = 6.0  # seen: 4.03, irfft of 2039 floats


def assert_fft(got, want, prec, what, times=1, op="fft", n=None):
    """Rows of a transform of length n against a reference in extended precision. Half storage may round once more."""
    assert got.shape == want.shape, what
    n = n or want.shape[-1]
    error = got - want
    if prec not in FFT_ERROR:
        for part, exact in (error.real, want.real), (error.imag, want.imag):
            one_place = np.spacing(abs(exact).astype(np.float16))
            part[...] = np.maximum(abs(part) - one_place, 0)
    arithmetic = DOUBLE if prec == DOUBLE else FLOAT
    eps, of_row, of_element = FFT_ERROR[arithmetic]
    route = kevra.route_explain(op, n, arithmetic)
    if route["bluestein"] or route["core"] == "four_step":
        of_row = LONG_ERROR[arithmetic]
        if route["bluestein"]:
            of_element = CHIRP_ELEMENT_ERROR
    elif max(route["schedule"], default=1) > 16:
        of_row = PRIME_ERROR[arithmetic]
    size = np.sqrt(np.square(abs(want)).mean(axis=-1)) * eps * times
    row = np.sqrt(np.square(abs(error)).mean(axis=-1))
    element = abs(error).max(axis=-1)
    for off, bound in (row, of_row * math.sqrt(math.log2(n))), (element, of_element * math.log(n)):
        assert (off <= bound * size).all(), f"{what}: up to {(off / size).max()} eps, {bound} allowed"


def pools_in_use():
    """Blocks that the device pool and the pinned pool have handed out."""
    pools = _diagnostics.read()["pools"]
    return pools["device"]["in_use_blocks"], pools["pinned"]["in_use_blocks"]


class HipFailure(Exception):
    """A HIP call of the test's own failed."""


class Device:
    """Memory and streams of one device, by the calls that a caller of resident functions has at hand."""

    def __init__(self, index=0):
        self.index = index
        self.hip = ctypes.CDLL(kevra.cpu_device_path())
        self.blocks, self.streams = [], []

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for stream in self.streams:
            self.call("hipStreamSynchronize", stream)
            self.call("hipStreamDestroy", stream)
        for block in self.blocks:
            self.call("hipFree", block)

    def call(self, name, *arguments):
        status = getattr(self.hip, name)(*arguments)
        if status != 0:
            raise HipFailure(f"{name}{arguments} gave {status}")

    def empty(self, count, dtype):
        block = ctypes.c_void_p()
        self.call("hipSetDevice", self.index)
        self.call("hipMalloc", ctypes.byref(block), ctypes.c_size_t(count * np.dtype(dtype).itemsize))
        self.blocks.append(block)
        return block.value

    def upload(self, array):
        array = np.ascontiguousarray(array)
        address = self.empty(array.size, array.dtype)
        self.call("hipMemcpyHtoD", ctypes.c_void_p(address), ctypes.c_void_p(array.ctypes.data),
                  ctypes.c_size_t(array.nbytes))
        return address

    def download(self, address, shape, dtype):
        array = np.empty(shape, dtype)
        self.call("hipMemcpyDtoH", ctypes.c_void_p(array.ctypes.data), ctypes.c_void_p(address),
                  ctypes.c_size_t(array.nbytes))
        return array

    def stream(self, flags=0):
        handle = ctypes.c_void_p()
        self.call("hipSetDevice", self.index)
        self.call("hipStreamCreateWithFlags", ctypes.byref(handle), ctypes.c_uint(flags))
        self.streams.append(handle)
        return handle.value

    def synchronize(self, stream):
        self.call("hipStreamSynchronize", ctypes.c_void_p(stream))


# Forks of a process that has imported the package and done nothing else: as good as a new process, and quicker.
_fork_server = multiprocessing.get_context("forkserver")
_fork_server.set_forkserver_preload(["numpy", "kevra", "support"])


class Fresh:
    """``function(*arguments)`` in a process that has not touched a device yet, under ``env``. Starts at once."""

    def __init__(self, function, *arguments, env=None):
        self.what = f"{function.__name__}{arguments} under {env}"
        self.errors = tempfile.NamedTemporaryFile("r", errors="replace")  # noqa: SIM115
        self.answer, answer = _fork_server.Pipe(duplex=False)
        self.process = _fork_server.Process(
            target=_run, args=(answer, self.errors.name, env or {}, function, arguments), daemon=True)
        self.process.start()
        answer.close()

    def result(self, timeout=120):
        """What the function returned, and what the process wrote on stderr."""
        outcome = None
        try:
            if self.answer.poll(timeout):
                outcome = self.answer.recv()
        except EOFError:
            pass
        if outcome is None:
            self.process.kill()
        self.process.join()
        errors = self.errors.read()
        self.errors.close()
        if outcome is None:
            pytest.fail(f"exit status {self.process.exitcode} of {self.what}\n{errors}")
        value, failure = outcome
        if failure is not None:
            pytest.fail(f"{self.what} raised:\n{failure}\n{errors}")
        return value, errors


def fresh(function, *arguments, env=None):
    return Fresh(function, *arguments, env=env).result()[0]


def _run(answer, errors, env, function, arguments):
    import traceback

    os.dup2(os.open(errors, os.O_WRONLY | os.O_APPEND), 2)
    for name, value in env.items():
        if value is None:
            os.environ.pop(name, None)
        else:
            os.environ[name] = str(value)
    try:
        answer.send((function(*arguments), None))
    except BaseException:
        answer.send((None, traceback.format_exc()))
