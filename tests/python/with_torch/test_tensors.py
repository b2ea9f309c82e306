"""How kevra.torch takes tensors: values, memory, layouts, and what it refuses."""

import functools
import threading

import pytest

torch = pytest.importorskip("torch", reason="PyTorch is not installed for this Python; ./test --torch runs these")

import kevra  # noqa: E402
import kevra.torch as kt  # noqa: E402
import numpy as np  # noqa: E402
from kevra.torch import _resident  # noqa: E402
from operations import BANK, BINS, EDGES, COUNTS, HOP, INVERSE, N_FFT, OPERATIONS, WINDOW  # noqa: E402


@pytest.mark.parametrize("dtype", [torch.float32, torch.float64], ids=str)
@pytest.mark.parametrize("operation", OPERATIONS, ids=str)
def test_values_are_those_of_numpy_s_side(operation, dtype):
    inputs = operation.inputs(dtype)
    got = operation.call(*inputs)
    wanted = operation.staged(*(x.numpy() for x in inputs))
    wanted = wanted.reshape(got.shape)  # a statistic of frames may keep an axis of one
    assert got.dtype == (torch.promote_types(dtype, torch.complex64) if np.iscomplexobj(wanted) else dtype)
    assert not got.requires_grad
    assert np.linalg.norm(got.numpy() - wanted) <= (1e-5 if dtype == torch.float32 else 1e-12) * np.linalg.norm(wanted)


def test_a_result_is_complete_when_the_call_returns():
    y = torch.randn(16, 16000)
    for _ in range(5):
        got = kt.stft(y, WINDOW, 512, 128).clone()
        assert np.array_equal(got.numpy(), kevra.stft_staged(y.numpy(), WINDOW, 512, 128, True, "complex"))


def test_tensors_are_handed_over_without_a_copy(monkeypatch):
    seen = {}

    def watch(name):
        function = getattr(kevra, name)

        @functools.wraps(function)
        def watched(*arguments):
            seen[name] = arguments
            return function(*arguments)

        monkeypatch.setattr(kevra, name, watched)

    for name in "stft_resident", "istft_resident", "spectral_reduce_resident", "stft_adjoint_resident":
        watch(name)
    y = torch.randn(3, 2, 96, requires_grad=True)
    spectra = kt.stft(y, WINDOW, N_FFT, HOP)
    assert seen["stft_resident"][0] == y.data_ptr() and seen["stft_resident"][1] == spectra.data_ptr()
    kt.istft(spectra.detach(), WINDOW, N_FFT, HOP)
    assert seen["istft_resident"][0] == spectra.data_ptr()
    magnitudes = kt.stft(y.detach(), WINDOW, N_FFT, HOP, output="magnitude")
    kt.spectral_centroid(magnitudes, 1.0)
    assert seen["spectral_reduce_resident"][0] == magnitudes.data_ptr()
    g = torch.randn_like(spectra)
    spectra.backward(g)
    assert seen["stft_adjoint_resident"][0] == g.data_ptr() and seen["stft_adjoint_resident"][1] == y.grad.data_ptr()


@pytest.mark.parametrize("operation", OPERATIONS, ids=str)
def test_any_layout_and_any_leading_axes(operation):
    """Every second element of turned axes, (2, 1, 3) of them in front: as the same values lying plainly."""
    first, *others = operation.inputs(torch.float64)
    others = [other[:1] for other in others]
    values = torch.stack([first, first * 0.7 + 0.1, first * 0.5 + 0.2])[:, None]
    spread = torch.zeros(*values.shape[:-1], 2 * values.shape[-1], dtype=values.dtype)
    spread[..., ::2] = values
    odd = spread[..., ::2].transpose(0, 2).requires_grad_()
    plain = odd.detach().reshape(6, *first.shape[1:]).clone().requires_grad_()
    out, wanted = operation.call(odd, *others), operation.call(plain, *others)
    assert not odd.is_contiguous() and out.shape == (2, 1, 3, *wanted.shape[1:])
    weights = torch.cos(torch.arange(wanted.numel(), dtype=torch.float64)).reshape(wanted.shape)
    (out * weights.reshape(out.shape)).real.sum().backward()
    (wanted * weights).real.sum().backward()
    torch.testing.assert_close(out.reshape(wanted.shape), wanted, rtol=1e-12, atol=1e-12)
    torch.testing.assert_close(odd.grad.reshape(plain.shape), plain.grad, rtol=1e-11, atol=1e-11)
    alone = operation.call(plain[0], *others)
    torch.testing.assert_close(alone, wanted[0] if not others else wanted[:1], rtol=1e-12, atol=1e-12)


