"""The benchmark against peers: wrong results are refused before they are timed, absent peers are left out."""

import json
import os
from pathlib import Path

import numpy as np
import pytest

BENCH = Path(__file__).parents[2] / "bench"
TINY = ["--sizes", "16,100", "--real-sizes", "21,30", "--batches", "3", "--signals", "2x4096", "--rounds", "2",
        "--copy", "1", "--recordings", "speech:2x1,music:1x1", "--features", "music:1x1",
        "--filtered", "2x5000", "--convolved", "2x5000", "--seconds", "1"]
SPECTROGRAMS = {"stft": 2, "magnitude": 2, "istft": 2, "logmel": 3}  # cases of those recordings
FEATURES = {"mfcc": {"bands": 40}, "centroid": {}, "contrast": {"bands": 7}}
FILTERS = {"lfilter": {"scipy lfilter"}, "convolve": {"scipy fftconvolve", "scipy oaconvolve"}}  # three cases each
CONSTANT_Q = {name: {"hop": 512, "rate": 22050, "bins": bins} for name, bins in {"cqt": 84, "chroma": 252}.items()}
ABSENT = "raise ImportError"
ALL_ABSENT = dict.fromkeys(["librosa", "torch", "torchaudio", "nnAudio"], ABSENT)
BLIND = "class cuda: is_available = staticmethod(lambda: False)"
# Off by 1e-4 where 5e-6 are allowed: what rounding to half precision somewhere would give.
WRONG = """
import numpy
class feature:
    @staticmethod
    def rms(y, frame_length, hop_length, pad_mode, dtype):
        padded = numpy.pad(y, ((0, 0), (frame_length // 2,) * 2), mode=pad_mode)
        frames = numpy.lib.stride_tricks.sliding_window_view(padded, frame_length, axis=1)[:, ::hop_length]
        return numpy.sqrt(numpy.mean(frames**2, axis=2, dtype=dtype))[:, None] * dtype.type(1.0001)
"""


@pytest.fixture
def bench(run_python, tmp_path):
    """Runs cpu or gpu with stand-ins for the peers; returns the process, its record and the names of its files."""

    def run(name, stand_ins, *arguments):
        for module, text in stand_ins.items():
            (tmp_path / f"{module}.py").write_text(text)
        path = os.pathsep.join([str(tmp_path), *filter(None, [os.environ.get("PYTHONPATH")])])
        child = run_python([BENCH / f"{name}.py", *TINY, "--folder", tmp_path / "results", *arguments],
                           env={"PYTHONPATH": path}, check=False)
        files = sorted((tmp_path / "results").glob("*"))
        records = [json.loads(file.read_text()) for file in files if file.suffix == ".json"]
        assert len(records) == 1, child.stderr
        return child, records[0], {file.suffix for file in files}

    return run


def test_cpu_times_everybody_and_leaves_out_absent_peers(bench, tmp_path):
    child, record, files = bench("cpu", ALL_ABSENT, "--only-peers", "--markdown", tmp_path / "table.md")
    assert child.returncode == 0, child.stdout + child.stderr
    absent = ["librosa", "PyTorch", "torchaudio", "nnAudio"]
    assert record["left out"] == dict.fromkeys(absent, "not installed, left out")
    assert files == {".json", ".svg"}
    others = sum(SPECTROGRAMS.values()) + len(FEATURES) + 1 + len(CONSTANT_Q) + 2 * 3 * len(FILTERS)
    assert len(record["cases"]) == 2 * (2 + 4 + 2) + others
    for case in record["cases"]:
        peers = {"numpy"} | ({"scipy 1", "scipy all"} if case["operation"] != "rms" else set())
        if case["operation"] in SPECTROGRAMS:
            peers = {"scipy all"}
        if case["operation"] in [*FEATURES, "griffinlim", *CONSTANT_Q]:
            peers = set()
        own = {"kevra resident", "kevra staged"}
        if case["operation"] in FILTERS:
            peers = FILTERS[case["operation"]]
            own |= {"kevra direct"} if case.get("taps") == 64 else set()
        assert set(case["times"]) == own | peers
        assert all(0 < t["least_us"] <= t["median_us"] <= t["most_us"] for t in case["times"].values())
        assert set(case["speed_against"]) == own
        for ours, speeds in case["speed_against"].items():
            for peer, speed in speeds.items():  # of two rounds: between the extremes of both
                own_times, times = case["times"][ours], case["times"][peer]
                assert 0.99 * times["least_us"] / own_times["most_us"] <= speed
                assert speed <= 1.01 * times["most_us"] / own_times["least_us"]
    table = (tmp_path / "table.md").read_text()
    assert "| irfft double, n | batch 3 |" in table and "| logmel, batch x n |" in table


