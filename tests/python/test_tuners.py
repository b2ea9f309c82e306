"""The tuners: what they return, that their winners reach the plain calls, and what failures leave behind."""

import os
import re

import kevra
import numpy as np
import pytest
from constant_q import Plan, basis, half_band, new_key
from support import DOUBLE, FLOAT, HALF, STORAGE, Device, Fresh, fresh, pools_in_use

PACKED = 3
QUICK = {"iters": 1, "warmup": 1}
ZEROS = {"ept": 0, "fpb": 0, "tpf": 0, "core": 0, "var": 0}
BANK = np.random.default_rng(2).uniform(0, 1, (5, 25))
B, L, N, HOP = 2, 400, 48, 16


def storage(prec):
    return STORAGE[HALF if prec == PACKED else prec]


def constant_q():
    rng = np.random.default_rng(3)
    octaves = [(0, 16, 64, 3, *basis(rng, 3, 64)), (1, 8, 32, 0, *basis(rng, 3, 32))]
    return Plan(2, octaves, half_band(), new_key(), 6, 20)


class Operation:
    """A tuner, the plain call of the same shape, and how a hint for it is set."""

    def __init__(self, device, prec):
        self.prec = prec
        self.x = device.upload(np.random.default_rng(1).standard_normal(4 * B * L).astype(storage(prec)))
        self.out = device.empty(16 * B * L, np.float64)
        self.bits = {HALF: 16, FLOAT: 32, DOUBLE: 64, PACKED: 16}[prec]

    def hint(self, op, n, hop, center, output="complex", extra=0, bits=None):
        def wish(ept=0, fpb=0, tpf=0, core=0, var=0, ms=0):
            kevra.set_shape_hint(op, n, hop, center, bits or self.bits, output, extra, 0, ept, fpb, tpf, core, var)
        return wish

    def stft(self):
        arguments = B, L, N, HOP, True, "power", 1e-10, "hann", self.prec
        return (lambda **run: [kevra.stft_autotune_gpu(self.x, *arguments, **run)],
                [lambda: kevra.stft_resident(self.x, self.out, *arguments)],
                [self.hint("stft", N, HOP, True, "power")])

    def stft_of_64(self):
        arguments = B, L, 64, HOP, False, "complex", 1e-10, "hann", self.prec
        return (lambda **run: [kevra.stft_autotune_gpu(self.x, *arguments, **run)],
                [lambda: kevra.stft_resident(self.x, self.out, *arguments)],
                [self.hint("stft", 64, HOP, False, bits=8 if self.prec == PACKED else None)])

    def istft(self):
        bins = N // 2 + 1
        spectra = self.x, B, bins, 10, 10 * bins, 1, bins, N, HOP, True
        return (lambda **run: [kevra.istft_autotune_gpu(*spectra, "hann", self.prec, **run)],
                [lambda: kevra.istft_resident(spectra[0], self.out, *spectra[1:], -1, "hann", self.prec)],
                [self.hint("istft", N, HOP, True)])

    def mel(self):
        arguments = B, L, BANK, N, HOP, False, 2, "db", 1e-10, "hann", self.prec
        return (lambda **run: [kevra.mel_autotune_gpu(self.x, *arguments, **run)],
                [lambda: kevra.mel_resident(self.x, self.out, *arguments)],
                [self.hint("mel", N, HOP, False, "db", len(BANK))])

    def fft(self):
        bits = 8 if self.prec == PACKED else None
        return (lambda **run: list(kevra.fft_autotune_gpu(self.x, 7, 18, self.prec, **run).values()),
                [lambda inverse=inverse: kevra.fft_resident(self.x, self.out, 7, 18, inverse, self.prec, 0, 0)
                 for inverse in (False, True)],
                [self.hint("fft", 18, 0, inverse, bits=bits) for inverse in (False, True)])

    def rfft(self):
        return (lambda **run: list(kevra.rfft_autotune_gpu(self.x, 7, 20, self.prec, **run).values()),
                [lambda way=way: way(self.x, self.out, 7, 20, self.prec, 0, 0)
                 for way in (kevra.rfft_resident, kevra.irfft_resident)],
                [self.hint("rfft", 20, 0, inverse) for inverse in (False, True)])

    def cqt(self):
        plan = constant_q().arguments
        wishes = [self.hint("cqt", n, hop, False, "db", bits=64 if self.prec == DOUBLE else 32)
                  for n, hop in ((64, 16), (32, 8))]

        def tune(**run):
            winner = kevra.cqt_autotune_gpu(self.x, B, L, *plan, "db", 1e-10, self.prec, **run)
            assert winner.pop("octaves") == [(64, 16), (32, 8)]
            return [{**ZEROS, **winner}]

        return (tune, [lambda: kevra.cqt_resident(self.x, self.out, B, L, *plan, "db", 1e-10, self.prec)],
                [lambda **wish: [one(**wish) for one in wishes]])


NAMES = ["stft", "stft_of_64", "istft", "mel", "fft", "rfft", "cqt"]
FIVE = [{}, {"tpf": 64}, {"tpf": 128}, {"tpf": 256}, {"var": 4}]
ROWS = [{}, *({"fpb": fpb, "tpf": tpf, "core": 1} for tpf in (0, 64, 128, 256) for fpb in (0, 2) if tpf or fpb),
        {"fpb": 1, "core": 1}, {"fpb": 4, "core": 1}]