def test_lazy_conjugates_and_broadcast_gradients():
    z = torch.randn(2, BINS, 5, dtype=torch.complex128)
    assert torch.equal(kt.istft(z.conj(), WINDOW, N_FFT, HOP), kt.istft(z.conj().resolve_conj(), WINDOW, N_FFT, HOP))
    negative = z.conj().imag[:, 0].expand(3, 2, 5).reshape(3, 10)
    plain = negative.resolve_neg().clone()
    assert torch.equal(kt.convolve(z.conj().imag, plain[0]), kt.convolve(-z.imag, plain[0]))
    gradients = []
    for spread in lambda s: s.sum(), lambda s: (s * torch.ones_like(s)).sum():
        y = torch.ones(2, 61, dtype=torch.float64, requires_grad=True)
        spread(kt.stft(y, WINDOW, N_FFT, HOP, output="power")).backward()
        gradients.append(y.grad)
    assert torch.equal(*gradients)


def test_nothing_is_kept_where_no_gradient_is_wanted(monkeypatch):
    calls = []
    correlate = kevra.conv_adjoint_resident
    monkeypatch.setattr(kevra, "conv_adjoint_resident", lambda *numbers: calls.append(numbers) or correlate(*numbers))
    y, kernel = torch.randn(2, 64), torch.randn(5, requires_grad=True)
    assert kt.stft(y, WINDOW, N_FFT, HOP).grad_fn is None
    with torch.no_grad():
        assert kt.convolve(y, kernel).grad_fn is None
    kt.convolve(y, kernel).sum().backward()
    assert len(calls) == 1 and y.grad is None and kernel.grad.shape == (5,)


def test_no_rows():
    y, kernel = torch.zeros(0, 64, requires_grad=True), torch.randn(5, requires_grad=True)
    kt.convolve(y, kernel).sum().backward()
    assert y.grad.shape == (0, 64) and torch.equal(kernel.grad, torch.zeros(5))


@pytest.mark.parametrize("narrow", [torch.float16, torch.bfloat16], ids=str)
def test_narrow_types_are_widened_and_get_their_gradient_back(narrow):
    y = torch.randn(2, 96).to(narrow).requires_grad_()
    wide = y.detach().float().requires_grad_()
    out, wanted = (kt.stft(x, WINDOW, N_FFT, HOP, output="power") for x in (y, wide))
    assert out.dtype == torch.float32 and torch.equal(out, wanted)
    out.sum().backward()
    wanted.sum().backward()
    assert y.grad.dtype == narrow and torch.equal(y.grad, wide.grad.to(narrow))


