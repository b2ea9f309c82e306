"""The package around the extension: choosing the CPU device, the diagnostics, the report of ``python -m kevra``."""

import json
import os
import shutil
from pathlib import Path

import kevra
import numpy as np
import pytest
from kevra import _diagnostics

NO_HINT = {"KEVRA_HIP_PATH": None}
COMPILER = Path(kevra.cpu_device_path()).with_name("libhiprtc.so")
USE = "import kevra; kevra.use_cpu_device()\n"
WORKS = """
import kevra, numpy
assert kevra.available() and kevra.device_arch().startswith("cpu-")
assert numpy.allclose(kevra.rms_staged(numpy.full((1, 4096), 0.5), 256, 128, True), 0.5)
"""


class TestUseCpuDevice:
    def test_binds_the_stand_in_and_may_be_called_again(self, run_python):
        run_python(USE + USE + WORKS + USE + WORKS, env=NO_HINT)

    def test_is_never_chosen_silently(self, run_python, no_runtime):
        child = run_python(
            "import kevra, numpy\n"
            "print(kevra.available(), kevra.device_count())\n"
            "kevra.rms_staged(numpy.ones((1, 64)), 8, 4, True)", env=no_runtime, check=False)
        assert child.stdout.split() == ["False", "0"]
        assert "RuntimeError: no HIP device available" in child.stderr

    def test_refuses_after_available_said_no(self, run_python, no_runtime):
        child = run_python("import kevra; kevra.available()\n" + USE, env=no_runtime, check=False)
        assert "RuntimeError: use_cpu_device: available() has already answered False" in child.stderr

    def test_children_inherit_the_choice(self, run_python):
        run_python(USE + f"import subprocess, sys\nsubprocess.run([sys.executable, '-c', {WORKS!r}], check=True)",
                   env=NO_HINT)

    def test_sets_a_compiler_for_other_devices_aside(self, run_python, tmp_path):
        foreign = tmp_path / "foreign" / "libhiprtc.so"
        foreign.parent.mkdir()
        shutil.copy(COMPILER, foreign)
        child = run_python(USE + WORKS + "kevra.hiprtc_available(); print(kevra._diagnostics.read()['hiprtc'])",
                           env={**NO_HINT, "KEVRA_HIPRTC_PATH": foreign})
        assert os.path.samefile(child.stdout.strip(), COMPILER)

    @pytest.mark.parametrize("load", ["import kevra; kevra.available()", "import ctypes; ctypes.CDLL({path!r})"],
                             ids=["bound by kevra", "loaded by another package"])
    def test_refuses_when_another_runtime_is_in_the_process(self, run_python, tmp_path, load):
        other = tmp_path / "libamdhip64.so.7"
        shutil.copy(kevra.cpu_device_path(), other)
        child = run_python(load.format(path=str(other)) + "\n" + USE, env={"KEVRA_HIP_PATH": other}, check=False)
        assert f"RuntimeError: use_cpu_device: this process already holds another HIP runtime, {other}" in child.stderr

    def test_refuses_when_another_compiler_is_in_use(self, run_python, tmp_path):
        other = tmp_path / "libhiprtc.so.7"
        shutil.copy(COMPILER, other)
        child = run_python("import kevra; kevra.hiprtc_available()\n" + USE,
                           env={**NO_HINT, "KEVRA_HIPRTC_PATH": other}, check=False)
        assert f"RuntimeError: use_cpu_device: this process already holds another hipRTC, {other}" in child.stderr


class TestPyTorch:
    def test_is_not_imported_with_the_package_and_not_needed_by_it(self, run_python):
        child = run_python(
            "import sys\nsys.modules['torch'] = None  # as where it is not installed\n"
            "import kevra\n"
            "try:\n    import kevra.torch\nexcept ImportError as error:\n    print(type(error).__name__, error)")
        assert child.stdout.startswith("ImportError kevra.torch needs PyTorch, which this Python does not have")
        child = run_python("import sys, kevra\nprint([name for name in sys.modules if name.startswith('torch')])")
        assert child.stdout.strip() == "[]"


class TestDiagnostics:
    def test_reading_probes_and_binds_nothing(self, run_python):
        child = run_python("import json, kevra\nprint(json.dumps(kevra._diagnostics.read()))")
        state = json.loads(child.stdout)
        assert (state["available"], state["library"], state["hiprtc"], state["search"]) == (-1, None, None, [])

    def test_tells_what_is_bound_where_kernels_go_and_what_the_pools_hold(self):
        kevra.rms_staged(np.ones((1, 4096), np.float32), 256, 128, True)
        state = _diagnostics.read()
        assert state["available"] == 1
        assert os.path.samefile(state["library"], kevra.cpu_device_path())
        assert state["cache"] == os.path.join(os.environ["KEVRA_CACHE_DIR"], "kernels")
        assert list(Path(state["cache"]).glob("*.hsaco"))
        assert state["pools"]["device"]["cached_bytes"] >= 4 * 4096
        kevra.drain_pool()
        assert _diagnostics.read()["pools"]["device"]["cached_blocks"] == 0

    def test_survives_a_path_with_quotes_and_backslashes(self, run_python, tmp_path):
        odd = tmp_path / 'a "b" \\n ü'
        child = run_python("import json, kevra; kevra.available()\nprint(json.dumps(kevra._diagnostics.read()))",
                           env={"KEVRA_HIP_PATH": odd, "KEVRA_CACHE_DIR": odd})
        state = json.loads(child.stdout)
        assert any(str(odd) in step["candidate"] for step in state["search"])
        assert state["cache"] == str(odd / "kernels")


class TestReport:
    def test_without_a_device_says_what_to_do(self, run_python, no_runtime, tmp_path):
        child = run_python(["-m", "kevra"], env={**no_runtime, "KEVRA_HIP_PATH": tmp_path / "missing.so"})
        assert "No device" in child.stdout and "use_cpu_device" in child.stdout
        assert str(tmp_path / "missing.so") in child.stdout

    def test_with_a_library_but_no_device(self, run_python):
        child = run_python(["-m", "kevra"], env={"KEVRA_CPU_DEVICES": "0"})
        assert "No device" in child.stdout and "libamdhip64.so (KEVRA_HIP_PATH): used" in child.stdout

    def test_lists_devices_compiler_and_cache(self, run_python, tmp_path):
        cache = tmp_path / "kernels"
        cache.mkdir()
        (cache / "0123456789abcdef_gfx1100.hsaco").write_bytes(bytes(1_500_000))
        child = run_python(["-m", "kevra", "--use-cpu-device"],
                           env={**NO_HINT, "KEVRA_CACHE_DIR": tmp_path, "KEVRA_CPU_DEVICES": "2",
                                "KEVRA_CPU_SHARED_LIMIT": "32768"})
        assert child.stdout.count("32 KiB of shared memory per block") == 2
        assert "device 1" in child.stdout and "cpu-" in child.stdout and "libhiprtc.so" in child.stdout
        assert f"{cache}, 1 code object, 1.5 MB" in child.stdout

    def test_prints_the_path_of_the_cpu_device_alone(self, run_python):
        child = run_python(["-m", "kevra", "--cpu-device"], env=NO_HINT)
        assert child.stdout == kevra.cpu_device_path() + "\n"
