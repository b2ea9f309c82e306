"""Finding the libraries, several devices, and calls that return before their work is done."""

import ctypes
import os
import shutil
import time
from pathlib import Path

import kevra
import numpy as np
import pytest
from kevra import _diagnostics
from support import DOUBLE, FLOAT, Device, HipFailure, fresh, rms_reference, rms_tolerance

HIP = Path(kevra.cpu_device_path())
NAMES = ["libamdhip64.so.7", "libamdhip64.so.6", "libamdhip64.so"]
Y = np.random.default_rng(2).standard_normal((2, 900))


def search(*calls):
    outcomes = [call() for call in calls]
    return outcomes, [(step["candidate"], step["outcome"]) for step in _diagnostics.read()["search"]]


def rms_without_device():
    with pytest.raises(RuntimeError, match="^no HIP device available$"):
        kevra.rms_staged(Y, 64, 32, True)


def retry_with_a_library():
    """The load is tried again at the next call, though the answer of available() stays."""
    assert not kevra.available()
    with pytest.raises(RuntimeError, match=r"^kevra: no usable HIP runtime \(libamdhip64\)\. Install the rocm-sdk wheels "
                       r"\(pip install kevra\[rocm\]\), a system ROCm, or set KEVRA_HIP_PATH to the library\.$"):
        kevra.device_name()
    os.environ["KEVRA_HIP_PATH"] = str(HIP)
    assert kevra.device_name() == "kevra CPU device" and not kevra.available()


def test_a_missing_library_is_told_with_every_candidate(tmp_path, no_runtime):
    environment = {"KEVRA_HIP_PATH": tmp_path / "none.so"}
    outcomes, steps = fresh(search, kevra.available, kevra.device_count, rms_without_device, env=environment)
    assert outcomes[:2] == [False, 0]
    candidates = [candidate.split(" (")[0] for candidate, _ in steps]
    assert candidates == [*NAMES, str(tmp_path / "none.so"), *NAMES]
    assert "none.so: cannot open shared object file" in steps[3][1]
    fresh(retry_with_a_library, env=environment)


def test_a_library_that_lacks_a_name_is_passed_over(no_runtime):
    outcomes, steps = fresh(search, kevra.available, env={"KEVRA_HIP_PATH": HIP.with_name("libhiprtc.so")})
    assert outcomes == [False] and len(steps) == 7
    assert steps[3][1] == "lacks hipDeviceGetAttribute"


def test_a_runtime_in_the_process_comes_before_the_variable_and_that_before_the_loader(run_python, tmp_path):
    copies = {}
    for name in "loaded", "named", "searched":
        (tmp_path / name).mkdir()
        copies[name] = shutil.copy(HIP, tmp_path / name / NAMES[1])
    code = ("import ctypes, sys, kevra; from kevra import _diagnostics\n"
            "if sys.argv[1:]: ctypes.CDLL(sys.argv[1])\n"
            "assert kevra.available(); print(_diagnostics.read()['library'])")
    variables = {"KEVRA_HIP_PATH": copies["named"], "LD_LIBRARY_PATH": tmp_path / "searched"}
    for arguments, changes, want in ([copies["loaded"]], {}, "loaded"), ([], {}, "named"), (
            [], {"KEVRA_HIP_PATH": None}, "searched"):
        child = run_python(["-c", code, *arguments], env={**variables, **changes})
        assert child.stdout.strip() == str(copies[want])


def hiprtc_appears(path):
    absent = kevra.hiprtc_available(), kevra.hiprtc_version()
    os.environ["KEVRA_HIPRTC_PATH"] = path
    return absent, kevra.hiprtc_available(), kevra.hiprtc_version() > (0, 0), _diagnostics.read()["hiprtc"]


def test_hiprtc_is_looked_for_again_and_the_variable_comes_first(tmp_path):
    alone = shutil.copy(HIP, tmp_path / HIP.name)
    (tmp_path / "elsewhere").mkdir()
    rtc = str(shutil.copy(HIP.with_name("libhiprtc.so"), tmp_path / "elsewhere" / "libhiprtc.so.7"))
    assert fresh(hiprtc_appears, rtc, env={"KEVRA_HIP_PATH": alone}) == ((False, (0, 0)), True, True, rtc)
    assert fresh(search, kevra.hiprtc_available, env={"KEVRA_HIPRTC_PATH": tmp_path / "none.so"})[0] == [True], \
        "a bad variable hides the library beside the runtime"


