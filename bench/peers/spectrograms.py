"""Spectrograms among the cases: what is recorded, the exact result, and how each contender is called."""

from __future__ import annotations

from typing import TYPE_CHECKING

import kevra
import numpy as np
import scipy.fft

if TYPE_CHECKING:
    from peers.cases import Case

OPERATIONS = ["stft", "magnitude", "istft", "logmel"]  # magnitude: of the STFT
FRAMES = {"speech": (16000, 400, 160), "music": (44100, 2048, 512)}  # samples a second, n_fft, hop
BANDS = {"speech": [80, 128], "music": [128]}
LONG_MUSIC = ("music", 1, 300)
RECORDINGS = [("speech", 1, 30), ("speech", 16, 30), ("speech", 64, 30), ("music", 1, 10), LONG_MUSIC]
EPS = 1e-10  # under the logarithm, where others take the larger of it and the power
TOP_DB = 80.0  # under the loudest value the others cut off; normal noise stays far above


def sizes(operation: str, recordings: list[tuple[str, int, int]]) -> list[dict]:
    """The fields of a case for every recording, given as kind, rows and seconds."""
    fields = []
    for kind, batch, seconds in recordings:
        rate, n_fft, hop = FRAMES[kind]
        frame = {"n": rate * seconds, "batch": batch, "frame_length": n_fft, "hop": hop, "rate": rate}
        fields += [{**frame, "bands": bands} for bands in (BANDS[kind] if operation == "logmel" else [0])]
    return fields


def output_columns(case: Case) -> int:
    return case.bands or case.frame_length // 2 + 1


def window(case: Case, dtype) -> np.ndarray:
    return (0.5 - 0.5 * np.cos(2 * np.pi * np.arange(case.frame_length) / case.frame_length)).astype(dtype)


def bank(case: Case) -> np.ndarray:
    return kevra.mel_filter_bank(case.rate, case.frame_length, case.bands)


