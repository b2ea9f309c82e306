"""Who is timed: kevra's functions, and what a user would pick instead. Optional peers are left out when absent."""

import importlib
from collections.abc import Callable
from dataclasses import dataclass

import harness
import kevra
import numpy as np
import scipy.fft
import scipy.signal
from peers import constant_q, features, filters, spectrograms, timing
from peers.cases import Case, framed_rms, transformed

PREC = {"float": 1, "double": 2}
IN_TORCHAUDIO = ["logmel", "mfcc", "centroid", "griffinlim", *filters.OPERATIONS]
ONLY_IN_TORCHAUDIO = [*features.OPERATIONS, *filters.OPERATIONS]  # all else PyTorch has itself


@dataclass
class Contender:
    name: str
    call: Callable[[], object]
    result: Callable[[object], np.ndarray] = np.asarray  # of what `call` returned
    clock: timing.Clock = timing.wall_clock
    ours: bool = False


def find(names: dict[str, str], needs_gpu: bool) -> tuple[dict, dict[str, str]]:
    """Imports modules, given by what they are called; returns those that can be used, and why the others cannot."""
    found, absent = {}, {}
    for module, name in names.items():
        try:
            library = importlib.import_module(module)
        except ImportError:
            absent[name] = "not installed, left out"
            continue
        except OSError as failure:  # a library in it that does not fit the machine or another package
            absent[name] = f"does not load, left out: {failure}"
            continue
        if needs_gpu and hasattr(library, "cuda") and not library.cuda.is_available():
            absent[name] = "sees no GPU, left out"
        else:
            found[module] = library
    return found, absent


class Resident:
    """kevra on memory that stays on the device; freed at the end of a `with`."""

    def __init__(self, hip: harness.Hip, case: Case, x: np.ndarray):
        self.hip, self.case = hip, case
        self.answer = empty_answer(case)
        self.x, self.out, self.others = hip.upload(x), hip.malloc(self.answer.nbytes), []
        precision = PREC[case.precision]
        if case.operation in spectrograms.OPERATIONS:
            name, self.arguments = spectrograms.resident_call(case, self.x, self.out, precision)
        elif case.operation in constant_q.OPERATIONS:
            name, self.arguments = constant_q.resident_call(case, self.x, self.out, precision)
        elif case.operation in features.OPERATIONS:
            name, self.arguments, self.others = features.resident_call(case, hip, self.x, self.out, precision)
        elif case.operation in filters.OPERATIONS:
            name, self.arguments, self.others = filters.resident_call(case, hip, self.x, self.out, precision)
        else:
            others = (False,) if case.operation == "fft" else ()
            if case.operation == "rms":
                others = (case.frames, case.frame_length, case.hop, True)
            name = f"{case.operation}_resident"
            self.arguments = (self.x, self.out, case.batch, case.n, *others, precision, 0, 0)
        self.function = getattr(kevra, name)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.hip.synchronize()
        self.hip.free(self.x, self.out, *self.others)

    def queue(self) -> None:
        self.function(*self.arguments)

    def run(self) -> None:
        self.function(*self.arguments)
        self.hip.synchronize()

    def result(self, _) -> np.ndarray:
        self.hip.synchronize()
        self.hip.download(self.answer, self.out)
        return self.answer


def empty_answer(case: Case) -> np.ndarray:
    """In the order of kevra's memory, where a frame's bins or bands are adjacent but for constant-Q transforms."""
    shape, dtype = case.output
    if len(shape) == 2 or case.operation in constant_q.OPERATIONS:
        return np.empty(shape, dtype)
    batch, columns, frames = shape
    return np.empty((batch, frames, columns), dtype).swapaxes(1, 2)


