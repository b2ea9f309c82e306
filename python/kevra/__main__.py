"""``python -m kevra``: what this installation can see and use."""

import argparse
import ctypes
import platform
import sys
from pathlib import Path

import numpy

import kevra
from kevra import _diagnostics

MAX_SHARED_MEMORY_PER_BLOCK = 74  # hipDeviceGetAttribute's number for it

NO_DEVICE = """\
No device: kevra finds no AMD GPU that it can use.
  With an AMD GPU: install ROCm, or set KEVRA_HIP_PATH to the file libamdhip64.so of the ROCm that you have.
  Without one: call kevra.use_cpu_device() first thing in your program; the kernels then run on the processor.
  With an NVIDIA GPU: call kevra.use_cuda_device() first thing in your program.
  `python -m kevra --use-cpu-device` and `--use-cuda-device` show this report for those two."""


def main(arguments=None) -> int:
    parser = argparse.ArgumentParser(prog="python -m kevra", description="What this installation can see and use.")
    choice = parser.add_mutually_exclusive_group()
    choice.add_argument("--cpu-device", action="store_true", help="print the path of the CPU device's library only")
    choice.add_argument("--use-cpu-device", action="store_true", help="report on the CPU device")
    choice.add_argument("--cuda-device", action="store_true", help="print the path of the CUDA device's library only")
    choice.add_argument("--use-cuda-device", action="store_true", help="report on the CUDA device")
    options = parser.parse_args(arguments)
    if options.cpu_device or options.cuda_device:
        print(kevra.cpu_device_path() if options.cpu_device else kevra.cuda_device_path())
        return 0
    try:
        if options.use_cpu_device:
            kevra.use_cpu_device()
        if options.use_cuda_device:
            kevra.use_cuda_device()
    except RuntimeError as error:
        parser.exit(1, f"{error}\n")
    print("\n".join(report()))
    return 0


def report() -> list[str]:
    found = kevra.available()
    # The compiler is looked for in the folder of the bound library, so that one must be bound by now.
    compiler = kevra.hiprtc_version()
    state = _diagnostics.read()
    lines = [
        f"kevra {kevra.__version__} (interface {kevra.abi_version()}), "
        f"Python {platform.python_version()}, numpy {numpy.__version__}",
        "",
        entry("HIP runtime", state["library"] or "none"),
        *(entry("", describe_step(step)) for step in state["search"]),
        entry("hipRTC", f"{compiler[0]}.{compiler[1]}, {state['hiprtc']}" if state["hiprtc"] else "none"),
    ]
    if state["library"] and not found:
        lines.append(entry("device", f"none: {describe_failure(state['library'])}"))
    devices = range(kevra.device_count() if found else 0)
    lines += [entry(f"device {number}", describe_device(number, state["library"])) for number in devices]
    lines.append(entry("kernel cache", describe_cache(Path(state["cache"]))))
    return lines if found else lines + ["", NO_DEVICE]


def entry(name: str, value: str) -> str:
    return f"{name:<14}{value}"


def describe_step(step: dict) -> str:
    """A candidate and its outcome; the loader's own message repeats the file's name, which is left out."""
    file = step["candidate"].rsplit(" (", 1)[0]
    return f"{step['candidate']}: {step['outcome'].removeprefix(file + ': ')}"


def describe_failure(library: str) -> str:
    """The HIP library's own words."""
    hip = ctypes.CDLL(library)
    hip.hipGetErrorString.restype = ctypes.c_char_p
    status = hip.hipInit(0) or hip.hipGetDeviceCount(ctypes.byref(ctypes.c_int(0)))
    return (hip.hipGetErrorString(status) or b"unknown error").decode(errors="replace")


def describe_device(number: int, library: str) -> str:
    text = f"{kevra.device_name(number)}, {kevra.device_arch(number)}"
    shared = ctypes.c_int(0)
    failed = ctypes.CDLL(library).hipDeviceGetAttribute(ctypes.byref(shared), MAX_SHARED_MEMORY_PER_BLOCK, number)
    return text if failed else f"{text}, {shared.value // 1024} KiB of shared memory per block"


def describe_cache(folder: Path) -> str:
    sizes = [file.stat().st_size for file in folder.glob("*.hsaco")]
    total = sum(sizes)
    amount = f"{total / 1e6:.1f} MB" if total >= 1e6 else f"{total / 1e3:.0f} kB"
    return f"{folder}, {len(sizes)} code object{'' if len(sizes) == 1 else 's'}, {amount}"


if __name__ == "__main__":
    sys.exit(main())
