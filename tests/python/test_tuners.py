"""The tuners: what they return, that their winners reach the plain calls, and what failures leave behind."""

import os
import re

import kevra
import numpy as np
import pytest
from constant_q import Plan, basis, half_band, new_key
from kevra import TunedShape, _tuning_jobs
from support import DOUBLE, FLOAT, HALF, Device, Fresh, fresh, pools_in_use

PACKED = 3
QUICK = {"iters": 1, "warmup": 1}
B, L = 2, 400
SIGNAL = {"batch": B, "length": L}
FRAMES = {"n_fft": 48, "hop": 16}
BANK = np.random.default_rng(2).uniform(0, 1, (5, 25))


class Design(Plan):
    """Octaves of two sizes, given as a plan for signals of L samples."""

    def arguments(self, length):
        assert length == L
        return Plan.arguments.fget(self)


def design(**changes):
    rng = np.random.default_rng(3)
    octaves = [(0, 16, 64, 3, *basis(rng, 3, 64)), (1, 8, 32, 0, *basis(rng, 3, 32))]
    return Design(**{**dict(n_levels=2, octaves=octaves, taps=half_band(), plan_key=new_key(), n_bins=6, frames=20),
                     **changes})


# The shape as kevra.tune takes it, and its plain calls: one for each of the tuner's winners, but for the octaves'.
CASES = {
    "stft": ({**SIGNAL, **FRAMES, "output": "power"}, lambda x, out, prec: [
        lambda: kevra.stft_resident(x, out, B, L, 48, 16, True, "power", 1e-10, "hann", prec)]),
    "stft_64": ({**SIGNAL, "n_fft": 64, "hop": 16, "center": False}, lambda x, out, prec: [
        lambda: kevra.stft_resident(x, out, B, L, 64, 16, False, "", 1e-10, "hann", prec)]),
    "istft": ({"batch": B, "frames": 10, **FRAMES}, lambda x, out, prec: [
        lambda: kevra.istft_resident(x, out, B, 25, 10, 250, 1, 25, 48, 16, True, -1, "hann", prec)]),
    "mel": ({**SIGNAL, **FRAMES, "fb": BANK, "output": "db"}, lambda x, out, prec: [
        lambda: kevra.mel_resident(x, out, B, L, BANK, 48, 16, True, 2, "db", 1e-10, "hann", prec)]),
    "fft": ({"batch": 7, "n": 18}, lambda x, out, prec: [
        lambda inverse=inverse: kevra.fft_resident(x, out, 7, 18, inverse, prec, 0, 0) for inverse in (False, True)]),
    "rfft": ({"batch": 7, "n": 20}, lambda x, out, prec: [
        lambda way=way: way(x, out, 7, 20, prec, 0, 0) for way in (kevra.rfft_resident, kevra.irfft_resident)]),
    "cqt": ({**SIGNAL, "plan": design(), "output": "db"}, lambda x, out, prec: [
        lambda: kevra.cqt_resident(x, out, B, L, *CASES["cqt"][0]["plan"].arguments(L), "db", 1e-10, prec)]),
}
FIVE = [{}, {"tpf": 64}, {"tpf": 128}, {"tpf": 256}, {"var": 4}]
ROWS = [{}, *({"fpb": fpb, "tpf": tpf, "core": 1} for tpf in (0, 64, 128, 256) for fpb in (0, 2) if tpf or fpb),
        {"fpb": 1, "core": 1}, {"fpb": 4, "core": 1}]
CANDIDATES = {
    "stft": FIVE, "istft": FIVE, "mel": FIVE, "cqt": [{"core": 0}, {"core": 1}],
    "stft_64": [{}, *({"ept": ept, "fpb": fpb} for ept in (8, 16) for fpb in (1, 2, 4, 8)), {"var": 240}, {"var": 48}],
    "fft": [*ROWS, *({"ept": e, "fpb": f, "core": 2} for e in (6, 18) for f in (0, 2)), {"core": 1, "var": 4}],
    "rfft": [*ROWS, *({"ept": 10, "fpb": f, "core": 2} for f in (0, 2)), {"core": 1, "var": 4}],
}
MARK = "-- next call\n"


