"""The CUDA device: what it compiles with NVRTC, what it refuses, what it asks of the driver, and, on a GPU, results."""

import ctypes
import json
import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

import kevra
import numpy as np
import pytest
from kevra import _rocm
from support import Fresh, assert_fft, fft_reference, fresh, rms_reference, rms_tolerance

BUILD = Path(kevra.__file__).parents[2]
HIP = Path(kevra.cuda_device_path())
RTC = HIP.with_name("libhiprtc.so")
FAKE_DRIVER = BUILD / "tests" / "hip_cuda" / "libcuda.so.1"
OWN_CHOICE = {"KEVRA_HIP_PATH": None}
TRIVIAL = 'extern "C" __global__ void trivial(float* x) { x[threadIdx.x] = 1; }\n'


def driver_library():
    try:
        return ctypes.CDLL("libcuda.so.1")
    except OSError:
        return None


def compile_text(text, name):
    """Status, log and code object. To be called in a process of its own: a loaded hipRTC is taken by all of kevra."""
    rtc, program, size = ctypes.CDLL(str(RTC)), ctypes.c_void_p(), ctypes.c_size_t()
    assert rtc.hiprtcCreateProgram(ctypes.byref(program), text.encode(), name.encode(), 0, None, None) == 0
    status = rtc.hiprtcCompileProgram(program, 0, None)
    assert rtc.hiprtcGetProgramLogSize(program, ctypes.byref(size)) == 0
    log = ctypes.create_string_buffer(size.value)
    assert rtc.hiprtcGetProgramLog(program, log) == 0
    code = b""
    if status == 0:
        assert rtc.hiprtcGetCodeSize(program, ctypes.byref(size)) == 0
        code = ctypes.create_string_buffer(size.value)
        assert rtc.hiprtcGetCode(program, code) == 0
        code = code.raw
    assert rtc.hiprtcDestroyProgram(ctypes.byref(program)) == 0
    return status, log.value.decode(), code


@pytest.fixture(scope="module")
def nvrtc():
    """The environment in which NVRTC compiles for sm_90: the wheel's of this interpreter, or where the device looks."""
    wheels = [path for folder in sys.path for path in Path(folder).glob("nvidia/*/lib/libnvrtc.so.1*")]
    chosen = os.environ.get("KEVRA_CUDA_NVRTC") or (str(wheels[0]) if wheels else None)
    environment = {"KEVRA_CUDA_ARCH": "sm_90", "KEVRA_CUDA_NVRTC": chosen}
    status, log, _ = fresh(compile_text, TRIVIAL, "trivial.hip", env=environment)
    if "and none was found" in log:
        pytest.skip("this machine has no NVRTC: pip install nvidia-cuda-nvrtc, or name it in KEVRA_CUDA_NVRTC")
    assert status == 0, log
    return environment


@pytest.mark.parametrize("folder", ["hip_cpu", "hip_cuda"])
def test_libraries_export_the_interface_and_nothing_else(folder):
    if not shutil.which("nm"):
        pytest.skip("nm, which lists a library's names, is not installed")
    bound = {text.decode() for text in re.findall(rb"hip(?:rtc)?[A-Z]\w+", Path(_rocm.__file__).read_bytes())}
    exported = set()
    for name, count in ("libamdhip64.so", 36), ("libhiprtc.so", 9):
        library = HIP.parents[1] / folder / name
        lines = subprocess.run(["nm", "-D", "--defined-only", library], capture_output=True, text=True, check=True)
        names = {line.split()[-1] for line in lines.stdout.splitlines()}
        assert {"kevra_fail", "kevra_fail_calls"} <= names  # failures on demand
        names -= {"kevra_fail", "kevra_fail_calls"}
        assert len(names) == count and names <= bound, f"{library}: {sorted(names - bound)}"
        exported |= names
    assert len(exported) == 45


