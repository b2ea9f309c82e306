"""One setting measured: STFT, bands and the way back in every precision, held against numpy's own transforms."""

import hashlib
import os
import re
from dataclasses import dataclass, field

import harness
import kevra
import numpy as np
from accuracy import transforms
from accuracy.settings import Setting
from accuracy.transforms import REFERENCE, STORAGE

EPS = 1e-10  # under the logarithm
CODES = {"half": 0, "float": 1, "double": 2}
BITS = {"half": 16, "float": 32, "double": 64}
CORES = {"0": "cooley_tukey", "1": "warp", "2": "mixed", "3": "ept16"}  # as the keys of the kernels number them
STAGED = "staged"
CORE_FIELD = 11  # of a key's numbers
FLOOR = -80.0  # dB; eps alone is -100
LARGEST_HALF = 65504.0
COSINES = {
    "hann": ["0.5", "0.5"],
    "hamming": ["0.54", "0.46"],
    "blackman": ["0.42", "0.5", "0.08"],
    "blackmanharris": ["0.35875", "0.48829", "0.14128", "0.01168"],
    "nuttall": ["0.3635819", "0.4891775", "0.1365995", "0.0106411"],
    "boxcar": ["1"],
}


@dataclass
class Spectrum:
    """What one call came to. `errors` by the name of what is measured; after a failure there are none."""

    setting: Setting
    precision: str
    operation: str  # stft, mel or istft
    core: str
    errors: dict[str, float] = field(default_factory=dict)
    failure: str = ""

    def __str__(self) -> str:
        return f"{self.operation} {self.precision}, {self.core}, {self.setting}"


def measure(setting: Setting, seed: int) -> list[Spectrum]:
    """Every precision; the way back where the complex form is this setting's."""
    measured = []
    for precision in STORAGE:
        operations = ["stft", "mel"]
        if setting.output == "complex" and precision != "half":
            operations.append("istft")
        for operation in operations:
            measured.append(measure_one(setting, precision, operation, seed))
    return measured


def measure_one(setting: Setting, precision: str, operation: str, seed: int) -> Spectrum:
    random = np.random.default_rng([seed, setting.number, CODES[precision]])
    result = Spectrum(setting, precision, operation, "")
    transforms.launched_kernels()
    try:
        if operation == "istft":
            result.errors = {"interior": round_trip(setting, precision, random)}
        else:
            result.errors = compare(setting, precision, operation, random)
    except Exception as failure:  # the others go on, and a figure is missed
        result.failure = f"{type(failure).__name__}: {failure}"
    finally:
        kevra.shape_hint_clear()
    result.core = core_of(transforms.launched_kernels())
    return result


def core_of(keys: list[str]) -> str:
    for key in keys:
        fused = re.match(r"raw_(?:stft|mel)_([\d_]+)", key)
        if fused:
            return CORES[fused[1].split("_")[CORE_FIELD]]
    return STAGED


def compare(setting: Setting, precision: str, operation: str, random) -> dict[str, float]:
    wide = REFERENCE[precision]
    window, weights = window_of(setting, random, wide)
    bank = bank_of(setting, random)
    output = setting.output if operation == "stft" else setting.band_output
    y = random.standard_normal((setting.batch, setting.length))
    if precision == "half":
        plain = reference(setting, operation, y, weights, bank, np.float64)
        y = loud(y, random, in_form(plain, "power" if output == "db" else output), growth(setting, operation, output))
    y = y.astype(STORAGE[precision])
    wanted = in_form(reference(setting, operation, y, weights, bank, wide), output)
    got = resident(setting, precision, operation, y, window, bank)
    if precision == "half":
        stored = y.astype(np.float32)
        in_float = resident(setting, "float", operation, stored, window, bank)
        # What float loses at a faint bin is told by the decibels of float; here counts what half adds.
        return half_errors(got, in_float, in_float if output == "db" else wanted)
    if output == "db":
        errors = decibel_errors(got, wanted)
        if precision == "float":
            numpys = in_form(reference(setting, operation, y, weights.astype(y.dtype), bank, y.dtype.type), output)
            errors["db numpy"] = decibel_errors(numpys, wanted)["db"]
        return errors
    return {"l2": float(norm(got - wanted) / norm(wanted))}