def candidates(name, prec):
    half = [{"core": 2, "var": 2}] if name == "fft" and prec in (HALF, PACKED) else []
    zeros = {"ept": 0, "fpb": 0, "tpf": 0, "core": 0, "var": 0}
    last = [{"core": 2, "var": 8}] if "fft" in name and "st" not in name else []
    return [{**zeros, **candidate} for candidate in CANDIDATES[name] + half + last]


def job(name, prec):
    return _tuning_jobs.job(name.partition("_")[0], prec, **CASES[name][0])


def tuned_then_plain(name, prec):
    """Runs the tuner, then the plain calls under each candidate as a hint; the winners."""
    one = job(name, prec)
    with Device() as device:
        data = np.random.default_rng(1).standard_normal(one.values).astype(one.storage)
        x = device.upload(np.append(data, np.zeros(100, one.storage)))  # irfft reads two reals a row more
        out, epoch = device.empty(1 << 16, np.float64), kevra.shape_epoch()
        found = one.winners(x, **QUICK)
        assert kevra.shape_epoch() == epoch
        np.testing.assert_array_equal(device.download(x, data.shape, data.dtype), data)
        calls = CASES[name][1](x, out, prec)
        for i, call in enumerate(calls):
            for candidate in candidates(name, prec):
                for shape in one.shapes if len(calls) == 1 else one.shapes[i:i + 1]:
                    TunedShape(*shape, **candidate, ms=1.0, batch=1, length=1).apply()
                os.write(2, MARK.encode())
                call()
        device.synchronize(0)
    return found


@pytest.mark.parametrize("name, prec", [
    *((name, FLOAT) for name in CASES), ("stft", DOUBLE), ("stft_64", PACKED), ("istft", HALF), ("mel", PACKED),
    ("rfft", HALF), ("fft", PACKED), ("cqt", DOUBLE), ("cqt", HALF)])
def test_winners_are_hints_that_plain_calls_follow(name, prec):
    found, words = Fresh(tuned_then_plain, name, prec, env={"KEVRA_DEBUG": "1"}).result()
    assert all(winner.pop("ms") > 0 and winner in candidates(name, prec) for winner in map(dict, found))
    # Kernel, grid, block and shared memory of every launch.
    tuner, *plain = [re.findall(r"launch (.*) stream", part) for part in words.split(MARK)]
    assert tuner == [launch for call in plain for launch in 3 * call], "to compile, and once a measurement"
    assert len({tuple(call) for call in plain}) >= 2


def repeated(name):
    one = job(name, FLOAT)
    with Device() as device:
        x = device.upload(np.ones(one.values, np.float32))
        assert one.winners(x, iters=0, warmup=0)
        in_use = pools_in_use()
        kevra.drain_pool()
        assert one.winners(x, **QUICK) and pools_in_use() == in_use


@pytest.mark.parametrize("name", ["stft", "istft", "mel", "rfft", "cqt"])
def test_tuners_give_back_their_memory(name):
    fresh(repeated, name)


BLUESTEIN, FOUR_STEP = 1021, 32768
EMPTY = {
    "fft": [(n, prec) for n in (1, 2, 3, BLUESTEIN, FOUR_STEP, 8640) for prec in (FLOAT, DOUBLE)]
           + [(16384, DOUBLE), (FOUR_STEP, PACKED)],
    "rfft": [(n, prec) for n in (1, 2, 3, 5, 7, BLUESTEIN, FOUR_STEP, 20000) for prec in (FLOAT, DOUBLE)]
            + [(16384, DOUBLE), (FOUR_STEP, HALF)],
    "stft": [(2 * BLUESTEIN, FLOAT), (2 * FOUR_STEP, FLOAT), (8192, DOUBLE), (BLUESTEIN, HALF)],
    "istft": [(2 * BLUESTEIN, FLOAT), (16384, FLOAT), (10000, FLOAT), (10000, DOUBLE), (BLUESTEIN, HALF)],
    "mel": [(2 * BLUESTEIN, FLOAT), (2 * FOUR_STEP, FLOAT), (8192, DOUBLE), (16384, FLOAT)],
}


