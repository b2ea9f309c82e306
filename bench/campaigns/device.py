"""The CPU device under the calls: memory behind their addresses, their results, failures on demand."""

import ctypes
import re
from pathlib import Path

import kevra
import numpy as np
from kevra import _diagnostics, _rocm

from campaigns.calls import Call, Memory

# Results of one call made twice, in units of the largest value: frames are added by atomics, in any order, and a phase
# that an iteration takes from a small bin hands on what that changes.
TOLERANCE = {np.dtype(np.float32): 1e-4, np.dtype(np.float64): 1e-9, np.dtype(np.complex64): 1e-4,
             np.dtype(np.complex128): 1e-9}
ROUNDS_OF_PHASES = 1e-2
NEVER = 2**63  # no function is called so often: it is counted and does not fail
BYTES_PAST = 4096  # room on either side of memory that a call writes, to see that it stays inside


class DeviceFailure(Exception):
    """A HIP call of the campaign's own failed: a kernel went wrong, or was told to."""


class Device:
    """HIP calls beside the module's; touches no device before the first one."""

    def __init__(self, index: int = 0):
        self.index = index
        self.hip = ctypes.CDLL(kevra.cpu_device_path())
        self.rtc = ctypes.CDLL(str(Path(kevra.cpu_device_path()).with_name("libhiprtc.so")))
        for library in self.hip, self.rtc:
            library.kevra_fail_calls.restype = ctypes.c_uint64

    def names(self) -> list[str]:
        """The functions that the module binds, from the texts that it holds."""
        texts = {text.decode() for text in re.findall(rb"hip(?:rtc)?[A-Z]\w+", Path(_rocm.__file__).read_bytes())}
        return sorted(text for text in texts if hasattr(self.library_of(text), text))

    def library_of(self, name: str):
        return self.rtc if name.startswith("hiprtc") else self.hip

    def words_of(self, name: str, code: int) -> str:
        function = self.rtc.hiprtcGetErrorString if name.startswith("hiprtc") else self.hip.hipGetErrorString
        function.restype = ctypes.c_char_p
        return function(code).decode()

    def ask_failures(self, plan: str) -> None:
        for library in self.hip, self.rtc:
            library.kevra_fail(plan.encode())

    def counted(self, names: list[str]) -> dict[str, int]:
        return {name: self.library_of(name).kevra_fail_calls(name.encode()) for name in names}

    def call(self, name: str, *arguments) -> None:
        status = getattr(self.hip, name)(*arguments)
        if status != 0:
            raise DeviceFailure(f"{name} gave {status}, {self.words_of(name, status)}")

    def malloc(self, size: int) -> int:
        address = ctypes.c_void_p()
        self.call("hipSetDevice", self.index)
        try:
            self.call("hipMalloc", ctypes.byref(address), ctypes.c_size_t(size))
        except DeviceFailure:  # the pool may hold what is left
            kevra.drain_pool()
            self.call("hipMalloc", ctypes.byref(address), ctypes.c_size_t(size))
        return address.value or 0

    def free(self, address: int) -> None:
        self.call("hipFree", ctypes.c_void_p(address))

    def write(self, address: int, array: np.ndarray) -> None:
        self.call("hipMemcpyHtoD", ctypes.c_void_p(address), ctypes.c_void_p(array.ctypes.data),
                  ctypes.c_size_t(array.nbytes))

    def read(self, address: int, array: np.ndarray) -> np.ndarray:
        self.call("hipMemcpyDtoH", ctypes.c_void_p(array.ctypes.data), ctypes.c_void_p(address),
                  ctypes.c_size_t(array.nbytes))
        return array

    def stream(self) -> int:
        handle = ctypes.c_void_p()
        self.call("hipSetDevice", self.index)
        self.call("hipStreamCreateWithFlags", ctypes.byref(handle), ctypes.c_uint(1))
        return handle.value or 0

    def destroy_stream(self, stream: int) -> None:
        self.call("hipStreamDestroy", ctypes.c_void_p(stream))

    def synchronize(self, stream: int | None = None) -> None:
        if stream is None:
            self.call("hipSetDevice", self.index)
            self.call("hipDeviceSynchronize")
        else:
            self.call("hipStreamSynchronize", ctypes.c_void_p(stream))


