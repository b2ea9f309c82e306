"""The tests run on the CPU device, and every run compiles its kernels into a cache folder of its own, or into the one
that KEVRA_TEST_CACHE names: several runs of one state of the code need not compile everything several times."""

import ctypes.util
import importlib.util
import os
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

import pytest

# Thread order and check mode belong to kernels: these have nothing to do with them, and some take minutes.
if os.environ.get("KEVRA_CPU_ORDER") or os.environ.get("KEVRA_CPU_CHECK"):
    collect_ignore = ["test_cache.py", "test_campaigns.py", "test_constant_q_plan.py", "test_cuda_device.py",
                      "test_demo.py", "test_docs.py", "test_filters.py", "test_machine_code.py", "test_package.py",
                      "test_peers.py", "test_surface.py", "test_tune.py", "with_torch"]


def pytest_configure(config):
    if hasattr(config, "workerinput"):  # a worker of a parallel run: it has its parent's environment
        return
    # Found without importing: the variables must stand before the package is imported.
    package = importlib.util.find_spec("kevra")
    if package is None:
        pytest.exit("kevra is not built for this interpreter; run ./test, which builds it first", returncode=4)
    shared = os.environ.get("KEVRA_TEST_CACHE")
    if not shared:
        config.kevra_cache = tempfile.mkdtemp(prefix="kevra-test-cache-")
    os.environ["KEVRA_CACHE_DIR"] = shared or config.kevra_cache
    os.environ["KEVRA_HIP_PATH"] = str(Path(package.origin).parent / "hip_cpu" / "libamdhip64.so")
    os.environ.pop("KEVRA_HIPRTC_PATH", None)
    os.environ["KEVRA_CPU_CACHE"] = "64K"  # tuners overwrite it before each run; the machine's may be huge


def pytest_unconfigure(config):
    if hasattr(config, "kevra_cache"):
        shutil.rmtree(config.kevra_cache, ignore_errors=True)


@pytest.fixture
def run_python(tmp_path):
    """Runs Python in a child process, in an empty folder, and returns the finished process.

    ``run_python("print(1)")`` runs a snippet, ``run_python(["-m", "kevra"])`` a command line. The child gets this
    process's environment with ``env`` on top; None takes a variable out. Unless ``check`` is false, the child has
    to succeed.
    """

    def run(code, env=None, check=True):
        arguments = ["-c", code] if isinstance(code, str) else [str(argument) for argument in code]
        changes = env or {}
        environment = {name: value for name, value in os.environ.items() if name not in changes}
        environment |= {name: str(value) for name, value in changes.items() if value is not None}
        child = subprocess.run(
            [sys.executable, *arguments], env=environment, cwd=tmp_path, capture_output=True, text=True, timeout=300,
            check=False,
        )
        if check and child.returncode != 0:
            pytest.fail(f"exit status {child.returncode} of {arguments}\n{child.stdout}\n{child.stderr}")
        return child

    return run


@pytest.fixture
def no_runtime():
    """Changes to the environment under which no HIP runtime is found."""
    if ctypes.util.find_library("amdhip64"):
        pytest.skip("this machine has a HIP runtime where the loader finds it")
    return {"KEVRA_HIP_PATH": None}