@pytest.mark.parametrize("name", EMPTY)
def test_shapes_that_no_hint_steers_give_an_empty_dict_and_touch_nothing(name):
    for n, prec in EMPTY[name]:
        before = pools_in_use()
        bins = n // 2 + 1
        got = {
            "fft": lambda: kevra.fft_autotune_gpu(0, 3, n, prec),
            "rfft": lambda: kevra.rfft_autotune_gpu(0, 3, n, prec),
            "stft": lambda: kevra.stft_autotune_gpu(0, 1, 4 * n, n, n, True, "db", 0.0, "hann", prec),
            "istft": lambda: kevra.istft_autotune_gpu(0, 1, bins, 9, 9 * bins, 1, bins, n, n // 4, True, "hann", prec),
            "mel": lambda: kevra.mel_autotune_gpu(0, 1, 4 * n, np.ones((3, bins)), n, n, True, 1, "", 0.0, "hann",
                                                prec),
        }[name]()
        assert got == {} and pools_in_use() == before, f"{n=} {prec=}"
    # One centred frame has no samples.
    assert kevra.istft_autotune_gpu(0, 1, 25, 1, 25, 1, 25, 48, 16, True, "boxcar", FLOAT) == {}


STFT = {**SIGNAL, **FRAMES, "center": True, "output": "power", "eps": 1e-10, "window": "hann", "prec": FLOAT,
        "device": 0, **QUICK}
ROW = {"batch": 2, "n": 20, "prec": FLOAT, "device": 0, **QUICK}
REFUSED = [
    *(("stft", changes, words) for changes, words in (
        ({"batch": 0}, "stft: batch is 0, must be at least 1"), ({"batch": 70000}, "batch exceeds grid.y limit"),
        ({"length": 20}, "signal length must exceed pad"), ({"hop": 0}, "hop is 0"), ({"n_fft": 1}, "n_fft is 1"),
        ({"window": "round"}, "round"), ({"output": "db", "eps": -1.0}, "eps is -1"),
        ({"iters": -1}, "stft: iters is -1, must be at least 0"),
        ({"warmup": -2**31}, "stft: warmup is -2147483648, must be at least 0"),
        ({"iters": 2**31 - 1}, "stft: iters is 2147483647, must be at most 100000"))),
    *((op, changes, words) for op in ("fft", "rfft") for changes, words in (
        ({"batch": 0}, f"{op}: batch is 0, must be at least 1"), ({"batch": 2**31}, "batch is 2147483648"),
        ({"n": 0}, f"{op}: n is 0"), ({"n": 2**40}, "n is 1099511627776"),
        ({"warmup": -1}, f"{op}: warmup is -1, must be at least 0"))),
]


def test_refuses_before_anything_is_queued():
    before = pools_in_use()
    for op, changes, words in REFUSED:
        with pytest.raises(ValueError, match=re.escape(words)):
            getattr(kevra, f"{op}_autotune_gpu")(0, **{**(STFT if op == "stft" else ROW), **changes})
    for tune, words in (
            (lambda: kevra.istft_autotune_gpu(0, 1, 25, 9, 225, 1, 25, 48, 48, True, "hann", 1), "NOLA"),
            (lambda: kevra.istft_autotune_gpu(0, 1, 24, 9, 0, 1, 25, 48, 16, True, "hann", 1), "bins must be"),
            (lambda: kevra.mel_autotune_gpu(0, 1, L, BANK, 48, 16, True, 3, "", 0.0, "hann", 1), "power is 3"),
            (lambda: kevra.mel_autotune_gpu(0, 1, L, BANK[:, 1:], 48, 16, True, 2, "", 0.0, "hann", 1), "mel"),
            (lambda: kevra.cqt_autotune_gpu(0, 1, L, *design(frames=99).arguments(L), "", 0.0, 1), "cqt"),
            (lambda: kevra.cqt_autotune_gpu(0, 70000, L, *design().arguments(L), "", 0.0, 1), "batch exceeds")):
        with pytest.raises(ValueError, match=words):
            tune()
    assert pools_in_use() == before


def on_the_second_device():
    with Device(1) as device:
        x = device.upload(np.ones((B, L), np.float32))
        assert kevra.stft_autotune_gpu(x, **{**STFT, "device": 1})
        with pytest.raises(RuntimeError, match="SetDevice"):
            kevra.stft_autotune_gpu(x, **{**STFT, "device": 2})


def test_each_device_is_tuned_by_itself():
    fresh(on_the_second_device, env={"KEVRA_CPU_DEVICES": "2"})


# --- Failures ---------------------------------------------------------------------------------------------------------

MEASURE = r"src/cuda_like/tune/measure\.cpp:\d+: "
FLUSH = MEASURE + r"memsetD8Async\(fl\.buf->p, 0, fl\.bytes, nullptr\) failed: .*"
# Of each device call: which of its calls fail, the text, and how many events exist by then. A candidate is run once,
# measured with two events, flushed a hundred times and measured with two more.
FAILURES = {
    "hipEventCreate": (range(1, 5), MEASURE + r"eventCreate\(&ev\) failed: .*", lambda k: k - 1),
    "hipEventRecord": (range(1, 5), MEASURE + r"eventRecord\([se]e\.v\[i\], nullptr\) failed: .*",
                       lambda k: 2 if k <= 2 else 4),
    "hipEventElapsedTime": ((1, 2, 10), MEASURE + r"eventElapsedTime\(&ms, se\.v\[i\], ee\.v\[i\]\) failed: .*",
                            lambda k: 2 * k),
    "hipStreamSynchronize": ((1, 2, 3, 4), MEASURE + r"streamSynchronize\(nullptr\) failed: .*",
                             lambda k: (0, 2, 4, 4)[k - 1]),
    "hipMemsetD8Async": ((1, 2, 101, 102, 103), FLUSH, lambda k: 2 if k <= 101 else 4 if k == 102 else 6),
    "hipModuleLaunchKernel": ((1, 2, 3, 4), r"src/rocm/context\.cpp.*\[kevra_stft\w*\] failed: .*",
                              lambda k: (0, 2, 4, 4)[k - 1]),
}


def failing(failures):
    """The texts of the calls that failed, and the blocks in use at the end."""
    texts = []
    with Device() as device:
        x = device.upload(np.ones((B, L), np.float32))
        for _ in range(failures + 1):
            try:
                assert kevra.stft_autotune_gpu(x, **STFT)
            except RuntimeError as error:
                texts.append(str(error))
            os.write(2, MARK.encode())
    return texts, pools_in_use()


def test_each_device_call_may_fail():
    _, whole = fresh(failing, 0)
    for name, (calls, text, events) in FAILURES.items():
        for k in calls:
            # Events are destroyed as often as they were made: the destruction of the last is told, and to no harm.
            plan = f"{name}:{k}" + (f",hipEventDestroy:{events(k)}" if events(k) else "")
            (texts, in_use), words = Fresh(failing, 1, env={"KEVRA_CPU_FAIL": plan}).result()
            assert len(texts) == 1 and re.fullmatch(text, texts[0]), f"{plan}: {texts}"
            assert in_use == whole, f"{plan} lost a block"
            words = words.split(MARK)[0]
            assert f"call {k} of {name} fails" in words
            assert not events(k) or f"call {events(k)} of hipEventDestroy fails" in words, plan


def test_a_compile_failure_ends_the_call(tmp_path):
    env = {"KEVRA_CPU_FAIL": "hiprtcCompileProgram:3", "KEVRA_CACHE_DIR": tmp_path}
    texts, _ = fresh(failing, 1, env=env)
    assert len(texts) == 1 and texts[0].startswith("kevra kernel compile failed:")


def test_memory_runs_out_and_comes_back():
    _, whole = fresh(failing, 0)
    for k in range(2, 20):  # the first is the test's own
        (texts, in_use), words = Fresh(failing, 1, env={"KEVRA_CPU_FAIL": f"hipMalloc:{k}"}).result()
        if "hipMalloc fails" not in words:
            break
        assert len(texts) == 1 and "r [memAlloc] failed" in texts[0] and in_use == whole, f"{k=}"
    assert k > 4


def flush_bytes():
    before = kevra._diagnostics.read()["pools"]["device"]["in_use_bytes"]
    failing(0)
    return kevra._diagnostics.read()["pools"]["device"]["in_use_bytes"] - before


def test_a_device_that_does_not_tell_its_cache_gets_64_mib():
    sizes = {fresh(flush_bytes, env={"KEVRA_CPU_FAIL": f"hipDeviceGetAttribute:{k}"}) >> 20 for k in range(1, 5)}
    assert sizes == {0, 64}
