"""Linear filters and convolution among the cases: what is filtered, the exact result, how each contender is called."""

from __future__ import annotations

from typing import TYPE_CHECKING

import harness
import kevra
import numpy as np
import scipy.fft
import scipy.signal

if TYPE_CHECKING:
    from peers.cases import Case

OPERATIONS = ["lfilter", "convolve"]
SIGNALS = {  # (rows, samples)
    "lfilter": [(1, 65536), (64, 16000), (1, 1 << 22)],
    "convolve": [(1, 480000), (16, 48000)],  # ten seconds and sixteen of one, at 48 kHz
}
# Low-passes whose poles lie so far inside that scipy's recursion in float keeps its digits.
ORDERS = {1: 0.25, 2: 0.25, 8: 0.5}  # cut over half the rate
TAPS = [64, 1024, 65536]
MOST_DIRECT_TAPS = 64  # more are nobody's direct sum
FIGURE_FILTER = {"batch": 64, "n": 16000}
FIGURE_TAPS = 1024
BOUND = {"float": 1e-5, "double": 1e-12}  # relative L2


def sizes(operation: str, signals: list[tuple[int, int]]) -> list[dict]:
    """The fields of a case for every signal, given as rows and samples."""
    name, values = ("order", ORDERS) if operation == "lfilter" else ("taps", TAPS)
    return [{"n": n, "batch": batch, name: value} for batch, n in signals for value in values]


def output_length(case: Case) -> int:
    return case.n + case.taps - 1 if case.operation == "convolve" else case.n


def coefficients(case: Case) -> tuple[np.ndarray, np.ndarray]:
    """b, and a with its leading 1."""
    b, a = scipy.signal.butter(case.order, ORDERS[case.order])
    return b.astype(case.real), a.astype(case.real)


def impulse_response(case: Case) -> np.ndarray:
    """Noise that decays, as of a room; (1, taps)."""
    random = np.random.default_rng(case.taps)
    decay = np.exp(-5 * np.arange(case.taps) / case.taps)
    return (random.standard_normal((1, case.taps)) * decay).astype(case.real)


def transform_length(case: Case) -> int:
    return scipy.fft.next_fast_len(output_length(case), real=True)


def exact(case: Case, x: np.ndarray) -> np.ndarray:
    x = x.astype(np.float64)
    if case.operation == "lfilter":
        b, a = (part.astype(np.float64) for part in coefficients(case))
        return scipy.signal.lfilter(b, a, x)
    return scipy.signal.oaconvolve(x, impulse_response(case).astype(np.float64), axes=1)


def resident_call(case: Case, hip: harness.Hip, x: int, out: int, precision: int) -> tuple[str, tuple, list[int]]:
    """kevra's function, its arguments, and memory to free behind it."""
    if case.operation == "lfilter":
        cf = packed(case, hip, precision)
        return "lfilter_resident", (x, out, cf, case.batch, case.n, case.order, case.order + 1, precision), [cf]
    taps = hip.upload(impulse_response(case))
    window = (transform_length(case), 0, output_length(case))
    return "conv_fft_resident", (x, taps, out, case.batch, 1, case.n, case.taps, *window, precision), [taps]


def packed(case: Case, hip: harness.Hip, precision: int) -> int:
    """The coefficient block on the device."""
    b, a = coefficients(case)
    there = hip.upload(b), hip.upload(a[1:])
    cf = hip.malloc(block_size(case) * case.real.itemsize)
    kevra.lfilter_pack_resident(*there, cf, case.order, case.order + 1, precision)
    hip.synchronize()
    hip.free(*there)
    return cf


def block_size(case: Case) -> int:
    return 2 * case.order + 1 + 8 * case.order**2


def staged_call(case: Case, x: np.ndarray):
    if case.operation == "convolve":
        taps, window = impulse_response(case), (transform_length(case), 0, output_length(case))
        return lambda: kevra.conv_fft_staged(x, taps, *window)
    hip = harness.Hip()
    there = packed(case, hip, 2 if case.precision == "double" else 1)
    cf = np.empty(block_size(case), case.real)
    hip.download(cf, there)
    hip.free(there)
    return lambda: kevra.lfilter_staged(x, cf, case.order, case.order + 1)


def signal_calls(signal, arrays, case: Case, x) -> dict:
    """What a module with the functions of scipy.signal offers on the arrays of a module like numpy."""
    if case.operation == "lfilter":
        b, a = (arrays.asarray(part) for part in coefficients(case))
        return {"lfilter": lambda: signal.lfilter(b, a, x)}
    taps = arrays.asarray(impulse_response(case))
    return {
        "fftconvolve": lambda: signal.fftconvolve(x, taps, axes=1),
        "oaconvolve": lambda: signal.oaconvolve(x, taps, axes=1),
    }


def torchaudio_call(torchaudio, torch, case: Case, x):
    """`x` is a tensor; the coefficients lie beside it."""
    if case.operation == "lfilter":
        b, a = (torch.from_numpy(part).to(x.device) for part in coefficients(case))
        return lambda: torchaudio.functional.lfilter(x, a, b, clamp=False)
    taps = torch.from_numpy(impulse_response(case)).to(x.device)
    return lambda: torchaudio.functional.fftconvolve(x, taps)


def direct_call(case: Case, x: np.ndarray):
    taps = impulse_response(case)
    return lambda: kevra.conv_direct_staged(x, taps, 0, output_length(case))


def is_convolution_of_the_figure(result: dict) -> bool:
    return (result["batch"], result["n"]) in SIGNALS["convolve"] and result["taps"] == FIGURE_TAPS


def figures(results: list[dict]) -> list[harness.Figure]:
    """Staged against scipy, arrays in and arrays out; nothing for what was not timed."""
    found = []
    for result in results:
        speeds = result.get("speed_against", {}).get("kevra staged", {})
        signal = f"{result['batch']} x {result['n']} {result['precision']}, staged, speed over"
        if result["operation"] == "lfilter" and speeds and FIGURE_FILTER.items() <= result.items():
            name = f"lfilter of order {result['order']}, {signal} scipy"
            found.append(harness.Figure(name, speeds["scipy lfilter"], "", 1.0, at_least=True))
        if result["operation"] == "convolve" and speeds and is_convolution_of_the_figure(result):
            name = f"convolution with {FIGURE_TAPS} taps, {signal} oaconvolve"
            found.append(harness.Figure(name, speeds["scipy oaconvolve"], "", 0.5, at_least=True))
    return found