def on_the_cpu(case: Case, x: np.ndarray, resident: Resident, libraries: dict, threads: int) -> list[Contender]:
    if case.operation in spectrograms.OPERATIONS:
        return spectrograms_on_the_cpu(case, x, resident, libraries, threads)
    if case.operation in constant_q.OPERATIONS:
        return constant_q_on_the_cpu(case, x, resident, libraries, threads)
    if case.operation in features.OPERATIONS:
        return features_on_the_cpu(case, x, resident, libraries, threads)
    if case.operation in filters.OPERATIONS:
        return filters_on_the_cpu(case, x, resident, libraries, threads)
    others = {"fft": (False,), "irfft": (case.n,), "rms": (case.frame_length, case.hop, True)}.get(case.operation, ())
    function = getattr(kevra, f"{case.operation}_staged")
    staged = Contender("kevra staged", lambda: function(x, *others), ours=True)
    if case.operation != "rms":
        peers = [
            Contender("scipy 1", lambda: transformed(scipy.fft, x, case, workers=1)),
            Contender("scipy all", lambda: transformed(scipy.fft, x, case, workers=threads)),
            Contender("numpy", lambda: transformed(np.fft, x, case)),
        ]
    else:
        peers = [Contender("numpy", lambda: framed_rms(np, x, case))]
        if "librosa" in libraries:
            peers.append(librosa_rms(libraries["librosa"], case, x))
    if "torch" in libraries:
        libraries["torch"].set_num_threads(threads)
        peers.append(in_torch(libraries["torch"], case, x, "cpu", timing.wall_clock))
    return [Contender("kevra resident", resident.run, resident.result, ours=True), staged, *peers]


def spectrograms_on_the_cpu(case: Case, x, resident: Resident, libraries: dict, threads: int) -> list[Contender]:
    contenders = [
        Contender("kevra resident", resident.run, resident.result, ours=True),
        Contender("kevra staged", spectrograms.staged_call(case, x), ours=True),
        Contender("scipy all", lambda: spectrograms.computed(case, x, threads)),
    ]
    if "librosa" in libraries:
        contenders.append(Contender("librosa", spectrograms.librosa_call(libraries["librosa"], case, x)))
    if "torch" in libraries:
        libraries["torch"].set_num_threads(threads)
        contenders.append(in_torch(libraries["torch"], case, x, "cpu", timing.wall_clock))
    return contenders


def features_on_the_cpu(case: Case, x, resident: Resident, libraries: dict, threads: int) -> list[Contender]:
    def narrowed(answer: np.ndarray) -> np.ndarray:
        """Some compute in double whatever they are given."""
        return answer.astype(case.real)

    contenders = [
        Contender("kevra resident", resident.run, resident.result, ours=True),
        Contender("kevra staged", features.staged_call(case, x), narrowed, ours=True),
    ]
    if "librosa" in libraries:
        contenders.append(Contender("librosa", features.librosa_call(libraries["librosa"], case, x), narrowed))
    if "torchaudio" in libraries and case.operation in IN_TORCHAUDIO:
        libraries["torch"].set_num_threads(threads)
        contenders.append(in_torchaudio(libraries, case, x, "cpu", timing.wall_clock))
    return contenders


def constant_q_on_the_cpu(case: Case, x, resident: Resident, libraries: dict, threads: int) -> list[Contender]:
    contenders = [
        Contender("kevra resident", resident.run, resident.result, ours=True),
        Contender("kevra staged", constant_q.staged_call(case, x), ours=True),
    ]
    if "librosa" in libraries:
        contenders.append(Contender("librosa", constant_q.librosa_call(libraries["librosa"], case, x)))
    if "torch" in libraries:
        libraries["torch"].set_num_threads(threads)
    return contenders + in_nnaudio(libraries, case, x, "cpu", lambda: timing.wall_clock)


def filters_on_the_cpu(case: Case, x, resident: Resident, libraries: dict, threads: int) -> list[Contender]:
    contenders = [
        Contender("kevra resident", resident.run, resident.result, ours=True),
        Contender("kevra staged", filters.staged_call(case, x), ours=True),
    ]
    if 0 < case.taps <= filters.MOST_DIRECT_TAPS:
        contenders.append(Contender("kevra direct", filters.direct_call(case, x), ours=True))
    contenders += [
        Contender(f"scipy {name}", call) for name, call in filters.signal_calls(scipy.signal, np, case, x).items()
    ]
    if "torchaudio" in libraries:
        libraries["torch"].set_num_threads(threads)
        contenders.append(in_torchaudio(libraries, case, x, "cpu", timing.wall_clock))
    return contenders


