"""What the compiler makes of the generated kernels on AMD GPUs: sound on a default route, and faults are reported."""

import importlib
import json
import sys
from pathlib import Path

import kevra
import pytest

TOOLS = Path(__file__).parents[2] / "tools"
VIEWER = Path(kevra.__file__).parents[2] / "tools" / "kevra_kernels"
ARCHITECTURES = ("gfx90a", "gfx1100")
# Each precision, one row and several to a block, radices from 3 to 16, what is heaviest in registers.
TELLING = r"rms_2|cfft_(100_1_0_i|720_2_2_i|1024_1_1_f|3125_2_2_f|8000_1_1_f)_.*_n"


@pytest.fixture
def report(run_python, tmp_path):
    """Runs the command on a manifest folder; returns the process and its JSON."""

    def run(folder, *arguments):
        output = tmp_path / "figures.json"
        child = run_python(
            ["-m", "machine_code", folder, "--cache", tmp_path / "cache", "--json", output, "--arch", *ARCHITECTURES,
             *arguments],
            env={"PYTHONPATH": TOOLS}, check=False)
        assert output.exists(), child.stderr
        return child, json.loads(output.read_text())

    return run


def module(name):
    if str(TOOLS) not in sys.path:
        sys.path.append(str(TOOLS))
    return importlib.import_module(f"machine_code.{name}")


def test_default_routes_are_sound_and_the_register_limits_are_the_compilers(report, run_python, tmp_path):
    if not VIEWER.exists():
        pytest.skip("kevra_kernels is not built; ./test builds it unless --python-only is given")
    run_python(["-c", f"import subprocess; subprocess.run([{str(VIEWER)!r}, 'manifest', 'kernels'], check=True)"])
    child, figures = report(tmp_path / "kernels", "--only", TELLING)
    assert child.returncode == 0, child.stderr
    assert len(figures["kernels"]) == 6
    assert all(kernel["default_route"] for kernel in figures["kernels"])

    # The compiler counts the waves that the registers allow, too.
    limits, compiler = module("architectures"), module("compiler")
    kept = compiler.Compiler(tmp_path / "cache")
    keys = [kernel["key"] for kernel in figures["kernels"]]
    for kernel in compiler.read_manifest(tmp_path / "kernels"):
        for arch in ARCHITECTURES if kernel.key in keys else ():
            f = kept.figures(kernel, arch)
            waves = limits.waves_by_registers(limits.ARCHITECTURES[arch], f.vgprs, f.sgprs)
            assert waves == f.compiler_waves, f"{kernel.key} on {arch}: {f}"
    assert kept.compiled == 0

    again, same = report(tmp_path / "kernels", "--only", TELLING)
    assert same == figures
    assert " 0 of them compiled now" in again.stderr


# All 128 values are alive between the loads and the stores, which may not be moved.
SPILL = """extern "C" __global__ void __launch_bounds__(64) __attribute__((amdgpu_num_vgpr(40))) k(volatile float* x) {
  float v[128];
#pragma unroll
  for (int i = 0; i < 128; ++i) v[i] = x[threadIdx.x + 64 * i];
#pragma unroll
  for (int i = 127; i >= 0; --i) x[threadIdx.x + 64 * i] = v[i] * v[127 - i];
}
"""
INDEXED = """extern "C" __global__ void k(volatile float* x, const int* at) {
  float v[512];
  for (int i = 0; i < 512; ++i) v[i] = x[i];
  x[0] = v[at[threadIdx.x]];
}
"""
SOUND = """extern "C" __global__ void __launch_bounds__(64) k(float* x, __half2* h) {
  extern __shared__ float shared[];
  shared[threadIdx.x] = x[threadIdx.x];
  __syncthreads();
  double sine, cosine;
  sincos(shared[63 - threadIdx.x], &sine, &cosine);
  float power = powf(__shfl_xor((float)sine, 1, 32), logf((float)pow(cosine, exp(sine))));
  atomicAdd(&x[0], power);
  h[threadIdx.x] = __hadd2(h[threadIdx.x], __floats2half2_rn(power, sqrtf(power)));
}
"""


def test_spills_errors_and_impossible_launches_fail_by_name(report, tmp_path):
    kernels = {  # key: source, block, shared bytes, default route, what is said of it
        "spilling": (SPILL, 64, 0, True, "vector registers spilled"),
        "indexed": (INDEXED, 64, 0, True, "an array indexed at run time"),
        "broken": (SOUND.replace("double sine", "double sines"), 64, 256, True, "undeclared identifier 'sine'"),
        "tight": (SOUND, 128, 256, True, "block 128 is above the launch bound 64"),
        "large": (SOUND, 64, 65540, True, "not one block fits: shared"),
        "by_hint": (SPILL, 64, 0, False, "vector registers spilled"),
        "sound": (SOUND, 64, 256, True, ""),
    }
    entries = []
    for key, (source, block, shared, default, _) in kernels.items():
        (tmp_path / f"{key}.hip").write_text(source)
        entries.append({"name": "k", "key": key, "family": "test", "file": f"{key}.hip", "block": block,
                        "shared_bytes": shared, "default_route": default})
    (tmp_path / "manifest.json").write_text(json.dumps(entries))

    child, figures = report(tmp_path)
    assert child.returncode == 1
    others, failed = child.stderr.split("FAILED, on a default route:")
    for key, (_, _, _, default, fault) in kernels.items():
        for arch in ARCHITECTURES:
            told = (failed if default else others).partition(f"  {key} on {arch}: ")[2]
            assert fault in told.partition(" on gfx")[0] if fault else not told, f"{key} on {arch}"

    by_key = {kernel["key"]: kernel for kernel in figures["kernels"]}
    assert by_key["broken"]["gfx90a"] is None
    scratch, barriers, atomics = (figures["columns"].index(name) for name in ("scratch", "barriers", "atomics"))
    # A wave of 64 needs no barrier for a block of 64, two of 32 do.
    assert [by_key["sound"][arch][barriers] for arch in ARCHITECTURES] == [0, 1]
    for arch in ARCHITECTURES:
        assert by_key["spilling"][arch][scratch] > 0
        assert by_key["sound"][arch][scratch] == 0
        assert by_key["sound"][arch][atomics] > 0

    assert report(tmp_path, "--only", "sound|by_hint")[0].returncode == 0


@pytest.mark.parametrize(("arch", "vgprs", "shared", "block", "waves", "bound"), [
    ("gfx90a", 64, 0, 256, 8, "waves"),
    ("gfx90a", 65, 0, 256, 7, "registers"),  # 72 of 512
    ("gfx90a", 65, 0, 1024, 4, "registers"),  # 28 waves hold one block of 16
    ("gfx90a", 32, 8192, 128, 4, "shared"),  # 8 blocks of 2 waves
    ("gfx90a", 32, 21846, 64, 0.5, "shared"),  # a third of the memory and a byte more
    ("gfx90a", 32, 65537, 64, 0, "shared"),
    ("gfx1030", 64, 8192, 128, 16, "waves"),  # 16 blocks of 4 waves
    ("gfx1030", 65, 0, 32, 12, "registers"),  # 80 of 1024
    ("gfx1100", 97, 0, 32, 12, "registers"),  # 120 of 1536
    ("gfx1201", 32, 65536, 256, 4, "shared"),  # a work-group processor has two times 64 KiB
])
def test_waves_of_whole_blocks(arch, vgprs, shared, block, waves, bound):
    limits = module("architectures")
    got = limits.occupancy(limits.ARCHITECTURES[arch], vgprs, 32, shared, block)
    assert (got.waves, got.bound) == (waves, bound)
