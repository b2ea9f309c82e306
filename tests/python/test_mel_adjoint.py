"""Gradients of mel spectrograms, against numpy's transposed steps, differences and dot products."""

import itertools

import kevra
import numpy as np
import pytest
from mel_gradients import BOUND, RESULTS, assert_rows, banks_of, mel_transposed
from signal_gradients import LAYOUTS, Guarded, frames_in, laid_out
from support import DOUBLE, FLOAT, STORAGE, Device, fresh, pools_in_use

ROUTES = {  # n_fft, hop
    "fused": ((2, 1), (64, 16), (400, 160), (1024, 256), (17, 5), (34, 40)),
    "staged": ((1009, 300), (20000, 8000)),
}
CASES = [pytest.param(n, hop, id=f"{n} {hop} {label}") for label, sizes in ROUTES.items() for n, hop in sizes]


@pytest.fixture(autouse=True)
def as_at_start():
    yield
    kevra.set_deterministic(0)


def resident(y, fb, n, hop, center, power, output, g, prec, eps=1e-10, layout="bins adjacent", with_stream=False):
    storage = STORAGE[prec]
    memory, sb, sk, st = laid_out(g.astype(storage), layout)
    with Device() as device:
        stream = device.stream() if with_stream else 0
        gx = Guarded(device, y.size, storage)
        kevra.mel_adjoint_resident(device.upload(memory), device.upload(y.astype(storage)), gx.address, len(y),
                                   len(fb), g.shape[1], sb, sk, st, fb, n, hop, center, y.shape[1], power, output, eps,
                                   "hann", prec, 0, stream)
        device.synchronize(stream)
        return gx.read(*y.shape).astype(np.float64)