class TestCompiler:
    PARTS = 16

    @pytest.mark.parametrize("part", range(PARTS))
    def test_every_kernel_compiles_without_a_warning(self, nvrtc, tmp_path, part):
        subprocess.run([BUILD / "tools" / "kevra_kernels", "manifest", tmp_path], check=True, capture_output=True)
        assert fresh(compile_failures, tmp_path, part, self.PARTS, env=nvrtc) == []

    def test_half_types_shuffles_and_lines_are_the_kernel_languages(self, nvrtc):
        text = """extern "C" __global__ void k(const float* x, __half2* h, double d, float2* o) {
          half a = __float2half_rn(x[0]);
          h[0] = __hmul2(__floats2half2_rn(a, __double2half(d)), __half2half2(h[1].y));
          o[0] = __half22float2(h[2]);
          o[1].x = __shfl_xor(x[threadIdx.x], 16, 32) + __shfl_xor(3, 1);
          BROKEN
        }"""
        assert fresh(compile_text, text.replace("BROKEN", ""), "k.hip", env=nvrtc)[:2] == (0, "")
        status, log, _ = fresh(compile_text, text, "k.hip", env=nvrtc)
        assert status == 6 and "k.hip(6)" in log and "BROKEN" in log, log

    def test_without_nvrtc_the_log_says_what_to_install(self, tmp_path):
        missing = tmp_path / "libnvrtc.so"
        status, log, _ = fresh(compile_text, TRIVIAL, "trivial.hip", env={"KEVRA_CUDA_NVRTC": missing})
        assert status == 6 and "pip install nvidia-cuda-nvrtc" in log and str(missing) in log


def compile_failures(folder, part, parts):
    kernels = json.loads((folder / "manifest.json").read_text())[part::parts]
    assert kernels
    outcomes = ((kernel["file"], *compile_text((folder / kernel["file"]).read_text(), kernel["file"])[:2])
                for kernel in kernels)
    return [outcome for outcome in outcomes if outcome[1:] != (0, "")]


def load(*images):
    """What hipModuleLoadData answers to each, with the padding behind it that callers give."""
    hip = ctypes.CDLL(str(HIP))
    return [hip.hipModuleLoadData(ctypes.byref(ctypes.c_void_p()), image + bytes(4096)) for image in images]


def load_on_fake(*images):
    ctypes.CDLL(str(FAKE_DRIVER))
    return load(*images)