def norm(values: np.ndarray) -> np.floating:
    return np.sqrt(np.square(abs(values)).sum())


def reference(setting: Setting, operation: str, y: np.ndarray, weights, bank, wide) -> np.ndarray:
    """(batch, frames, bins) or the square roots of the bands: what in_form takes."""
    spectrum = np.fft.rfft(frames_of(y.astype(wide), setting) * weights)
    if operation == "stft":
        return spectrum
    return np.sqrt(abs(spectrum) ** setting.power @ bank.astype(wide).T)


def in_form(spectrum: np.ndarray, output: str) -> np.ndarray:
    if output == "complex":
        return spectrum
    power = spectrum.real**2 + spectrum.imag**2
    if output == "db":
        return 10 * np.log10(power + EPS)
    return np.sqrt(power) if output == "magnitude" else power


def frames_of(y: np.ndarray, setting: Setting) -> np.ndarray:
    if setting.center:
        y = np.pad(y, ((0, 0), (setting.n_fft // 2,) * 2), mode="reflect")
    return np.lib.stride_tricks.sliding_window_view(y, setting.n_fft, axis=1)[:, :: setting.hop]


def window_of(setting: Setting, random, wide) -> tuple[object, np.ndarray]:
    """The argument, and its values in the reference's precision."""
    n_fft = setting.n_fft
    if setting.window == "array":
        window = random.uniform(0.5, 1.5, n_fft)
        return window, window.astype(wide)
    i = np.arange(n_fft).astype(wide)
    if setting.window == "bartlett":
        return setting.window, 1 - abs(2 * i / n_fft - 1)
    turn = 8 * np.arctan(wide(1)) / n_fft
    terms = ((-1) ** m * wide(c) * np.cos(turn * m * i) for m, c in enumerate(COSINES[setting.window]))
    return setting.window, sum(terms)


def bank_of(setting: Setting, random) -> np.ndarray:
    """A mel bank, or bands anywhere and of any width."""
    bins = setting.n_fft // 2 + 1
    if setting.n_fft >= 256 and random.integers(2):
        return kevra.mel_filter_bank(16000, setting.n_fft, setting.bands)
    bank = np.zeros((setting.bands, bins))
    for row in bank:
        low, high = sorted(random.integers(0, bins + 1, 2))
        row[low:high] = random.uniform(0, 2 / max(high - low, 1), high - low)
    bank[0, bins // 2] = 0.5
    return bank


def growth(setting: Setting, operation: str, output: str) -> float:
    """The power of the signal that a result goes with; decibels as what they are taken of."""
    of_amplitude = 2 if output in ("power", "db") else 1
    return of_amplitude * (setting.power / 2 if operation == "mel" else 1)


def loud(y: np.ndarray, random, result: np.ndarray, power: float) -> np.ndarray:
    """Scaled so that the largest result lies somewhere from a thousandth of the largest half to twice of it."""
    target = LARGEST_HALF * 10 ** random.uniform(-3, 0.3)
    return y * min((target / abs(result).max()) ** (1 / power), LARGEST_HALF / abs(y).max())


def half_errors(got: np.ndarray, in_float: np.ndarray, wanted: np.ndarray) -> dict[str, float]:
    """Over the largest of a row. Complex results overflow by their parts."""
    got, in_float, wanted = (transforms.parts_of(values) for values in (got, in_float, wanted))
    fits = abs(in_float) <= LARGEST_HALF
    overflows = np.count_nonzero(fits & ~np.isfinite(got))
    row = abs(wanted).max(axis=-1, keepdims=True)
    error = np.where(fits & np.isfinite(got), abs(got - wanted), 0)
    return {"overflows": int(overflows), "row": float((error / np.where(row > 0, row, 1)).max())}


def decibel_errors(got: np.ndarray, wanted: np.ndarray) -> dict[str, float]:
    """Plainly, and with each bin's error counted by its amplitude under the loudest of its frame: a transform's
    rounding is a share of the whole frame, so that a faint bin beside loud ones has fewer right digits."""
    error = np.where(wanted > FLOOR, abs(got - wanted), 0).astype(np.float64)
    under = (wanted - wanted.max(axis=-1, keepdims=True)).astype(np.float64)
    return {"db": float(error.max()), "db weighted": float((error * 10 ** (under / 20)).max())}


def resident(setting: Setting, precision: str, operation: str, y: np.ndarray, window, bank) -> np.ndarray:
    """(batch, frames, bins or bands), widened."""
    output = setting.output if operation == "stft" else setting.band_output
    columns = setting.n_fft // 2 + 1 if operation == "stft" else setting.bands
    parts = 2 if operation == "stft" and output == "complex" else 1
    frames = frames_of(y, setting).shape[1]
    result = np.empty((setting.batch, frames, columns * parts), STORAGE[precision])
    set_hint(setting, precision, operation, output)
    sizes = (setting.n_fft, setting.hop, setting.center)
    hip = harness.Hip()
    x, out = hip.upload(np.ascontiguousarray(y)), hip.malloc(result.nbytes)
    try:
        if operation == "stft":
            kevra.stft_resident(x, out, *y.shape, *sizes, output, EPS, window, CODES[precision])
        else:
            others = (setting.power, output, EPS, window, CODES[precision])
            kevra.mel_resident(x, out, *y.shape, bank, *sizes, *others)
        hip.synchronize()
        hip.download(result, out)
    finally:
        hip.free(x, out)
    wide = result.astype(np.float64)
    return wide.view(np.complex128) if parts == 2 else wide


def set_hint(setting: Setting, precision: str, operation: str, output: str) -> None:
    if setting.hint:
        fields = {"ept": 0, "fpb": 0, "tpf": 0, "core": 0, "var": 0, **setting.hint}
        shape = (setting.n_fft, setting.hop, setting.center, BITS[precision], output)
        bands = setting.bands if operation == "mel" else 0
        kevra.set_shape_hint(operation, *shape, bands, 0, *fields.values())


def round_trip(setting: Setting, precision: str, random) -> float:
    """ISTFT of the STFT on the samples that frames cover from all sides, relative to the peak."""
    n_fft, hop = setting.n_fft, hop_back(setting.n_fft, random)
    y = random.uniform(-1, 1, (setting.batch, 6 * n_fft + hop)).astype(STORAGE[precision])
    window, _ = window_of(setting, random, np.float64)
    spectrum = kevra.stft_staged(y, window, n_fft, hop, setting.center, "complex").swapaxes(1, 2)
    back = kevra.istft_staged(spectrum, window, n_fft, hop, setting.center)
    inside = slice(n_fft, back.shape[1] - n_fft)
    return float(abs(back[:, inside].astype(np.float64) - y[:, : back.shape[1]][:, inside]).max() / abs(y).max())


def hop_back(n_fft: int, random) -> int:
    """Frames that overlap at least fourfold: no window's envelope comes near zero."""
    return int(random.integers(max(n_fft // 8, 1), max(n_fft // 4, 1) + 1))


DETERMINISTIC = [(512, 128), (2048, 512), (400, 100), (441, 110), (34, 9), (51, 13), (254, 60), (1009, 250)]


def deterministic_digest(order: str) -> str:
    """Of ISTFTs of every route in both precisions; in a process of its own, which the device reads its order in."""
    os.environ["KEVRA_CPU_ORDER"] = order
    kevra.use_cpu_device()
    kevra.set_deterministic(1)
    random = np.random.default_rng(1)
    digest = hashlib.sha256()
    for n_fft, hop in DETERMINISTIC:
        for kind in np.complex64, np.complex128:
            parts = random.standard_normal((2, 9, n_fft // 2 + 1, 2))
            spectrum = parts.view(np.complex128)[..., 0].astype(kind)
            digest.update(kevra.istft_staged(spectrum, "hann", n_fft, hop, True).tobytes())
    return digest.hexdigest()