class Prepared:
    """A call with memory of its own. `room` bytes stand on either side of what is written, filled and watched; `least`
    is how many bytes every address has at the least."""

    def __init__(self, call: Call, device: Device, room: int = BYTES_PAST, least: int = 0):
        self.call, self.device, self.room = call, device, room
        self.contents, self.addresses = {}, {}
        for name, value in call.arguments.items():
            if isinstance(value, Memory):
                held = value.array.tobytes()
                held += held * ((least - len(held)) // max(len(held), 1) + 1) if len(held) < least else b""
                guard = b"\x5a" * room
                self.contents[name] = np.frombuffer(guard + held + guard, np.uint8)
                self.addresses[name] = device.malloc(self.contents[name].nbytes)
        self.reset()

    def reset(self) -> None:
        for name, address in self.addresses.items():
            self.device.write(address, self.contents[name])

    def arguments(self) -> list:
        return [self.addresses[name] + self.room if name in self.addresses else value
                for name, value in self.call.arguments.items()]

    def make(self):
        return getattr(kevra, self.call.name)(*self.arguments())

    def held(self, name: str) -> np.ndarray:
        return self.device.read(self.addresses[name], np.empty_like(self.contents[name]))

    def results(self, value) -> list[np.ndarray]:
        """What the call returned and what it wrote, once its work is done. Nothing else may have changed."""
        self.device.synchronize()
        found = [np.array(value)] if isinstance(value, np.ndarray) else []
        for name, before in self.contents.items():
            memory, after = self.call.arguments[name], self.held(name)
            end = self.room + memory.array.nbytes
            if memory.written:
                found.append(after[self.room:end].view(memory.array.dtype).reshape(memory.array.shape))
                inside = after[:self.room], after[end:]
                kept = before[:self.room], before[end:]
            else:
                inside, kept = [after], [before]
            if any(not np.array_equal(a, b) for a, b in zip(inside, kept)):
                raise AssertionError(f"{self.call.name} wrote beside what {name} points to")
        return found

    def untouched(self) -> bool:
        return all(np.array_equal(self.held(name), before) for name, before in self.contents.items())

    def free(self) -> None:
        for address in self.addresses.values():
            self.device.free(address)


def outcome(call: Call, device: Device) -> list[np.ndarray]:
    """Makes the call and gives its results, checked against what the table says of them."""
    prepared = Prepared(call, device)
    try:
        value = prepared.make()
        wrong = misfit(call, value)
        if wrong:
            raise AssertionError(wrong)
        return prepared.results(value)
    finally:
        prepared.free()


def misfit(call: Call, value) -> str:
    """What of a returned value is not as the table says; empty where all is."""
    if call.staged:
        right = isinstance(value, np.ndarray) and value.shape == call.gives
    elif isinstance(call.gives, type):
        right = isinstance(value, call.gives)
    else:
        right = value == call.gives
    told = value.shape if isinstance(value, np.ndarray) else value
    return "" if right else f"{call.name} gave {told}, not {call.gives}"


def differ(call: Call, got: list[np.ndarray], want: list[np.ndarray]) -> str:
    """How two results of one call differ beyond rounding; empty where they do not."""
    for a, b in zip(got, want, strict=True):
        if a.shape != b.shape or a.dtype != b.dtype:
            return f"{call.name}: {a.dtype}{a.shape} and {b.dtype}{b.shape}"
        bound = ROUNDS_OF_PHASES if call.name.startswith("griffinlim") else TOLERANCE[a.dtype]
        with np.errstate(invalid="ignore"):
            off = abs(a - b).max(initial=0) / max(abs(b).max(initial=0), np.finfo(a.real.dtype).tiny)
        if not off <= bound:
            return f"{call.name}: off by {off:.2g} of the largest value"
    return ""


def pools() -> dict:
    """What the pools have handed out and hold: {"device": ..., "pinned": ...}."""
    return _diagnostics.read()["pools"]


def in_use() -> tuple:
    return tuple((pool["in_use_blocks"], pool["in_use_bytes"]) for pool in pools().values())