def spectrum(case: Case, y: np.ndarray, workers: int) -> np.ndarray:
    """(batch, frames, bins) as a user of numpy and scipy writes it."""
    padded = np.pad(y, ((0, 0), (case.frame_length // 2,) * 2), mode="reflect")
    frames = np.lib.stride_tricks.sliding_window_view(padded, case.frame_length, axis=1)[:, :: case.hop]
    return scipy.fft.rfft(frames * window(case, y.dtype), workers=workers)


def computed(case: Case, x: np.ndarray, workers: int) -> np.ndarray:
    if case.operation == "istft":
        return overlap_added(case, scipy.fft.irfft(x, case.frame_length, workers=workers), case.n)
    spectra = spectrum(case, x, workers)
    if case.operation == "logmel":
        bands = (spectra.real**2 + spectra.imag**2) @ bank(case).T.astype(x.dtype)
        return 10 * np.log10(np.maximum(bands, x.dtype.type(EPS))).swapaxes(1, 2)
    return (abs(spectra) if case.operation == "magnitude" else spectra).swapaxes(1, 2)


def overlap_added(case: Case, frames: np.ndarray, samples: int) -> np.ndarray:
    """Every so many frames do not overlap: they are added at once."""
    batch, count, n_fft = frames.shape
    weights = window(case, frames.dtype)
    total = np.zeros((batch, (count - 1) * case.hop + n_fft), frames.dtype)
    envelope = np.zeros((1, total.shape[1]), frames.dtype)
    apart = -(-n_fft // case.hop)
    for first in range(min(apart, count)):
        own = frames[:, first::apart]
        for target, values in (total, own * weights), (envelope, weights**2):
            row, sample = target.strides
            strides = (row, apart * case.hop * sample, sample)
            shape = (len(target), own.shape[1], n_fft)
            np.lib.stride_tricks.as_strided(target[:, first * case.hop :], shape, strides)[...] += values
    start = n_fft // 2
    heard = slice(start, start + samples)
    return total[:, heard] / envelope[:, heard]


def exact(case: Case, x: np.ndarray) -> np.ndarray:
    """In double, row by row, and rounded once: the longest results fill hundreds of megabytes."""
    shape, dtype = case.output
    result = np.empty(shape, dtype)
    for row, answer in zip(x, result):
        wide = row[None].astype(np.result_type(row.dtype, np.float64))
        answer[...] = computed(case, wide, workers=-1)[0]
    return result


def resident_call(case: Case, x: int, out: int, precision: int) -> tuple[str, tuple]:
    """kevra's function and its arguments."""
    frame = (case.frame_length, case.hop, True)
    if case.operation == "istft":
        bins = case.frame_length // 2 + 1
        layout = (case.batch, bins, case.frames, case.frames * bins, 1, bins)
        return "istft_resident", (x, out, *layout, *frame, case.n, "hann", precision, 0, 0)
    signal, last = (x, out, case.batch, case.n), (EPS, "hann", precision, 0, 0)
    if case.operation == "logmel":
        return "mel_resident", (*signal, bank(case), *frame, 2.0, "db", *last)
    return "stft_resident", (*signal, *frame, form(case), *last)


def staged_call(case: Case, x: np.ndarray):
    frame = (case.frame_length, case.hop, True)
    if case.operation == "istft":
        return lambda: kevra.istft_staged(x, "hann", *frame, case.n)
    if case.operation == "logmel":
        bands = bank(case)
        return lambda: kevra.mel_staged(x, "hann", bands, *frame, 2.0, "db", EPS)
    return lambda: kevra.stft_staged(x, "hann", *frame, form(case))


def form(case: Case) -> str:
    return "magnitude" if case.operation == "magnitude" else "complex"


def librosa_call(librosa, case: Case, x: np.ndarray):
    """With its own defaults but for the padding, zeros there."""
    frame = {"n_fft": case.frame_length, "hop_length": case.hop}
    if case.operation == "istft":
        bins_first = x.swapaxes(1, 2)
        return lambda: librosa.istft(bins_first, **frame, length=case.n)
    frame["pad_mode"] = "reflect"
    if case.operation == "logmel":
        mel = librosa.feature.melspectrogram
        return lambda: librosa.power_to_db(mel(y=x, sr=case.rate, n_mels=case.bands, **frame))
    if case.operation == "magnitude":
        return lambda: abs(librosa.stft(x, **frame))
    return lambda: librosa.stft(x, **frame)


def torch_call(torch, case: Case, x):
    """`x` is a tensor; window and bank lie beside it, as in a module's buffers."""
    weights = torch.from_numpy(window(case, case.real)).to(x.device)
    frame = {"n_fft": case.frame_length, "hop_length": case.hop, "window": weights}
    if case.operation == "istft":
        bins_first = x.transpose(1, 2)
        return lambda: torch.istft(bins_first, **frame, length=case.n)
    if case.operation == "stft":
        return lambda: torch.stft(x, **frame, return_complex=True)
    if case.operation == "magnitude":
        return lambda: torch.stft(x, **frame, return_complex=True).abs()
    bands = torch.from_numpy(bank(case).astype(case.real)).to(x.device)

    def logmel():
        power = torch.stft(x, **frame, return_complex=True).abs().square()
        return 10 * torch.log10(torch.clamp(bands @ power, min=EPS))

    return logmel


def torchaudio_call(torchaudio, case: Case, x):
    """Its log-mel; the other transforms are PyTorch's own."""
    mel = torchaudio.transforms.MelSpectrogram(
        case.rate, case.frame_length, hop_length=case.hop, n_mels=case.bands, norm="slaney", mel_scale="slaney"
    ).to(x.device)
    decibels = torchaudio.transforms.AmplitudeToDB("power", TOP_DB).to(x.device)
    return lambda: decibels(mel(x))
