"""Every call of HIP and hipRTC that an operation makes fails once: what the caller sees, and that nothing is lost."""

import ctypes
import itertools
import re
from pathlib import Path

import kevra
import numpy as np
import pytest
from kevra import _diagnostics, _rocm
from support import (
    DOUBLE, FLOAT, Device, Fresh, HipFailure, assert_fft, fft_reference, pools_in_use, rms_reference, rms_tolerance,
)

HIP = ctypes.CDLL(kevra.cpu_device_path())
RTC = ctypes.CDLL(str(Path(kevra.cpu_device_path()).with_name("libhiprtc.so")))
# What the extension binds, from the names that it holds: a call that comes to use is covered by itself.
NAMES = sorted(
    name for name in {text.decode() for text in re.findall(rb"hip(?:rtc)?[A-Z]\w+", Path(_rocm.__file__).read_bytes())}
    if hasattr(RTC if name.startswith("hiprtc") else HIP, name))

OWN_CALL = "a call of the test's own"
NO_DEVICE = "no HIP device available"
COMPILE_FAILED = "kevra kernel compile failed:\n\n?kernel kevra_rms, options: none\n(?s:.*)"
RUNTIME = r"::kevra::hip_dl::api\(\)\."
# The text for each failing call; None where the failure is made good or does not matter.
TEXTS = {
    "hipInit": NO_DEVICE,
    "hipGetDeviceCount": NO_DEVICE,
    "hipSetDevice": rf"src/rocm/context\.cpp:\d+: {RUNTIME}SetDevice\(dev_id\) failed: WORDS",
    "hipGetDevice": None,
    "hipGetDevicePropertiesR0600": None,
    "hipMalloc": r"src/rocm/device_pool\.cpp:\d+: r \[memAlloc\] failed: WORDS",
    "hipHostMalloc": None,
    "hipFree": None,
    "hipHostFree": None,
    "hipMemcpyHtoD": r"src/cuda_like/staged\.cpp:\d+: memcpyHtoD\(b\.p, s\.p, bytes\) failed: WORDS",
    "hipMemcpyDtoH": r"src/cuda_like/ops/features\.cpp:\d+: memcpyDtoH\(out\.mutable_data\(\), dy\.p, "
                     r"\(size_t\)batch \* frames \* sizeof\(T\)\) failed: WORDS",
    "hipModuleLoadData": r"hipModuleLoadData failed for kevra_rms \(\d+-byte code object compiled for cpu-\S+\): WORDS",
    "hipModuleGetFunction": rf"src/rocm/compile\.cpp:\d+: {RUNTIME}ModuleGetFunction\(&fn, mod, name\.c_str\(\)\) "
                            "failed: WORDS",
    "hipModuleLaunchKernel": rf"src/rocm/context\.cpp:\d+: {RUNTIME}ModuleLaunchKernel\(fn, gx, gy, 1, block, 1, 1, "
                             r"shared,\s+stream, args, nullptr\) \[kevra_rms\] failed: WORDS",
    "hiprtcCreateProgram": r"src/rocm/compile:\d+: rtc\.CreateProgram\(&prog_?, source\.c_str\(\), \(\w+ \+ \"\.hip\"\)"
                           r"\.c_str\(\), 0, nullptr,\s+nullptr\) failed: WORDS",
    "hiprtcCompileProgram": COMPILE_FAILED,
    "hiprtcGetCodeSize": r"src/rocm/compile:\d+: rtc_?\.GetCodeSize\(prog_?, &codeSize\) failed: WORDS",
    "hiprtcGetCode": r"src/rocm/compile:\d+: rtc_?\.GetCode\(prog_?, code\.data\(\)\) failed: WORDS",
    "hiprtcDestroyProgram": None,
}
MADE_GOOD_BY_A_COMPILE = {"hipModuleLoadData", "hipModuleGetFunction"}  # a cached object that does not load
COMBINED = [
    ("hipMalloc:1:2", None),  # out of memory: trimmed and tried again
    ("hipMalloc:1:2,hipMalloc:2:2", TEXTS["hipMalloc"]),
    ("hipHostMalloc:1,hipHostMalloc:2", r"src/rocm/pinned_pool\.cpp:\d+: r \[hipHostMalloc\] failed: WORDS"),
    ("hipMemcpyHtoD:1,hipGetErrorString:1", TEXTS["hipMemcpyHtoD"].replace("WORDS", "unknown HIP error")),
    ("hipModuleLoadData:1,hipGetErrorString:1", TEXTS["hipModuleLoadData"].replace("WORDS", "unknown HIP error")),
    ("hiprtcGetCode:1,hiprtcGetErrorString:1", TEXTS["hiprtcGetCode"].replace("WORDS", "unknown hipRTC error")),
    ("hiprtcCompileProgram:1,hiprtcGetProgramLogSize:1", COMPILE_FAILED),
    ("hiprtcCompileProgram:1,hiprtcGetProgramLog:1", COMPILE_FAILED),
]

X = np.random.default_rng(5).standard_normal((3, 1000)).astype(np.float32)
WANT = rms_reference(X, 11, 200, 100, True)


