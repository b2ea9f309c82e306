"""What the benchmarks share: options, the device, child processes, and figures against their bars."""

import argparse
import ctypes
import json
import math
import os
import platform
import statistics
import subprocess
import sys
import tempfile
import time
from contextlib import contextmanager
from dataclasses import asdict, dataclass
from itertools import repeat
from pathlib import Path

import kevra
from kevra import _diagnostics
from kevra._progress import progress

HERE = Path(__file__).parent


@dataclass
class Figure:
    """One measured value and the most that it may be, or with at_least the least."""

    name: str
    value: float
    unit: str
    bar: float
    at_least: bool = False

    @property
    def passed(self) -> bool:
        return self.value >= self.bar if self.at_least else self.value <= self.bar  # false for a NaN too

    @property
    def told(self) -> str:
        bar = f"{'at least' if self.at_least else 'bar'} {self.bar:g} {self.unit}".rstrip()
        return f"{f'{self.value:.3g} {self.unit}'.rstrip()}, {bar}: {'pass' if self.passed else 'MISSED'}"


def options(description: str, more: dict[str, dict] | None = None, **counts: int) -> argparse.Namespace:
    """The command line: --json, --gpu, one option a count, its default given, and those of `more`, as argparse has
    them."""
    parser = parser_of(description, more or {}, counts)
    parser.add_argument("--json", metavar="FILE", help="write the figures to a file too")
    parser.add_argument("--gpu", action="store_true", help="measure the GPU that HIP finds, not the CPU device")
    chosen = parser.parse_args()
    if not chosen.gpu:
        kevra.use_cpu_device()
    return chosen


def parser_of(description: str, more: dict[str, dict], counts: dict[str, int]) -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(prog=f"bench/run {Path(sys.argv[0]).stem}", description=description)
    for name, default in counts.items():
        parser.add_argument(f"--{name}", type=positive, default=default, metavar="N", help=f"default: {default}")
    for name, keywords in more.items():
        parser.add_argument(f"--{name}", **keywords)
    return parser


def cpu_device_only(chosen: argparse.Namespace, reason: str) -> None:
    if chosen.gpu:
        raise SystemExit(f"{reason}; leave out --gpu.")


def positive(text: str) -> int:
    value = int(text)
    if value < 1:
        raise argparse.ArgumentTypeError(f"{value} is too small, must be at least 1")
    return value


def report(chosen: argparse.Namespace, measured: str, figures: list[Figure], notes: dict[str, str] | None = None) -> int:
    """Prints the figures and returns the exit status: 0 when every one is within its bar."""
    lines = {"machine": machine(), "device": device(), "measured": measured, **(notes or {})}
    width = max(len(name) for name in [*lines, *(figure.name for figure in figures)])
    for name, text in lines.items():
        print(f"{name:<{width}}  {text}")
    for figure in figures:
        print(f"{figure.name:<{width}}  {figure.told}")
    if chosen.json:
        record = {**lines, "figures": [{**asdict(figure), "passed": figure.passed} for figure in figures]}
        Path(chosen.json).write_text(json.dumps(record, indent=2) + "\n")
    return 0 if all(figure.passed for figure in figures) else 1


def worst(name: str, measured: list, error: str, unit: str, bar: float, notes: dict) -> list[Figure]:
    """The largest of an error over what has `errors` and a `setting`, and where it is; nothing where none has it."""
    own = [m for m in measured if error in m.errors]
    if not own:
        return []
    most = max(own, key=lambda m: (math.isnan(m.errors[error]), m.errors[error]))
    notes[f"{name}: worst at"] = str(most.setting)
    return [Figure(name, most.errors[error], unit, bar)]


def machine() -> str:
    return f"{processor()}, {os.cpu_count()} processors, load {os.getloadavg()[0]:.1f}"


def processor() -> str:
    with open("/proc/cpuinfo", encoding="utf-8") as info:
        names = [line.split(":", 1)[1].strip() for line in info if line.startswith("model name")]
    return names[0] if names else platform.machine()


def device() -> str:
    if not kevra.available():
        raise SystemExit("No device: `python -m kevra` tells what was looked for; leave out --gpu for the CPU device.")
    return f"{kevra.device_name()} ({kevra.device_arch()})"


@contextmanager
def cache_folder():
    """An empty code-object cache, for this process as long as it has compiled nothing, and for its children."""
    with tempfile.TemporaryDirectory(prefix="kevra-bench-") as folder:
        os.environ["KEVRA_CACHE_DIR"] = folder
        yield Path(folder) / "kernels"


