"""Gradients of every function of kevra.torch against differences of its own values, and where they have to be 0."""

import pytest

torch = pytest.importorskip("torch", reason="PyTorch is not installed for this Python; ./test --torch runs these")

import kevra.torch as kt  # noqa: E402
from operations import BANK, BINS, EDGES, COUNTS, HOP, N_FFT, OPERATIONS, PLAN, WINDOW  # noqa: E402


@pytest.mark.parametrize("fast", [True, False], ids=["fast", "full"])
@pytest.mark.parametrize("operation", OPERATIONS, ids=str)
def test_gradients_are_those_of_the_values(operation, fast):
    inputs = [x.requires_grad_() for x in operation.inputs(torch.float64)]
    assert torch.autograd.gradcheck(operation.call, inputs, fast_mode=fast)


@pytest.mark.parametrize("operation", OPERATIONS, ids=str)
def test_single_precision_gradients_are_those_in_double(operation):
    results = []
    for dtype in torch.float32, torch.float64:
        inputs = [x.to(torch.promote_types(dtype, torch.complex64) if x.is_complex() else dtype).requires_grad_()
                  for x in operation.inputs(torch.float32)]
        out = operation.call(*inputs)
        weights = torch.cos(torch.arange(out.numel(), dtype=torch.float64)).reshape(out.shape)
        results.append(torch.autograd.grad((out * weights).real.sum(), inputs))
    for single, double in zip(*results):
        assert single.dtype in (torch.float32, torch.complex64)
        assert (single - double).norm() <= 2e-5 * double.norm()


SILENT = {
    "stft magnitude": lambda y: kt.stft(y, WINDOW, N_FFT, HOP, output="magnitude"),
    "stft decibels": lambda y: kt.stft(y, WINDOW, N_FFT, HOP, output="db"),
    "mel of magnitudes": lambda y: kt.mel(y, WINDOW, BANK, N_FFT, HOP, power=1),
    "mel roots": lambda y: kt.mel(y, WINDOW, BANK, N_FFT, HOP, output="magnitude"),
    "mel decibels": lambda y: kt.mel(y, WINDOW, BANK, N_FFT, HOP, output="db"),
    "mfcc": lambda y: kt.mfcc(y, WINDOW, BANK, N_FFT, HOP, n_out=3),
    "rms": lambda y: kt.rms(y, 12, 5),
    "cqt magnitude": lambda y: kt.cqt(y, PLAN, "magnitude"),
    "chroma": lambda y: kt.chroma(y, PLAN),
}
ZERO_MAGNITUDES = {
    "spectral_bandwidth": lambda m: kt.spectral_bandwidth(m, 500.0),
    "spectral_flatness": kt.spectral_flatness,
    "contrast": lambda m: kt.contrast(m, EDGES, COUNTS),
    "db": kt.db,
    "db with a floor": lambda m: kt.db(m, top_db=80),
    "onset_strength": kt.onset_strength,
}


@pytest.mark.parametrize("dtype", [torch.float32, torch.float64], ids=str)
@pytest.mark.parametrize("name", [*SILENT, *ZERO_MAGNITUDES])
def test_silence_has_the_gradient_zero(name, dtype):
    x = torch.zeros((2, 96) if name in SILENT else (2, BINS, 4), dtype=dtype, requires_grad=True)
    (SILENT | ZERO_MAGNITUDES)[name](x).sum().backward()
    assert torch.equal(x.grad, torch.zeros_like(x))


def test_a_silent_part_leaves_the_rest_its_gradient():
    x = torch.randn(2, 96, dtype=torch.float64)
    x[1] = 0
    x.requires_grad_()
    kt.stft(x, WINDOW, N_FFT, HOP, output="magnitude").sum().backward()
    assert torch.isfinite(x.grad).all() and (x.grad[0] != 0).all() and (x.grad[1] == 0).all()


@pytest.mark.parametrize("call", [
    lambda y: kt.stft(y, WINDOW, N_FFT, HOP, output="power"), lambda y: kt.rms(y, 12, 5),
    lambda y: kt.convolve(y, y)], ids=["stft", "rms", "convolve"])
def test_second_derivatives_are_refused_and_first_ones_are_not(call):
    y = torch.randn(2, 64, dtype=torch.float64, requires_grad=True)
    (g,) = torch.autograd.grad(call(y).square().sum(), y, create_graph=True)
    (plain,) = torch.autograd.grad(call(y).square().sum(), y)
    assert torch.equal(g, plain)
    with pytest.raises(RuntimeError, match="second derivatives are not offered; take gradients without create_graph"):
        g.sum().backward()