Z = X[:, :48].astype(np.complex128)  # double reads a table, made at the first call
FFT_TEXTS = {name: text and text.replace("kevra_rms", "kevra_fft") for name, text in TEXTS.items()} | {
    "hipMemcpyHtoD": r"src/cuda_like/(ops/fft\.cpp:\d+: memcpyHtoD\(dx\.p, x\.data, bytes|"
                     r"tables\.cpp:\d+: memcpyHtoD\(p, data, bytes)\) failed: WORDS",
    "hipMemcpyDtoH": r"src/cuda_like/ops/fft\.cpp:\d+: memcpyDtoH\(out\.mutable_data\(\), dy\.p, bytes\) failed: WORDS",
    "hipStreamSynchronize": r"src/cuda_like/ops/fft\.cpp:\d+: streamSynchronize\(nullptr\) failed: WORDS",
    "hipDeviceSynchronize": r"src/cuda_like/tables\.cpp:\d+: deviceSynchronize\(\) failed: WORDS",
}
# Its way to a kernel is that of rms: the calls that it makes itself, and one of each step there.
FFT_NAMES = ["hipMalloc", "hipHostMalloc", "hipMemcpyHtoD", "hipMemcpyDtoH", "hipStreamSynchronize",
             "hipDeviceSynchronize", "hipModuleLoadData", "hipModuleLaunchKernel", "hiprtcCompileProgram"]


def check(got):
    np.testing.assert_allclose(got, WANT, rtol=rms_tolerance(FLOAT, 200))


def staged():
    check(kevra.rms_staged(X, 200, 100, True))


def resident():
    with Device() as device:
        out, stream = device.empty(WANT.size, np.float32), device.stream()
        kevra.rms_resident(device.upload(X), out, 3, 1000, 11, 200, 100, True, FLOAT, 0, stream)
        device.synchronize(stream)
        check(device.download(out, WANT.shape, np.float32))


def check_fft(got):
    assert_fft(got, fft_reference(Z, True), DOUBLE, "inverse")


def fft_staged():
    check_fft(kevra.fft_staged(Z, True))


def fft_resident():
    with Device() as device:
        x, stream = device.upload(Z), device.stream()
        kevra.fft_resident(x, x, *Z.shape, True, DOUBLE, 0, stream)
        device.synchronize(stream)
        check_fft(device.download(x, Z.shape, Z.dtype))


# The calls, what failures of theirs say, and the blocks that tables keep.
OPERATIONS = {"rms": (staged, resident, TEXTS, 0), "fft": (fft_staged, fft_resident, FFT_TEXTS, 1)}


def play(tables, *calls):
    """Makes the calls in turn; the RuntimeErrors they raised. After each the pools are whole, and it works again."""
    failures = []
    for call in calls:
        try:
            call()
        except HipFailure:  # it hit a call of the test's own
            return [OWN_CALL]
        except RuntimeError as error:
            failures.append(str(error))
            assert pools_in_use() in ((0, 0), (tables, 0)), f"{call.__name__} lost a block when it failed"
            if str(error) == NO_DEVICE:  # remembered for the life of the process
                with pytest.raises(RuntimeError, match=NO_DEVICE):
                    call()
                return failures
            call()
        assert pools_in_use() == (tables, 0), f"{call.__name__} lost a block"
    return failures


def words_of(name, code):
    function = RTC.hiprtcGetErrorString if name.startswith("hiprtc") else HIP.hipGetErrorString
    function.restype = ctypes.c_char_p
    return re.escape(function(code).decode())


def assert_failures(failures, pattern, what):
    if pattern is None:
        assert failures == [], what
    else:
        assert len(failures) == 1 and re.fullmatch(pattern, failures[0]), f"{what}: {failures}, not {pattern}"


@pytest.mark.parametrize("operation, name", [("rms", name) for name in NAMES] + [("fft", name) for name in FFT_NAMES])
def test_each_call_fails_once(operation, name, tmp_path):
    staged, resident, texts, tables = OPERATIONS[operation]
    words = words_of(name, 6 if name.startswith("hiprtc") else 1)
    pattern = texts.get(name, rf"src/\S+:\d+: .*{re.sub('^hip(rtc)?', '', name)}\(.* failed: WORDS")
    pattern = pattern and pattern.replace("WORDS", words)
    for calls in (staged, staged, resident, kevra.drain_pool), (resident, staged, kevra.drain_pool):
        compiled = calls[0] is resident  # from the object that the last cold run has left
        for k in itertools.count(1):
            cache = cache if compiled else tmp_path / str(k)
            environment = {"KEVRA_CPU_FAIL": f"{name}:{k}", "KEVRA_CACHE_DIR": cache}
            failures, errors = Fresh(play, tables, *calls, env=environment).result()
            if "as KEVRA_CPU_FAIL asks" not in errors:
                break
            if failures != [OWN_CALL]:
                made_good = compiled and name in MADE_GOOD_BY_A_COMPILE
                assert_failures(failures, None if made_good else pattern, f"call {k} of {name}, {compiled=}")
            assert not list(cache.rglob("*.tmp*"))


def cached_after_a_refusal():
    kevra.rms_staged(X, 200, 100, True)
    kevra.rms_staged(np.ones((1, 100_000), np.float32), 100_000, 1, False)
    return _diagnostics.read()["pools"]["pinned"]["cached_bytes"]


def test_a_refused_pinned_block_empties_the_cache_first():
    # The third block is the second call's upload; the least block, 256 bytes, holds that call's one value.
    value, errors = Fresh(cached_after_a_refusal, env={"KEVRA_CPU_FAIL": "hipHostMalloc:3"}).result()
    assert "call 3 of hipHostMalloc fails" in errors and value == 400_000 + 256


@pytest.mark.parametrize("plan, pattern", COMBINED, ids=[plan for plan, _ in COMBINED])
def test_failures_that_meet(plan, pattern, tmp_path):
    name, _, code = (plan.split(",")[0] + ":1").split(":")[:3]
    failures, errors = Fresh(play, 0, staged, env={"KEVRA_CPU_FAIL": plan, "KEVRA_CACHE_DIR": tmp_path}).result()
    assert errors.count("as KEVRA_CPU_FAIL asks") == 1 + plan.count(",")
    assert_failures(failures, pattern and pattern.replace("WORDS", words_of(name, int(code))), plan)