class TestCodeObjects:
    def test_foreign_and_damaged_ones_are_refused(self):
        foreign = RTC.read_bytes()
        wild = bytearray(foreign[:64])
        wild[32:48] = b"\xff" * 16  # tables far outside
        assert fresh(load, b"", b"text", foreign, foreign[:5000], bytes(wild)) == [200] * 5

    def test_one_cut_short_or_made_for_another_architecture_is_refused(self, nvrtc, fake_driver):
        whole = fresh(compile_text, TRIVIAL, "trivial.hip", env=nvrtc)[2]
        other = fresh(compile_text, TRIVIAL, "trivial.hip", env=nvrtc | {"KEVRA_CUDA_ARCH": "sm_80"})[2]
        flipped = bytearray(whole)
        flipped[len(whole) // 2] ^= 1
        cut = [whole[:-1], whole[:-100], whole[:-2000], whole[:64]]
        assert fresh(load_on_fake, whole, other, bytes(flipped), *cut) == [0, 209, 200, 200, 200, 200, 200]


@pytest.mark.skipif(driver_library() is not None, reason="this machine has a CUDA driver")
class TestWithoutADriver:
    def test_choosing_it_says_so_and_leaves_the_choice_open(self, run_python):
        child = run_python(
            "import kevra\ntry: kevra.use_cuda_device()\nexcept RuntimeError as error: print(error)\n"
            "kevra.use_cpu_device(); assert kevra.available()", env=OWN_CHOICE)
        assert "use_cuda_device: this machine has no CUDA driver (libcuda.so.1" in child.stdout
        child = run_python(["-m", "kevra", "--use-cuda-device"], env=OWN_CHOICE, check=False)
        assert child.returncode == 1 and child.stderr.startswith("use_cuda_device: this machine has no CUDA driver")

    def test_the_report_tells_why_it_was_passed_over(self, run_python):
        child = run_python(["-m", "kevra"], env={"KEVRA_HIP_PATH": HIP})
        assert re.search(r"device +none: no CUDA driver: libcuda\.so\.1", child.stdout), child.stdout
        assert "No device" in child.stdout


@pytest.fixture(scope="module")
def fake_driver():
    if not FAKE_DRIVER.exists():
        pytest.skip("the fake driver is part of the C++ tests, which are not built")


class CopySide(ctypes.Structure):
    _fields_ = [("x", ctypes.c_size_t), ("y", ctypes.c_size_t), ("type", ctypes.c_uint32), ("host", ctypes.c_void_p),
                ("device", ctypes.c_void_p), ("array", ctypes.c_void_p), ("pitch", ctypes.c_size_t)]


class Copy(ctypes.Structure):
    _fields_ = [("source", CopySide), ("destination", CopySide), ("width", ctypes.c_size_t),
                ("height", ctypes.c_size_t)]


def ask_the_fake():
    ctypes.CDLL(str(FAKE_DRIVER))
    kevra.use_cuda_device()
    assert kevra.available() and kevra.device_count() == 2
    hip, value = ctypes.CDLL(str(HIP)), ctypes.c_int()
    facts = [(kevra.device_name(device), kevra.device_arch(device)) for device in range(3)]
    for attribute in 63, 19, 74, 87:
        assert hip.hipDeviceGetAttribute(ctypes.byref(value), attribute, 1) == 0
        facts.append(value.value)

    # This thread has chosen no device; blocks of nothing and of too much.
    assert hip.hipGetDevice(ctypes.byref(value)) == 0 and value.value == 0
    block = ctypes.c_void_p(1)
    assert hip.hipMalloc(ctypes.byref(block), ctypes.c_size_t(0)) == 0 and not block
    assert hip.hipMalloc(ctypes.byref(block), ctypes.c_size_t(1 << 40)) == 2 and not block
    assert hip.hipMalloc(ctypes.byref(block), ctypes.c_size_t(64)) == 0
    for device, status in (1, 0), (2, 101), (-1, 101):
        assert hip.hipSetDevice(device) == status
    assert hip.hipGetDevice(ctypes.byref(value)) == 0 and value.value == 1
    facts.append([pitched_copy(hip, block.value, host_type) for host_type in (0, 1)])
    return facts


def pitched_copy(hip, device, host_type):
    """Two rows of three bytes from the middle of an array to the device, and back from managed memory in a row."""
    host, back = np.arange(20, dtype=np.uint8), np.zeros(6, np.uint8)
    up = Copy(CopySide(x=1, y=1, type=host_type, host=host.ctypes.data, pitch=5),
              CopySide(type=2, device=device, pitch=4), 3, 2)
    down = Copy(CopySide(type=3, device=device, pitch=4), CopySide(type=1, host=back.ctypes.data, pitch=3), 3, 2)
    assert hip.hipMemcpyParam2DAsync(ctypes.byref(up), None) == hip.hipMemcpyParam2DAsync(ctypes.byref(down), None) == 0
    return back.tolist()


def test_devices_memory_and_copies_reach_the_driver(fake_driver):
    rows = [6, 7, 8, 11, 12, 13]
    assert fresh(ask_the_fake, env=OWN_CHOICE | {"KEVRA_CUDA_SHARED_LIMIT": "100K"}) == [
        ("fake GPU", "sm_90"), ("fake GPU", "sm_86"), ("", ""), 132, 50 << 20, 100 << 10, 32, [rows, rows]]


def launch_on_the_fake(code):
    ctypes.CDLL(str(FAKE_DRIVER))
    hip = ctypes.CDLL(str(HIP))
    module, function, stream, event, graph = (ctypes.c_void_p() for _ in range(5))
    assert hip.hipModuleLoadData(ctypes.byref(module), code) == 0
    assert hip.hipModuleGetFunction(ctypes.byref(function), module, b"missing") == 500
    hip.hipGetErrorString.restype = ctypes.c_char_p
    assert hip.hipGetErrorString(500) == b"the fake has no such name"
    assert hip.hipModuleGetFunction(ctypes.byref(function), module, b"trivial") == 0

    assert hip.hipStreamCreateWithFlags(ctypes.byref(stream), 1) == hip.hipEventCreate(ctypes.byref(event)) == 0
    assert hip.hipStreamBeginCapture(stream, 2) == 0
    told = (ctypes.c_size_t * 8)()
    arguments = (ctypes.c_void_p * 1)(ctypes.cast(ctypes.pointer(ctypes.c_void_p(ctypes.addressof(told))),
                                                  ctypes.c_void_p))
    answers = [hip.hipModuleLaunchKernel(function, 7, 6, 5, 4, 3, 2, shared << 10, stream, arguments, None)
               for shared in (227, 226)]  # the fake's functions have 1 KiB of static arrays
    assert hip.hipStreamEndCapture(stream, ctypes.byref(graph)) == 0
    assert hip.hipGraphInstantiate(ctypes.byref(graph), graph, None, None, 0) == 0
    assert hip.hipGraphLaunch(graph, stream) == hip.hipEventRecord(event, stream) == 0
    return answers, list(told[:7]), told[7] == stream.value


def test_a_launch_gets_all_shared_memory_of_the_device(fake_driver, nvrtc):
    code = fresh(compile_text, TRIVIAL, "trivial.hip", env=nvrtc)[2]
    assert fresh(launch_on_the_fake, code) == ([1, 0], [7, 6, 5, 4, 3, 2, 226 << 10], True)


def staged_on_the_fake():
    ctypes.CDLL(str(FAKE_DRIVER))
    return results("fft_staged", np.ones((2, 512), complex), False).shape


def test_a_call_goes_all_the_way_and_its_kernel_is_kept(fake_driver, nvrtc, tmp_path):
    environment = OWN_CHOICE | nvrtc | {"KEVRA_CUDA_ARCH": None, "KEVRA_CACHE_DIR": tmp_path, "KEVRA_DEBUG": 1}
    for how in "compiled", "loaded from disk":
        shape, log = Fresh(staged_on_the_fake, env=environment).result()
        assert shape == (2, 512) and f"kevra_fft {how}" in log, log


@pytest.fixture(scope="module")
def gpu(nvrtc):
    """The environment for an NVIDIA GPU."""
    if not fresh(has_gpu):
        pytest.skip("this machine has no NVIDIA GPU")
    return OWN_CHOICE | nvrtc | {"KEVRA_CUDA_ARCH": None}


def has_gpu():
    driver = driver_library()
    return driver is not None and driver.cuInit(0) == 0


def results(function, *arguments):
    kevra.use_cuda_device()
    assert kevra.device_arch().startswith("sm_")
    return getattr(kevra, function)(*arguments)


class TestOnAGpu:
    @pytest.mark.parametrize("dtype", [np.float32, np.float64])
    def test_rms(self, gpu, dtype):
        x = np.random.default_rng(1).standard_normal((3, 5000)).astype(dtype)
        got = fresh(results, "rms_staged", x, 512, 128, True, env=gpu)
        want = rms_reference(x, got.shape[1], 512, 128, True)
        np.testing.assert_allclose(got, want, rtol=rms_tolerance(1 if dtype is np.float32 else 2, 512))

    # One block a row, several rows to a block, more than 48 KiB of shared memory, a factor that is no power of two.
    @pytest.mark.parametrize("n", [64, 1024, 6000, 8192])
    @pytest.mark.parametrize("prec", [1, 2])
    def test_fft(self, gpu, n, prec):
        rng = np.random.default_rng(n)
        z = (rng.standard_normal((5, n)) + 1j * rng.standard_normal((5, n))).astype([None, np.complex64, complex][prec])
        assert_fft(fresh(results, "fft_staged", z, False, env=gpu), fft_reference(z, False), prec, f"{n=} {prec=}")