def queries():
    assert kevra.abi_version() == 3
    assert kevra.device_count() == 2 and kevra.device_name(1) == "kevra CPU device"
    assert kevra.device_arch(dev=1) == kevra.device_arch() != "" and ":" not in kevra.device_arch()
    assert kevra.device_name(2) == kevra.device_arch(2) == kevra.device_arch(-1) == ""
    assert kevra.set_deterministic(on=1) is None and kevra.clear_tables() is None
    kevra.set_deterministic(0)


def test_queries_answer_for_each_device():
    fresh(queries, env={"KEVRA_CPU_DEVICES": "2"})


def resident_on(index, y, prec):
    with Device(index) as device:
        want = rms_reference(y, 30, 64, 30, True)
        out, stream = device.empty(want.size, y.dtype), device.stream()
        kevra.rms_resident(device.upload(y), out, 2, 900, 30, 64, 30, True, prec, index, stream)
        device.synchronize(stream)
        np.testing.assert_allclose(device.download(out, want.shape, y.dtype), want, rtol=rms_tolerance(prec, 64))


def mix_devices(load_fails_on):
    for index in 1, 0, 2, 1:
        if index == load_fails_on:
            with pytest.raises(RuntimeError, match="^hipModuleLoadData failed for kevra_rms"):
                resident_on(index, Y, DOUBLE)
        resident_on(index, Y, DOUBLE)
        want = rms_reference(Y, 31, 64, 30, True)
        np.testing.assert_allclose(kevra.rms_staged(Y, 64, 30, True), want, rtol=rms_tolerance(DOUBLE, 64))
        kevra.drain_pool()


def test_each_device_runs_its_own_kernels_on_its_own_memory(tmp_path):
    fresh(mix_devices, None, env={"KEVRA_CPU_DEVICES": "3"})
    # Every device loads the object: device 1 first, then 0, then 2. The cached one fails, and the one compiled instead.
    fresh(mix_devices, 2, env={"KEVRA_CPU_DEVICES": "3", "KEVRA_CPU_FAIL": "hipModuleLoadData:3,hipModuleLoadData:4",
                               "KEVRA_CACHE_DIR": tmp_path})


def queue_behind_long_work():
    """Times: until the calls have returned, until their stream is done, and from there until the device is."""
    long_frame = 60_000_000 if os.environ.get("KEVRA_CPU_CHECK", "0") == "0" else 2_000_000
    y = Y.astype(np.float32)
    with Device() as device:
        stream = device.stream(1)
        x, out, long_out = device.upload(y), device.empty(60, np.float32), device.empty(4, np.float32)
        kevra.rms_resident(x, out, 2, 900, 30, 64, 30, True, FLOAT, 0, stream)  # compiles
        begin = time.perf_counter()
        kevra.rms_resident(x, long_out, 2, 900, 2, long_frame, 1, False, FLOAT, 0, stream)
        kevra.rms_resident(x, out, 2, 900, 30, 64, 30, True, FLOAT, 0, stream)
        returned = time.perf_counter() - begin
        # The first wait of all is this one: it takes the failure that any earlier wait would have met.
        for wait in "hipStreamSynchronize", "hipDeviceSynchronize":
            with pytest.raises(HipFailure, match="gave 77"):
                device.call(wait, ctypes.c_void_p(stream))
        device.synchronize(stream)
        done = time.perf_counter() - begin
        device.call("hipDeviceSynchronize")
        rest = time.perf_counter() - begin - done
        want = rms_reference(y, 30, 64, 30, True)
        np.testing.assert_allclose(device.download(out, want.shape, np.float32), want, rtol=rms_tolerance(FLOAT, 64))
    return returned, done, rest


def test_resident_calls_return_before_their_work_is_done():
    returned, done, rest = fresh(queue_behind_long_work, env={
        "KEVRA_CPU_FAIL": "hipStreamSynchronize:1:77,hipDeviceSynchronize:1:77"})
    assert returned < done / 2, f"returned after {returned:.3f} s of {done:.3f} s"
    assert rest < done, f"the work ran on another stream, {rest:.3f} s longer than the {done:.3f} s of its own"
