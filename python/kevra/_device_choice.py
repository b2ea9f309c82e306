"""Choosing one of the devices that come with the package: stand-ins for the HIP runtime and hipRTC."""

import ctypes
import os
from pathlib import Path

from . import _diagnostics

_PACKAGE = Path(__file__).parent


def cpu_device_path() -> str:
    """The CPU device's HIP library, a value for ``KEVRA_HIP_PATH``."""
    return _library("hip_cpu", "libamdhip64.so")


def cuda_device_path() -> str:
    """The CUDA device's HIP library, a value for ``KEVRA_HIP_PATH``."""
    return _library("hip_cuda", "libamdhip64.so")


def use_cpu_device() -> None:
    """Run everything on the CPU device from here on; to be called before the first use of a device.

    Sets ``KEVRA_HIP_PATH`` in this process and its children, and takes out ``KEVRA_HIPRTC_PATH``: the code objects
    of another compiler would not load. Calling it again does nothing.

    Raises RuntimeError when it comes too late: another HIP runtime or hipRTC is in the process, or ``available()``
    has already answered no, an answer that holds for the life of the process.
    """
    _use("use_cpu_device", "hip_cpu")


def use_cuda_device() -> None:
    """Run everything on an NVIDIA GPU from here on; to be called before the first use of a device.

    Works on the primary contexts, so addresses and streams of other libraries in the process can be handed over.
    Sets and takes out what ``use_cpu_device()`` does, and raises RuntimeError as that does; also when the machine has
    no CUDA driver. With a driver that finds no GPU ``available()`` answers False, and ``python -m kevra
    --use-cuda-device`` tells why.
    """
    try:
        ctypes.CDLL("libcuda.so.1")  # opened and not started: processes forked from this one may still start it
    except OSError as error:
        raise RuntimeError(
            f"use_cuda_device: this machine has no CUDA driver ({error}); install NVIDIA's driver, or call "
            "use_cpu_device() to run on the processor"
        ) from None
    _use("use_cuda_device", "hip_cuda")


def _use(function: str, folder: str) -> None:
    runtime, compiler = (_library(folder, name) for name in ("libamdhip64.so", "libhiprtc.so"))
    if not os.path.isfile(runtime):
        raise RuntimeError(f"{function}: {runtime} is missing; install kevra again")
    too_late = f"call {function}() before anything else of kevra, in a new process"
    state = _diagnostics.read()
    for role, ours, bound in ("HIP runtime", runtime, state["library"]), ("hipRTC", compiler, state["hiprtc"]):
        # One that anybody has loaded would be bound for being there.
        for path in {bound, *_loaded_libraries(os.path.basename(ours))} - {None}:
            if not _same_file(path, ours):
                raise RuntimeError(
                    f"{function}: this process already holds another {role}, {path}, and keeps it; {too_late}"
                )
    if state["available"] == 0:
        raise RuntimeError(
            f"{function}: available() has already answered False, and that answer holds for the life of the process; "
            f"{too_late}"
        )
    os.environ["KEVRA_HIP_PATH"] = runtime
    os.environ.pop("KEVRA_HIPRTC_PATH", None)


def _library(folder: str, name: str) -> str:
    return str(_PACKAGE / folder / name)


def _loaded_libraries(name: str) -> set[str]:
    with open("/proc/self/maps", encoding="utf-8", errors="surrogateescape") as maps:
        paths = {line.rstrip("\n").split(maxsplit=5)[5] for line in maps if f"/{name}" in line}
    return {path for path in paths if os.path.basename(path).startswith(name)}


def _same_file(one: str, other: str) -> bool:
    try:
        return os.path.samefile(one, other)
    except OSError:
        return False