def signal_and_gradient(n, hop, center, n_mels, seed=0, frames=5, batch=3):
    rng = np.random.default_rng(n + seed)
    y = rng.standard_normal((batch, (frames - 1) * hop + n + hop // 3))
    return y, rng.standard_normal((batch, frames_in(y.shape[1], n, hop, center), n_mels))


@pytest.mark.parametrize(("n", "hop"), CASES)
def test_every_result_bank_layout_and_route(n, hop):
    layouts = itertools.cycle(LAYOUTS)
    settings = itertools.cycle([(0, True), (1, False), (1, True), (0, False)])
    precisions = itertools.cycle([FLOAT, DOUBLE] if hop % 4 else [DOUBLE, FLOAT])
    for (power, output), (kind, fb) in itertools.product(RESULTS, banks_of(n).items()):
        (deterministic, center), layout, prec = next(settings), next(layouts), next(precisions)
        kevra.set_deterministic(deterministic)
        y, g = signal_and_gradient(n, hop, center, len(fb))
        y = y.astype(STORAGE[prec])
        want = mel_transposed(y, fb, n, hop, center, power, output, g, 1e-3)
        got = resident(y, fb, n, hop, center, power, output, g, prec, 1e-3, layout, prec == FLOAT)
        assert_rows(got, want, BOUND[prec], f"{n=} {hop=} {kind} {power=} {output=} {prec=} {deterministic=} {layout}")


@pytest.mark.parametrize(("power", "output"), RESULTS)
@pytest.mark.parametrize(("n", "hop"), [(64, 16), (15, 4), (2018, 900)])
def test_is_the_derivative_of_the_forward_pass(n, hop, power, output):
    rng = np.random.default_rng(n)
    for fb in banks_of(n).values():
        y, g = signal_and_gradient(n, hop, True, len(fb), 1)
        got = resident(y, fb, n, hop, True, power, output, g, DOUBLE, 1e-2)
        for _ in range(3):
            step = rng.standard_normal(y.shape) * 1e-6
            ahead, behind = (kevra.mel_staged(y + s, "hann", fb, n, hop, True, power, output, 1e-2)
                             for s in (step, -step))
            want = np.vdot(g, (ahead - behind).swapaxes(1, 2)) / 2
            assert abs(want - np.vdot(got, step)) <= 1e-6 * np.linalg.norm(got) * np.linalg.norm(step)


@pytest.mark.parametrize("prec", [FLOAT, DOUBLE])
@pytest.mark.parametrize("n", [32, 2018])
def test_silence_and_single_zero_bins_have_finite_gradients(n, prec):
    # A frame of silence, one of one tone, one of noise, each for itself.
    y = np.zeros((1, 3 * n))
    y[:, n:2 * n] = np.resize([1, -1], n)
    y[:, 2 * n:] = np.random.default_rng(n).standard_normal(n)
    for (kind, fb), (power, output), eps in itertools.product(banks_of(n).items(), RESULTS, (1e-10, 0)):
        got = resident(y, fb, n, n, False, power, output, np.ones((1, 3, len(fb))), prec, eps)
        assert np.isfinite(got).all(), (kind, power, output, eps)
        np.testing.assert_array_equal(got[:, :n], 0)
        assert np.linalg.norm(got[:, 2 * n:]) > 0
    # Bins that no band has pass nothing on.
    only_first = np.eye(1, n // 2 + 1)
    got = resident(y, only_first, n, n, False, 2, "power", np.ones((1, 3, 1)), prec)
    want = mel_transposed(y, only_first, n, n, False, 2, "power", np.ones((1, 3, 1)))
    np.testing.assert_allclose(got, want, atol={FLOAT: 1e-4, DOUBLE: 1e-12}[prec] * abs(want).max())


def repeated(n, hop, output):
    kevra.set_deterministic(1)
    fb = banks_of(n)["crowded"]
    y, g = signal_and_gradient(n, hop, True, len(fb), frames=9)
    with Device() as device:
        at = [device.upload(a.astype(np.float32)) for a in (g, y)]
        gx = device.empty(y.size, np.float32)
        results = []
        for _ in range(20):
            kevra.mel_adjoint_resident(*at, gx, len(y), len(fb), g.shape[1], g[0].size, 1, len(fb), fb, n, hop, True,
                                       y.shape[1], 2, output, 1e-10, "hann", FLOAT)
            results.append(device.download(gx, y.size, np.float32).tobytes())
    return results


@pytest.mark.parametrize(("n", "hop"), [(64, 5), (1009, 250)])
def test_deterministic_runs_agree_bit_for_bit(n, hop):
    assert len(set(fresh(repeated, n, hop, "db", env={"KEVRA_CPU_ORDER": "shuffle:7"}))) == 1


def both_routes():
    for n, hop in (64, 5), (578, 300), (1009, 500):
        for deterministic, (fb, (power, output)) in enumerate(
                zip(list(banks_of(n).values()) * 2, [(2, "db"), (1, "magnitude"), (1, "db"), (2, "power")], strict=True)):
            kevra.set_deterministic(deterministic % 2)
            y, g = signal_and_gradient(n, hop, True, len(fb), frames=3)
            resident(y, fb, n, hop, True, power, output, g, FLOAT + deterministic // 2)


def test_check_mode_finds_nothing():
    fresh(both_routes, env={"KEVRA_CPU_CHECK": "1"})


def test_what_comes_and_goes_with_a_plan():
    """A bank's entries, powers and forms that differ give results that differ, and repeats take no new memory."""
    n, hop = 64, 16
    y, g = signal_and_gradient(n, hop, True, 9)
    first, second = banks_of(n).values()
    settings = [(fb, power, output) for fb in (first, second, first[::-1].copy()) for power, output in RESULTS]
    for _ in range(2):
        for fb, power, output in settings:
            got = resident(y, fb, n, hop, True, power + 0.2, output, g, DOUBLE)
            assert_rows(got, mel_transposed(y, fb, n, hop, True, power, output, g), 1e-12, (power, output))
        before = pools_in_use()
    assert pools_in_use() == before


GOOD = {"batch": 2, "n_mels": 3, "frames": 5, "stride_batch": 15, "stride_bin": 1, "stride_frame": 3,
        "fb": np.ones((3, 9)), "n_fft": 16, "hop": 4, "center": False, "length": 32, "power": 2, "output": "db",
        "eps": 1e-10, "window": "hann", "prec": FLOAT}
SHAPE = r"^mel_adjoint: filterbank shape must be \(n_mels, n_fft/2\+1\)$"
REFUSED = [
    ({"prec": 0}, "^adjoint: half gradients compute in f32; upcast the tensors$"),
    ({"prec": 3}, "^adjoint: half gradients compute in f32; upcast the tensors$"),
    ({"n_mels": 4}, SHAPE), ({"fb": np.ones((3, 8))}, SHAPE), ({"fb": np.ones(9)}, SHAPE),
    ({"frames": 6}, "^mel_adjoint: frames is 6, must be 5"),
    ({"batch": -1}, "^mel_adjoint: batch is -1"),
    ({"power": 3}, "^mel: power is 3, must be 1"),
    ({"power": float("nan")}, "^mel: power is nan"),
    ({"eps": -1.0}, "^mel: eps is -1"),
    ({"length": 15}, "^mel_adjoint: signal too short for n_fft"),
    ({"window": np.ones(15)}, "window array must have win_length"),
]


def test_refusals_and_nothing_for_no_rows():
    # The transform fits a block, the spectrum beside it does not.
    large = {"n_fft": 4096, "length": 4112, "fb": np.ones((3, 2049)), "prec": DOUBLE}
    with pytest.raises(ValueError, match="^mel_adjoint: n_fft exceeds the device shared-memory limit"):
        kevra.mel_adjoint_resident(0, 0, 0, **{**GOOD, **large})
    before = pools_in_use()
    for change, words in REFUSED:
        with pytest.raises(ValueError, match=words):
            kevra.mel_adjoint_resident(0, 0, 0, **{**GOOD, **change})
    kevra.mel_adjoint_resident(0, 0, 0, **{**GOOD, "batch": 0})
    assert pools_in_use() == before
