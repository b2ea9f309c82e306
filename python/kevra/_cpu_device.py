"""Choosing the CPU device, the stand-in for the HIP runtime that comes with the package."""

import os
from pathlib import Path

from . import _diagnostics

_FOLDER = Path(__file__).parent / "hip_cpu"
_TOO_LATE = "call use_cpu_device() before anything else of kevra, in a new process"


def cpu_device_path() -> str:
    """The CPU device's HIP library, a value for ``KEVRA_HIP_PATH``."""
    return str(_FOLDER / "libamdhip64.so")


def use_cpu_device() -> None:
    """Run everything on the CPU device from here on; to be called before the first use of a device.

    Sets ``KEVRA_HIP_PATH`` in this process and its children, and takes out ``KEVRA_HIPRTC_PATH``: the code objects
    of another compiler would not load. Calling it again does nothing.

    Raises RuntimeError when it comes too late: another HIP runtime or hipRTC is in the process, or ``available()``
    has already answered no, an answer that holds for the life of the process.
    """
    if not os.path.isfile(cpu_device_path()):
        raise RuntimeError(f"use_cpu_device: {cpu_device_path()} is missing; install kevra again")
    state = _diagnostics.read()
    _refuse_other("HIP runtime", "libamdhip64.so", state["library"])
    _refuse_other("hipRTC", "libhiprtc.so", state["hiprtc"])
    if state["available"] == 0:
        raise RuntimeError(
            "use_cpu_device: available() has already answered False, and that answer holds for the life of the "
            f"process; {_TOO_LATE}"
        )
    os.environ["KEVRA_HIP_PATH"] = cpu_device_path()
    os.environ.pop("KEVRA_HIPRTC_PATH", None)


def _refuse_other(role: str, name: str, bound: str | None) -> None:
    """Refuses a library that is bound, or that anybody has loaded and that would be bound for being there."""
    for path in {bound, *_loaded_libraries(name)} - {None}:
        if not _same_file(path, _FOLDER / name):
            raise RuntimeError(
                f"use_cpu_device: this process already holds another {role}, {path}, and keeps it; {_TOO_LATE}"
            )


def _loaded_libraries(name: str) -> set[str]:
    with open("/proc/self/maps", encoding="utf-8", errors="surrogateescape") as maps:
        paths = {line.rstrip("\n").split(maxsplit=5)[5] for line in maps if f"/{name}" in line}
    return {path for path in paths if os.path.basename(path).startswith(name)}


def _same_file(one: str, other: Path) -> bool:
    try:
        return os.path.samefile(one, other)
    except OSError:
        return False
