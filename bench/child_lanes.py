# One part of the lanes' benchmark, in a process of its own because the CPU device reads its settings once:
# `time transforms`, `time music`, `run`, `results` or `compile`, and what that part needs. It says a line of JSON.
import functools
import json
import sys
import time

import harness
import kevra
import numpy as np
import scipy.fft
from peers import cases, comparison, contenders, spectrograms, timing

ROWS, SECONDS = 4096, 300  # as timed
FEW_ROWS, FEW_SECONDS = 256, 20  # where only values and kernels count
SIZES = [64, 128, 256, 512, 1000, 1024, 1536, 2048, 3000, 4096, 6000, 8192]
REAL = 2048


def transforms(rows: int) -> list[cases.Case]:
    return [*(cases.Case("fft", "float", n, rows) for n in SIZES), cases.Case("rfft", "float", REAL, rows)]


def music(seconds: int) -> list[cases.Case]:
    recording = [("music", 1, seconds)]
    return [
        cases.Case(operation, "float", **spectrograms.sizes(operation, recording)[0])
        for operation in ("logmel", "magnitude")
    ]


def main() -> None:
    kevra.use_cpu_device()
    parts = {
        "time transforms": time_transforms,
        "time music": time_music,
        "run": run_once,
        "results": save_results,
        "compile": time_compiles,
    }
    part, *arguments = sys.argv[1:]
    print(json.dumps(parts[part](*arguments)))


def time_transforms(rounds: str) -> dict:
    """Speeds against scipy on one thread, in the process's own time; scipy allocates as every caller of it does."""
    hip, speeds = harness.Hip(), {}
    for case in transforms(ROWS):
        x = cases.make_input(case)
        peer = functools.partial(cases.transformed, scipy.fft, x, case, workers=1)
        with contenders.Resident(hip, case, x) as resident:
            timed = [
                contenders.Contender("kevra", resident.run, clock=timing.processor_clock),
                contenders.Contender("scipy", peer, clock=timing.processor_clock),
            ]
            speeds[name_of(case)] = speeds_of(timed, int(rounds))
    return {"speeds": speeds}


def time_music(rounds: str) -> dict:
    """Speeds of the calls that take and give numpy arrays, on all cores."""
    libraries, absent = contenders.find({"librosa": "librosa", "torch": "PyTorch"}, needs_gpu=False)
    speeds = {}
    for case in music(SECONDS):
        x = cases.make_input(case)
        timed = [contenders.Contender("kevra", spectrograms.staged_call(case, x))]
        if "librosa" in libraries:
            call = spectrograms.librosa_call(libraries["librosa"], case, x)
            timed.append(contenders.Contender("librosa", call))
        if "torch" in libraries and case.operation == "magnitude":
            torch = libraries["torch"]
            timed.append(contenders.Contender("torch", spectrograms.torch_call(torch, case, torch.from_numpy(x))))
        speeds[name_of(case)] = speeds_of(timed, int(rounds))
    return {"speeds": speeds, "absent": absent}


def speeds_of(timed: list[contenders.Contender], rounds: int) -> dict:
    taken = timing.alternate(timed, rounds)
    own = taken.pop("kevra")
    seconds = float(np.median([seconds for seconds, _ in own]))
    return {"seconds": seconds, "against": {peer: comparison.ratio(times, own) for peer, times in taken.items()}}


def run_once() -> None:
    """Everything that is timed, for what the device tells of it."""
    hip = harness.Hip()
    for case in [*transforms(ROWS), *music(SECONDS)]:
        result_of(hip, case, cases.make_input(case))


def save_results(folder: str) -> dict:
    hip, files = harness.Hip(), {}
    for case in [*transforms(FEW_ROWS), *music(FEW_SECONDS)]:
        files[name_of(case)] = f"{folder}/{len(files)}.npy"
        np.save(files[name_of(case)], result_of(hip, case, cases.make_input(case)))
    return files


def time_compiles() -> dict:
    """Seconds that a kernel's first call takes longer than its second, from an empty cache."""
    hip, seconds = harness.Hip(), {}
    for case in [*transforms(FEW_ROWS), *music(FEW_SECONDS)]:
        x = cases.make_input(case)
        calls = []
        for _ in range(2):
            started = time.perf_counter()
            result_of(hip, case, x)
            calls.append(time.perf_counter() - started)
        seconds[name_of(case)] = calls[0] - calls[1]
    return seconds


def result_of(hip: harness.Hip, case: cases.Case, x: np.ndarray) -> np.ndarray:
    if case.operation in spectrograms.OPERATIONS:
        return spectrograms.staged_call(case, x)()
    with contenders.Resident(hip, case, x) as resident:
        return resident.result(resident.run())


def name_of(case: cases.Case) -> str:
    return case.operation if case.operation in spectrograms.OPERATIONS else f"{case.operation} {case.n}"


if __name__ == "__main__":
    main()