CANDIDATES = {
    "stft": FIVE, "istft": FIVE, "mel": FIVE,
    "stft_of_64": [{}, *({"ept": ept, "fpb": fpb} for ept in (8, 16) for fpb in (1, 2, 4, 8)), {"var": 240},
                   {"var": 48}],
    "fft": [*ROWS, *({"ept": e, "fpb": f, "core": 2} for e in (6, 18) for f in (0, 2)), {"core": 1, "var": 4},
            {"core": 2, "var": 8}],
    "rfft": [*ROWS, *({"ept": 10, "fpb": f, "core": 2} for f in (0, 2)), {"core": 1, "var": 4}, {"core": 2, "var": 8}],
    "cqt": [{"core": 0}, {"core": 1}],
}


def winners(name, prec):
    with Device() as device:
        before = kevra.shape_epoch()
        operation = Operation(device, prec)
        tune, plain, hints = getattr(operation, name)()
        data = device.download(operation.x, (4 * B * L,), storage(prec))
        found = tune(**QUICK)
        assert tune(iters=0, warmup=0)
        in_use = pools_in_use()
        assert kevra.shape_epoch() == before and kevra.drain_pool() is None
        np.testing.assert_array_equal(device.download(operation.x, (4 * B * L,), storage(prec)), data)
        assert tune(**QUICK) and pools_in_use() == in_use
    assert len(found) == len(plain)
    return found


@pytest.mark.parametrize("name, prec", [
    *((name, FLOAT) for name in NAMES),
    ("stft", DOUBLE), ("istft", DOUBLE), ("rfft", HALF), ("fft", PACKED), ("cqt", DOUBLE)])
def test_winners_are_candidates_and_nothing_else_changes(name, prec):
    allowed = [{**ZEROS, **candidate} for candidate in CANDIDATES[name]]
    if name == "fft" and prec == PACKED:
        allowed.append({**ZEROS, "core": 2, "var": 2})
    for winner in winners(name, prec):
        assert 0 < winner["ms"] < 1e4
        assert {key: winner[key] for key in ZEROS} in allowed


MARK = "-- next call\n"


def tuned_then_plain(name):
    with Device() as device:
        tune, plain, hints = getattr(Operation(device, FLOAT), name)()
        tune(**QUICK)
        for call, hint in zip(plain, hints):
            for candidate in CANDIDATES[name]:
                hint(**candidate)
                os.write(2, MARK.encode())
                call()
        device.synchronize(0)


@pytest.mark.parametrize("name", NAMES)
def test_hints_make_plain_calls_run_what_the_tuner_ran(name):
    _, words = Fresh(tuned_then_plain, name, env={"KEVRA_DEBUG": "1", "KEVRA_CPU_NULL": "1"}).result()
    # Kernel, grid, block and shared memory of every launch.
    tuner, *plain = [re.findall(r"launch (.*) stream", part) for part in words.split(MARK)]
    assert tuner == [launch for call in plain for launch in 3 * call], "to compile, and once a measurement"
    assert len({tuple(call) for call in plain}) >= 2


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


def test_no_samples_leave_nothing_to_measure():
    assert kevra.istft_autotune_gpu(0, 1, 25, 1, 25, 1, 25, 48, 16, True, "boxcar", FLOAT) == {}


STFT = {"batch": B, "length": L, "n_fft": N, "hop": HOP, "center": True, "output": "power", "eps": 1e-10,
        "window": "hann", "prec": FLOAT, "device": 0, "iters": 1, "warmup": 1}
ROW = {"batch": 2, "n": 20, "prec": FLOAT, "device": 0, "iters": 1, "warmup": 1}
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


@pytest.mark.parametrize("op, changes, words", REFUSED, ids=[f"{row[0]} {row[1]}" for row in REFUSED])
def test_refuses_before_anything_is_queued(op, changes, words):
    before = pools_in_use()
    with pytest.raises(ValueError, match=re.escape(words)):
        getattr(kevra, f"{op}_autotune_gpu")(0, **{**(STFT if op == "stft" else ROW), **changes})
    assert pools_in_use() == before


def test_other_operations_refuse_what_their_plain_calls_refuse():
    bins, plan = N // 2 + 1, constant_q()
    for tune, words in (
            (lambda: kevra.istft_autotune_gpu(0, 1, bins, 9, 9 * bins, 1, bins, N, N, True, "hann", 1), "NOLA"),
            (lambda: kevra.istft_autotune_gpu(0, 1, bins - 1, 9, 0, 1, bins, N, HOP, True, "hann", 1), "bins must be"),
            (lambda: kevra.mel_autotune_gpu(0, 1, L, BANK, N, HOP, True, 3, "", 0.0, "hann", 1), "power is 3"),
            (lambda: kevra.mel_autotune_gpu(0, 1, L, BANK[:, 1:], N, HOP, True, 2, "", 0.0, "hann", 1), "mel"),
            (lambda: kevra.cqt_autotune_gpu(0, 1, L, *plan.changed(frames=99).arguments, "", 0.0, 1), "cqt"),
            (lambda: kevra.cqt_autotune_gpu(0, 70000, L, *plan.arguments, "", 0.0, 1), "batch exceeds")):
        with pytest.raises(ValueError, match=words):
            tune()


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
