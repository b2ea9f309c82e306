"""Sound files in and out, as float32 rows of channels."""

import struct
import warnings
from pathlib import Path

import numpy as np
from scipy.io import wavfile

RECORDINGS = Path("/usr/share/sounds/alsa")
DEFAULT = ["Front_Center", "Front_Left", "Front_Right", "Side_Left", "Side_Right", "Rear_Left", "Rear_Center"]


def read_recordings(file):
    """The name, the sample rate and the channels as float32 rows of one file, or of the default recordings."""
    if file is not None:
        rate, signal = read_wav(Path(file))
        return Path(file).name, rate, signal
    parts = [read_wav(RECORDINGS / f"{name}.wav") for name in DEFAULT]
    return "speech recordings of alsa-utils", parts[0][0], np.concatenate([part[1] for part in parts], axis=1)


def read_wav(path: Path):
    try:
        with warnings.catch_warnings():  # chunks that it does not know are of no interest here
            warnings.simplefilter("ignore", wavfile.WavFileWarning)
            rate, data = wavfile.read(path)
    except OSError as problem:
        raise OSError(f"{path} cannot be read: {problem.strerror or problem}; name a WAV file.") from None
    except (ValueError, EOFError, struct.error, ArithmeticError, LookupError, TypeError, UnboundLocalError) as problem:
        reason = str(problem).rstrip(".") if isinstance(problem, ValueError) else "damaged or cut short"
        raise ValueError(f"{path} is no WAV file that can be read ({reason}); give PCM or float data.") from None
    signal = to_float_rows(data)
    if rate < 1 or signal.size == 0 or signal.shape[1] < 2 or not np.isfinite(signal).all():
        raise ValueError(f"{path} holds no usable sound; it needs a sample rate and 2 finite samples at least.")
    return rate, signal


def to_float_rows(data: np.ndarray) -> np.ndarray:
    """Samples as read, (samples,) or (samples, channels), to (channels, samples) with full scale at 1."""
    if data.dtype == np.uint8:  # 8-bit WAV is unsigned
        scaled = (data.astype(np.float32) - 128) / 128
    elif data.dtype.kind == "i":
        scaled = data / np.float64(np.iinfo(data.dtype).max + 1)
    else:
        scaled = data
    return np.ascontiguousarray(np.atleast_2d(scaled.T), dtype=np.float32)


def write_wav(path: Path, rate: int, signal: np.ndarray) -> Path:
    """Float samples, so that nothing of the signal is rounded or clipped."""
    path.parent.mkdir(parents=True, exist_ok=True)
    wavfile.write(path, rate, signal.T)
    return path