def librosa_rms(librosa, case: Case, x: np.ndarray) -> Contender:
    options = {"frame_length": case.frame_length, "hop_length": case.hop, "pad_mode": "reflect", "dtype": case.real}
    return Contender("librosa", lambda: librosa.feature.rms(y=x, **options), lambda answer: answer[:, 0, :])


def in_torch(torch, case: Case, x: np.ndarray, place: str, clock: timing.Clock) -> Contender:
    there = torch.from_numpy(x).to(place)
    pad = case.frame_length // 2

    def rms():
        padded = torch.nn.functional.pad(there, (pad, pad), mode="reflect")
        return padded.unfold(-1, case.frame_length, case.hop).square().mean(-1).sqrt()

    if case.operation in spectrograms.OPERATIONS:
        call = spectrograms.torch_call(torch, case, there)
    else:
        call = rms if case.operation == "rms" else (lambda: transformed(torch.fft, there, case))
    return Contender("torch", call, lambda answer: answer.cpu().numpy(), clock)


def in_torchaudio(libraries: dict, case: Case, x: np.ndarray, place: str, clock: timing.Clock) -> Contender:
    torch, torchaudio = libraries["torch"], libraries["torchaudio"]
    there = torch.from_numpy(x).to(place)
    if case.operation in filters.OPERATIONS:
        call = filters.torchaudio_call(torchaudio, torch, case, there)
    elif case.operation in features.OPERATIONS:
        call = features.torchaudio_call(torchaudio, case, there)
    else:
        call = spectrograms.torchaudio_call(torchaudio, case, there)
    return Contender("torchaudio", call, lambda answer: answer.cpu().numpy(), clock)


def in_nnaudio(libraries: dict, case: Case, x: np.ndarray, place: str, clock_of) -> list[Contender]:
    """It has no chroma, and runs in PyTorch."""
    if case.operation != "cqt" or not {"torch", "nnAudio.features"} <= libraries.keys():
        return []
    torch, features = libraries["torch"], libraries["nnAudio.features"]
    call = constant_q.nnaudio_call(torch, features, case, torch.from_numpy(x).to(place))
    return [Contender("nnAudio", call, lambda answer: answer.cpu().numpy(), clock_of())]


def on_the_gpu(case: Case, x: np.ndarray, resident: Resident, libraries: dict) -> list[Contender]:
    """Everything lies in device memory, and every library's own events time what it queues on the null stream."""
    clock = timing.hip_clock(resident.hip)
    contenders = [Contender("kevra resident", resident.queue, resident.result, clock, ours=True)]
    if case.operation in constant_q.OPERATIONS:
        return contenders + in_nnaudio(libraries, case, x, "cuda", lambda: timing.torch_clock(libraries["torch"]))
    if "torch" in libraries:
        torch = libraries["torch"]
        if case.operation not in ONLY_IN_TORCHAUDIO:
            contenders.append(in_torch(torch, case, x, "cuda", timing.torch_clock(torch)))
        if "torchaudio" in libraries and case.operation in IN_TORCHAUDIO:
            contenders.append(in_torchaudio(libraries, case, x, "cuda", timing.torch_clock(torch)))
    if "cupy" in libraries and case.operation not in [*spectrograms.OPERATIONS, *features.OPERATIONS]:
        cupy = libraries["cupy"]
        calls = in_cupy(cupy, case, cupy.asarray(x))
        contenders += [Contender(name, call, cupy.asnumpy, timing.cupy_clock(cupy)) for name, call in calls.items()]
    return contenders


def in_cupy(cupy, case: Case, there) -> dict[str, Callable[[], object]]:
    if case.operation in filters.OPERATIONS:
        signal = importlib.import_module("cupyx.scipy.signal")
        return {f"cupy {name}": call for name, call in filters.signal_calls(signal, cupy, case, there).items()}
    if case.operation == "rms":
        return {"cupy": lambda: framed_rms(cupy, there, case)}
    return {"cupy": lambda: transformed(cupy.fft, there, case)}