def test_a_wrong_peer_is_not_timed_and_the_others_are(bench):
    child, record, _ = bench("cpu", ALL_ABSENT | {"librosa": WRONG}, "--only-peers", "--operations", "fft", "rms")
    assert child.returncode == 1
    assert child.stdout.count("DISAGREES  rms of 2 x 4096") == 4
    for case in record["cases"]:
        refused = case["operation"] == "rms"
        assert ("times" in case) != refused
        assert ("librosa is off by 0.0001" in case.get("refused", "")) == refused


def test_gpu_runs_on_whatever_is_bound_without_peers(bench):
    """The CPU device stands in for the GPU, as KEVRA_HIP_PATH says."""
    child, record, files = bench("gpu", {"torch": BLIND, "torchaudio": ABSENT, "nnAudio": ABSENT, "cupy": ABSENT},
                                 "--starts", "1")
    assert child.returncode == 0, child.stdout + child.stderr
    assert record["left out"] == {"PyTorch": "sees no GPU, left out", "torchaudio": "not installed, left out",
                                  "nnAudio": "not installed, left out", "CuPy": "not installed, left out"}
    assert files == {".json"}
    assert record["other_figures"]["first_call"]["warm cache"].endswith(" ms")
    for case in record["cases"]:
        assert set(case["times"]) == {"kevra resident"} and case["times"]["kevra resident"]["median_us"] > 0
        assert case["share_of_copy_rate"] > 0


@pytest.mark.parametrize("precision", ["float", "double"])
@pytest.mark.parametrize("operation", ["fft", "rfft", "irfft", "rms", *SPECTROGRAMS, *FEATURES, *CONSTANT_Q, *FILTERS])
def test_agreement_is_refused_beyond_its_bound(monkeypatch, operation, precision):
    monkeypatch.syspath_prepend(BENCH)
    from peers import cases

    frame = {"frame_length": 256, "hop": 64} if operation in ("rms", *SPECTROGRAMS, *FEATURES) else {}
    rate = {"rate": 16000} if operation in ("logmel", *FEATURES) else {}
    filtered = {"lfilter": {"order": 2}, "convolve": {"taps": 64}}
    more = {"logmel": {"bands": 40}, **FEATURES, **CONSTANT_Q, **filtered}.get(operation, {})
    case = cases.Case(operation, precision, 1024, 4, **frame, **rate, **more)
    x = cases.make_input(case)
    wanted = cases.exact(case, x)
    right = wanted.astype(case.output[1])
    assert cases.disagreement(case, "peer", right, wanted, x) is None

    shuffled = right[::-1].copy()
    damaged = right.copy()
    damaged[2, 5] = np.nan
    scaled = right * case.real.type(1 + 2 * cases.bound(case, "peer"))
    for wrong in (shuffled, damaged, scaled):
        assert "relative L2" in cases.disagreement(case, "peer", wrong, wanted, x)
    assert "must be" in cases.disagreement(case, "peer", right[:3], wanted, x)
    assert "must be" in cases.disagreement(case, "peer", right.astype(np.clongdouble), wanted, x)


def test_signals_found_agree_by_how_well_they_fit(monkeypatch):
    monkeypatch.syspath_prepend(BENCH)
    from peers import cases, features

    case = cases.Case("griffinlim", "double", 4096, 2, 256, 64, 16000)
    s = cases.make_input(case)
    wanted = cases.exact(case, s)
    assert cases.disagreement(case, "peer", -wanted, wanted, s) is None
    unsought = features.from_spectrum(case, s.astype(case.complex))
    for wrong in unsought, wanted * 1.1, wanted[::-1], np.full_like(wanted, np.nan):
        assert "spectral convergence" in cases.disagreement(case, "peer", wrong, wanted, s)