Y, Z, M = torch.zeros(2, 64), torch.zeros(2, BINS, 4, dtype=torch.complex64), torch.zeros(2, BINS, 4)
REFUSED = {
    "no tensor": (lambda: kt.stft(Y.numpy(), WINDOW, N_FFT, HOP), TypeError, "y is a ndarray, must be a torch.Tensor"),
    "whole numbers": (lambda: kt.rms(Y.int(), 12, 5), TypeError, "y is torch.int32, must be float32 or float64"),
    "complex": (lambda: kt.mel(Z[0], WINDOW, BANK, N_FFT, HOP), TypeError, "take its abs.. or real part"),
    "sparse": (lambda: kt.db(M.to_sparse()), TypeError, "must be dense"),
    "another device": (lambda: kt.stft(Y.to("meta"), WINDOW, N_FFT, HOP), ValueError,
                       "y is on meta and kevra runs on the CPU device; move it by .to.'cpu'"),
    "too few axes": (lambda: kt.onset_strength(Y[0]), ValueError, "m has 1 dimensions, must have at least 2"),
    "a hop of 0": (lambda: kt.stft(Y, WINDOW, N_FFT, 0), ValueError, "hop"),
    "a negative frame": (lambda: kt.stft(Y, WINDOW, -16, HOP), ValueError, "n_fft"),
    "a signal too short": (lambda: kt.stft(Y, WINDOW, 256, HOP), ValueError, "stft"),
    "an output": (lambda: kt.stft(Y, WINDOW, N_FFT, HOP, output="phase"), ValueError, "output is 'phase'"),
    "a bank of another shape": (lambda: kt.mel(Y, WINDOW, BANK[:, 1:], N_FFT, HOP), ValueError, "filterbank"),
    "a bank of one row": (lambda: kt.mel(Y, WINDOW, BANK[0], N_FFT, HOP), ValueError, "mel"),
    "a window to be learnt": (lambda: kt.stft(Y, torch.ones(16, requires_grad=True), N_FFT, HOP), ValueError,
                              "window requires a gradient, and none is offered"),
    "bins": (lambda: kt.istft(Z, WINDOW, 32, HOP), ValueError, "bins"),
    "a length of 0": (lambda: kt.istft(Z, WINDOW, N_FFT, HOP, length=0), ValueError, "length is 0"),
    "bands": (lambda: kt.contrast(M, EDGES, COUNTS[:1]), ValueError, "contrast"),
    "an amin": (lambda: kt.db(M, amin=0), ValueError, "amin is 0"),
    "a plan": (lambda: kt.cqt(Y, None), TypeError, "plan is a NoneType"),
    "11 classes": (lambda: kt.tonnetz(torch.zeros(1, 11, 4)), ValueError, "c has 11 classes"),
    "an inverse": (lambda: kt.inverse_mel_scale(M, INVERSE), ValueError, "P has shape"),
    "a mode": (lambda: kt.convolve(Y, Y, "circular"), ValueError, "mode is 'circular'"),
    "a kernel too long": (lambda: kt.convolve(Y[:, :3], Y, "valid"), ValueError, "must have at least the 64 of b"),
}


@pytest.mark.parametrize("what", REFUSED)
def test_what_cannot_be_computed_is_refused_plainly(what):
    call, error, message = REFUSED[what]
    with pytest.raises(error, match=message):
        call()


def test_torch_tensors_serve_as_window_and_bank():
    y = torch.randn(2, 64)
    got = kt.mel(y, torch.hann_window(N_FFT, dtype=torch.float64), torch.from_numpy(BANK), N_FFT, HOP)
    torch.testing.assert_close(got, kt.mel(y, WINDOW, BANK, N_FFT, HOP))


def test_on_a_gpu_the_current_stream_and_the_tensor_s_device_are_used(monkeypatch):
    """No GPU is needed: tensors that say to be on one, and what the resident function is then given."""
    class OnGpu(torch.Tensor):
        device = property(lambda self: torch.device("cuda", 3))

    held, given = [], []

    class Guard:
        def __init__(self, device):
            self.device = device

        def __enter__(self):
            held.append(self.device.index)

        def __exit__(self, *_):
            held.pop()

    class Stream:
        cuda_stream = 4711

    monkeypatch.setattr(torch.cuda, "device", Guard)
    monkeypatch.setattr(torch.cuda, "current_stream", lambda device: Stream)
    y = torch.zeros(4, dtype=torch.float64).as_subclass(OnGpu)
    _resident.queue(lambda *numbers: given.append((numbers, list(held))), y, "hann", 5)
    assert given == [((y.data_ptr(), "hann", 5, 2, 3, 4711), [3])] and not held


def test_threads_side_by_side():
    y = torch.randn(2, 4000, dtype=torch.float64)
    wanted = kt.mel(y, WINDOW, kevra.mel_filter_bank(8000, 256, 20), 256, 64)
    got = {}

    def work(number):
        for _ in range(10):
            got[number] = kt.mel(y, WINDOW, kevra.mel_filter_bank(8000, 256, 20), 256, 64)

    threads = [threading.Thread(target=work, args=(number,)) for number in range(4)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    for result in got.values():
        torch.testing.assert_close(result, wanted, rtol=1e-13, atol=0)
    assert len(got) == 4


def test_a_launch_that_fails_is_told(run_python):
    child = run_python(
        "import kevra, torch, kevra.torch as kt\n"
        "kt.rms(torch.zeros(2, 64), 12, 5)\n", env={"KEVRA_CPU_FAIL": "hipStreamSynchronize:1:719"}, check=False)
    assert "RuntimeError: rms_resident failed on the CPU device" in child.stderr
