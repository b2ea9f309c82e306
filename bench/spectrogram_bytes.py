"""Device bytes that the fused STFT and mel move: each frame's samples and tables once in, the output once out.

Check mode counts every access. Beside samples a frame reads its window, a band's weights and where these begin, end
and belong, and in double the roots of unity: a copy of the table a block, or one root for every twiddled value. Over
the launch no more may be touched than signal, output and tables hold, and no scratch memory may be taken.
"""

import json
import os
import sys
import tempfile
from pathlib import Path

import harness
import kevra
import numpy as np
from kevra import _diagnostics

# Code of the precision, type of what is stored and of the arithmetic.
TYPES = {"half": (0, np.float16, np.float32), "float": (1,) + 2 * (np.float32,), "double": (2,) + 2 * (np.float64,)}
# Frame and hop: trees, shuffles, registers, mixed radices with even frames and with pairs of odd ones.
FRAMES = [(64, 16), (128, 50), (512, 128), (1024, 256), (2048, 512), (4096, 1024), (400, 160), (960, 240), (441, 147)]
OUTPUTS = {"stft": ["complex", "magnitude", "power", "db"], "mel": ["power", "db"]}
ROWS, FRAMES_A_ROW, BANDS = 2, 16, 20  # whole blocks: no frame is worked on twice
EPS = 1e-10
SEGMENT = 64  # bytes, the unit in which touched memory is counted
TREE = 1  # the core that double powers of two are measured on, by hint
LONGEST_TREE = 2048  # in double: beside a longer frame a block has no room for the table, and reads roots in each pass


def main() -> int:
    os.environ["KEVRA_CPU_CHECK"] = "1"
    with tempfile.TemporaryDirectory(prefix="kevra-bench-") as folder:
        profile = Path(folder) / "profile"
        os.environ["KEVRA_CPU_PROFILE"] = str(profile)
        chosen = harness.options(__doc__)
        harness.cpu_device_only(chosen, "Only the CPU device counts bytes")
        figures = measure_all(harness.Hip(), profile)
    sizes = ", ".join(f"{n_fft}/{hop}" for n_fft, hop in FRAMES)
    notes = {"kernels": f"half and float each size's own; double powers of two the tree, by hint, to {LONGEST_TREE}"}
    measured = f"n_fft/hop = {sizes}, {ROWS} rows of {FRAMES_A_ROW} frames, {BANDS} bands, in check mode"
    return harness.report(chosen, measured, figures, notes)


def measure_all(hip: harness.Hip, profile: Path) -> list[harness.Figure]:
    names = [(operation, name) for operation in OUTPUTS for name in TYPES]
    surplus = {f"{operation} {name}, {what}": 0 for operation, name in names for what in ("read", "written")}
    beyond = {operation: 0 for operation in OUTPUTS}
    scratch = {operation: 0 for operation in OUTPUTS}
    cases = [
        (*pair, *frame, output)
        for pair in names
        for frame in FRAMES
        for output in OUTPUTS[pair[0]]
        if pair[1] != "double" or frame[0] <= LONGEST_TREE
    ]
    launches = 0
    with harness.cache_folder():
        for operation, name, n_fft, hop, output in harness.progress(cases, "calls"):
            before = scratch_bytes()
            moved, tables, result = measure(hip, profile, operation, name, n_fft, hop, output)
            scratch[operation] += scratch_bytes() - before
            launches += len(moved) - 1
            read, most = expected(name, n_fft, hop, moved[-1], tables, result)
            surplus[f"{operation} {name}, read"] += abs(moved[-1]["bytes_read"] - read)
            surplus[f"{operation} {name}, written"] += abs(moved[-1]["bytes_written"] - result)
            beyond[operation] += max(0, moved[-1]["touched_bytes"] - most)
    figures = [harness.Figure(f"{name} off what it must be", value, "bytes", 0) for name, value in surplus.items()]
    figures += [harness.Figure(f"{name}, touched beyond those", value, "bytes", 0) for name, value in beyond.items()]
    figures += [harness.Figure(f"{name}, scratch memory", value, "bytes", 0) for name, value in scratch.items()]
    return [*figures, harness.Figure("launches beyond one a call", launches, "", 0)]


def measure(hip, profile: Path, operation: str, name: str, n_fft: int, hop: int, output: str):
    """The profile's launches, the bytes of each table of the bank, and the bytes of the result."""
    precision, storage, compute = TYPES[name]
    y = np.random.default_rng(1).standard_normal((ROWS, samples_of(n_fft, hop))).astype(storage)
    columns = BANDS if operation == "mel" else (n_fft // 2 + 1) * (2 if output == "complex" else 1)
    result = ROWS * FRAMES_A_ROW * columns * y.itemsize
    x, out = hip.upload(y), hip.malloc(result)
    profile.unlink(missing_ok=True)
    if name == "double":
        bands = BANDS if operation == "mel" else 0
        kevra.set_shape_hint(operation, n_fft, hop, False, 64, output, bands, 0, 0, 0, 0, TREE, 0)
    tables = []
    if operation == "stft":
        kevra.stft_resident(x, out, *y.shape, n_fft, hop, False, output, EPS, "hann", precision)
    else:
        bank = kevra.mel_filter_bank(16000, n_fft, BANDS)
        tables = [np.count_nonzero(bank) * np.dtype(compute).itemsize, *3 * [4 * BANDS]]
        kevra.mel_resident(x, out, *y.shape, bank, n_fft, hop, False, 2, output, EPS, "hann", precision)
    hip.synchronize()
    hip.free(x, out)
    return [json.loads(line) for line in profile.read_text().splitlines()], tables, result


def expected(name: str, n_fft: int, hop: int, launch: dict, tables: list[int], result: int) -> tuple[int, int]:
    """Bytes read, and the most that may be touched."""
    storage, compute = (np.dtype(kind).itemsize for kind in TYPES[name][1:])
    frames = ROWS * FRAMES_A_ROW
    read = frames * (n_fft * (storage + compute) + sum(tables))
    signal = ROWS * samples_of(n_fft, hop) * storage
    touched = [signal, result, n_fft * compute, *tables]
    if name == "double":
        read += 16 * roots_read(n_fft, int(np.prod(launch["grid"])))
        touched.append(16 * (2 * n_fft if n_fft % 2 else n_fft))
    return read, sum(in_segments(size) for size in touched)


def roots_read(n_fft: int, blocks: int) -> int:
    """A power of two copies the table of both steps a block; else each transform reads one for every value that it
    twiddles, all but a butterfly's first in every stage but the first, and an even frame's split one a bin."""
    half = n_fft // 2
    if n_fft & (n_fft - 1) == 0:
        return blocks * (half + half // 2)
    length = n_fft if n_fft % 2 else half
    stages = sum(length - length // radix for radix in kevra.route_explain("stft", n_fft, 2)["schedule"][1:])
    return blocks * (stages + (0 if n_fft % 2 else half))


def samples_of(n_fft: int, hop: int) -> int:
    return n_fft + hop * (FRAMES_A_ROW - 1)


def in_segments(size: int) -> int:
    return -(-size // SEGMENT) * SEGMENT


def scratch_bytes() -> int:
    """What the pool keeps of freed blocks; tables stay in use."""
    return _diagnostics.read()["pools"]["device"]["cached_bytes"]


if __name__ == "__main__":
    sys.exit(main())
