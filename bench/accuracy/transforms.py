"""One length measured: its transforms run, held against a reference, the route read from the debug output."""

import os
import re
import tempfile
from dataclasses import dataclass

import harness
import kevra
import numpy as np
import scipy.fft
from accuracy import sizes

ROWS = 3  # odd: kernels that take rows by two have one left over
STORAGE = {"double": np.float64, "float": np.float32, "half": np.float16}
# The reference computes in twice the digits where that is quick: float in double, double in 80 bits on x86.
REFERENCE = {"double": np.longdouble, "float": np.float64, "half": np.float64}
HALF_CODE = 0

CHIRP, FOUR_STEP, PRIME, SMOOTH = "chirp", "four-step", "a prime above 13", "primes to 13"
ROUTES = [CHIRP, FOUR_STEP, PRIME, SMOOTH]


@dataclass(frozen=True)
class Transform:
    precision: str
    real: bool
    inverse: bool

    def __str__(self):
        return f"{self.precision} {'inverse ' * self.inverse}{'real' if self.real else 'complex'}"


@dataclass
class Error:
    """What one transform of one length came to. In half storage only what lies beyond one rounding counts."""

    transform: Transform
    n: int
    route: str  # one of ROUTES
    l2: float  # of all rows, relative; NaN after a failure
    element: float  # the largest of an element, over the root mean square of all
    failure: str = ""


def transforms(kinds: list[str]) -> list[Transform]:
    return [
        Transform(precision, kind == "real", inverse)
        for precision in STORAGE
        for kind in kinds
        for inverse in (False, True)
    ]


def start_process(gpu: bool) -> None:
    """The debug output of this process goes to a file from which the launches are read."""
    global debug_output
    os.environ["KEVRA_DEBUG"] = "1"
    debug_output = tempfile.TemporaryFile("w+")  # noqa: SIM115
    os.dup2(debug_output.fileno(), 2)
    if not gpu:
        kevra.use_cpu_device()


def launched_kernels() -> list[str]:
    """The keys of the kernels launched since the last call."""
    debug_output.seek(0)
    keys = re.findall(r"^kevra: launch \w+ \((\w+)\)", debug_output.read(), re.MULTILINE)
    debug_output.seek(0)
    debug_output.truncate()
    return keys


def route_of(n: int, keys: list[str]) -> str:
    if any(re.match(r"cr?blue_|cgb", key) for key in keys):
        return CHIRP
    if any(re.match(r"cfs|cfr|crsplit|crpack", key) for key in keys):
        return FOUR_STEP
    return SMOOTH if sizes.has_small_factors(n) else PRIME


def measure(n: int, kinds: list[str], seed: int) -> list[Error]:
    return [measure_one(transform, n, seed) for transform in transforms(kinds)]


def measure_one(transform: Transform, n: int, seed: int) -> Error:
    x = make_input(transform, n, seed)
    try:
        result = in_half(transform, x, n) if transform.precision == "half" else staged(transform, x, n)
    except Exception as failure:  # the sweep goes on, and its figure is missed
        nan = float("nan")
        return Error(transform, n, route_of(n, launched_kernels()), nan, nan, f"{type(failure).__name__}: {failure}")
    exact = reference(transform, x, n)
    error = np.abs(parts_of(result) - parts_of(exact))
    if transform.precision == "half":
        size = np.maximum(np.abs(parts_of(result)), np.abs(parts_of(exact))).astype(np.float16)
        error = np.maximum(error - np.spacing(size).astype(np.float64) / 2, 0)
    if result.dtype.kind == "c":
        error = np.hypot(error[..., 0::2], error[..., 1::2])
    norm = root_mean_square(np.abs(exact))
    errors = float(root_mean_square(error) / norm), float(error.max() / norm)
    return Error(transform, n, route_of(n, launched_kernels()), *errors)


def make_input(transform: Transform, n: int, seed: int) -> np.ndarray:
    """Normal noise in the precision's storage, widened so that numpy can compute with it."""
    random = np.random.default_rng([seed, n])
    columns = n if not transform.real else n // 2 + 1 if transform.inverse else n
    shape = (ROWS, columns) if transform.real and not transform.inverse else (ROWS, 2 * columns)
    noise = random.standard_normal(shape)
    if transform.real and transform.inverse:
        noise[:, 1] = 0  # bins that are real in the spectrum of every real row
        if n % 2 == 0:
            noise[:, -1] = 0
    stored = noise.astype(STORAGE[transform.precision])
    wide = stored.astype(np.float32) if transform.precision == "half" else stored
    return wide if shape[1] == columns else wide.view(np.result_type(wide.dtype, np.complex64))


def reference(transform: Transform, x: np.ndarray, n: int) -> np.ndarray:
    wide = x.astype(np.result_type(REFERENCE[transform.precision], x.dtype))
    if transform.real:
        return scipy.fft.irfft(wide, n) if transform.inverse else scipy.fft.rfft(wide)
    return scipy.fft.ifft(wide) if transform.inverse else scipy.fft.fft(wide)


def staged(transform: Transform, x: np.ndarray, n: int) -> np.ndarray:
    if transform.real:
        return kevra.irfft_staged(x, n) if transform.inverse else kevra.rfft_staged(x)
    return kevra.fft_staged(x, transform.inverse)


def in_half(transform: Transform, x: np.ndarray, n: int) -> np.ndarray:
    """By the resident function, whose result is widened."""
    stored = parts_of(x).astype(np.float16)
    complex_result = not (transform.real and transform.inverse)
    columns = 2 * (n // 2 + 1 if transform.real else n) if complex_result else n
    result = np.empty((ROWS, columns), np.float16)
    hip = harness.Hip()
    dx, out = hip.upload(stored), hip.malloc(result.nbytes)
    try:
        if transform.real:
            function = kevra.irfft_resident if transform.inverse else kevra.rfft_resident
            function(dx, out, ROWS, n, HALF_CODE, 0, 0)
        else:
            kevra.fft_resident(dx, out, ROWS, n, transform.inverse, HALF_CODE, 0, 0)
        hip.synchronize()
        hip.download(result, out)
    finally:
        hip.free(dx, out)
    wide = result.astype(np.float64)
    return wide.view(np.complex128) if complex_result else wide


def parts_of(values: np.ndarray) -> np.ndarray:
    return np.ascontiguousarray(values).view(values.real.dtype)


def root_mean_square(values: np.ndarray) -> np.floating:
    return np.sqrt(np.mean(np.square(values)))