def run_children(script: str, count: int) -> list[dict]:
    """Runs one of this folder's scripts in fresh processes, let go at the same instant once all have told that they
    are ready; returns what each says, or {"error": ...} of one that failed."""
    command = [sys.executable, str(HERE / script)]
    pipe = subprocess.PIPE
    children = [subprocess.Popen(command, stdin=pipe, stdout=pipe, stderr=pipe, text=True) for _ in range(count)]
    for child in children:
        child.stdout.readline()
    for child in children:
        child.stdin.close()
        child.stdin = None
    return [child_answer(child) for child in children]


def child_answer(child: subprocess.Popen) -> dict:
    try:
        output, errors = child.communicate(timeout=120)
    except subprocess.TimeoutExpired:
        child.kill()
        child.communicate()
        return {"error": "no answer within 120 s"}
    return json.loads(output) if child.returncode == 0 else {"error": f"exit status {child.returncode}\n{errors}"}


CALLS = 200  # per timing of the host's cost, so that reading the clock does not count


def report_host_cost(chosen: argparse.Namespace, name: str, arguments: tuple, bar: float) -> int:
    """Reports what the host spends in a warm call of kevra's function, see host_cost."""
    with cache_folder():
        cost, notes = host_cost(chosen.rounds, name, arguments)
    measured = f"{chosen.rounds} rounds of {CALLS} calls each, alternating, same arguments"
    return report(chosen, measured, [Figure("host cost", cost, "us", bar)], notes)


def host_cost(rounds: int, name: str, arguments: tuple) -> tuple[float, dict[str, str]]:
    """Microseconds that the host spends in a warm call of kevra's function on top of an empty binding of the same name
    and arguments, and notes on both. KEVRA_CPU_NULL has to be set already: the launches do nothing."""
    sys.path.insert(0, str(Path(kevra._rocm.__file__).parents[2] / "bench"))
    import _empty_binding

    def seconds(function) -> float:
        started = time.perf_counter()
        for _ in repeat(None, CALLS):
            function(*arguments)
        return time.perf_counter() - started

    hip = Hip()
    warm, empty = [], []
    seconds(getattr(kevra, name))  # compiles, fills the memos
    for _ in progress(range(rounds), "rounds"):
        empty.append(seconds(getattr(_empty_binding, name)))
        warm.append(seconds(getattr(kevra, name)))
        hip.synchronize()
    differences = [(w - e) / CALLS * 1e6 for w, e in zip(warm, empty)]
    notes = {
        "empty call": f"{statistics.median(empty) / CALLS * 1e6:.3f} us median",
        name: f"{statistics.median(warm) / CALLS * 1e6:.3f} us median",
        "least": f"{(min(warm) - min(empty)) / CALLS * 1e6:.3f} us on top",
    }
    return statistics.median(differences), notes


class Hip:
    """The bound HIP library through ctypes: device memory and events, for measuring beside the module."""

    def __init__(self):
        kevra.available()
        self.library = ctypes.CDLL(_diagnostics.read()["library"])

    def call(self, name: str, *arguments) -> None:
        status = getattr(self.library, name)(*arguments)
        if status != 0:
            raise RuntimeError(f"{name} failed with error {status}")

    def malloc(self, size: int) -> int:
        address = ctypes.c_void_p()
        self.call("hipMalloc", ctypes.byref(address), ctypes.c_size_t(size))
        return address.value or 0

    def upload(self, array) -> int:
        """New device memory with the array's bytes."""
        address = self.malloc(array.nbytes)
        host, size = ctypes.c_void_p(array.ctypes.data), ctypes.c_size_t(array.nbytes)
        self.call("hipMemcpyHtoD", ctypes.c_void_p(address), host, size)
        return address

    def download(self, array, address: int) -> None:
        host, size = ctypes.c_void_p(array.ctypes.data), ctypes.c_size_t(array.nbytes)
        self.call("hipMemcpyDtoH", host, ctypes.c_void_p(address), size)

    def free(self, *addresses: int) -> None:
        for address in addresses:
            self.call("hipFree", ctypes.c_void_p(address))

    def event(self) -> ctypes.c_void_p:
        event = ctypes.c_void_p()
        self.call("hipEventCreate", ctypes.byref(event))
        return event

    def record(self, event: ctypes.c_void_p) -> None:
        self.call("hipEventRecord", event, None)

    def synchronize(self) -> None:
        self.call("hipDeviceSynchronize")

    def microseconds(self, start: ctypes.c_void_p, stop: ctypes.c_void_p) -> float:
        elapsed = ctypes.c_float()
        self.call("hipEventElapsedTime", ctypes.byref(elapsed), start, stop)
        return elapsed.value * 1e3
