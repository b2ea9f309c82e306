"""Code objects on disk: their names, many processes at once, folders that do not serve, damaged files."""

import functools
import os
import re
import shutil
from pathlib import Path

import kevra
import numpy as np
import pytest
from support import FLOAT, Fresh, fresh, rms_reference, rms_tolerance

Y = np.random.default_rng(9).standard_normal((2, 3000)).astype(np.float32)
WANT = rms_reference(Y, 24, 512, 128, True)
GOLDEN = Path(__file__).parents[1] / "golden" / "rms_float.hip"


def works(before=lambda: None):
    """True when rms gives the right result in this process; the text of a RuntimeError otherwise."""
    before()
    try:
        got = kevra.rms_staged(Y, 512, 128, True)
    except RuntimeError as error:
        return str(error)
    np.testing.assert_allclose(got, WANT, rtol=rms_tolerance(FLOAT, 512))
    return True


def object_name():
    """By the documented hash: FNV-1a with a start value of its own, over text, newline and kernel name."""
    h = 0x14650FB0739D0383
    for byte in GOLDEN.read_bytes() + b"\nkevra_rms":
        h = (h ^ byte) * 0x100000001B3 % 2**64
    return f"{h:016x}_{kevra.device_arch()}.hsaco"


def objects(root):
    return sorted(path.name for path in (Path(root) / "kernels").iterdir())


@pytest.fixture(scope="module")
def compiled(tmp_path_factory):
    """The bytes of rms' code object."""
    folder = tmp_path_factory.mktemp("compiled")
    assert fresh(works, env={"KEVRA_CACHE_DIR": folder}) is True
    assert objects(folder) == [object_name()]
    return (folder / "kernels" / object_name()).read_bytes()


@pytest.fixture(scope="module")
def without_hiprtc(tmp_path_factory):
    """The environment of a HIP runtime without hipRTC beside it."""
    library = tmp_path_factory.mktemp("alone") / "libamdhip64.so"
    shutil.copy(kevra.cpu_device_path(), library)
    return {"KEVRA_HIP_PATH": library}


def put(root, content):
    (root / "kernels").mkdir(parents=True)
    (root / "kernels" / object_name()).write_bytes(content)
    return {"KEVRA_CACHE_DIR": root}


def test_processes_that_start_together_on_a_cold_folder(tmp_path):
    started = [Fresh(works, env={"KEVRA_CACHE_DIR": tmp_path / "cold"}) for _ in range(5)]
    assert [process.result()[0] for process in started] == [True] * 5
    assert objects(tmp_path / "cold") == [object_name()]


@pytest.mark.parametrize("name", ["a b  c", "ünï-cödé-音", 'quo"te\'s', "deep/er/and/deeper"])
def test_folders_of_every_name_keep_the_object(tmp_path, without_hiprtc, name):
    environment = {"KEVRA_CACHE_DIR": tmp_path / name}
    assert fresh(works, env=environment) is True
    assert objects(tmp_path / name) == [object_name()]
    assert fresh(works, env={**environment, **without_hiprtc}) is True


def test_an_empty_variable_is_the_working_folder_and_none_the_temporary_one(tmp_path):
    for variables, root in ({"KEVRA_CACHE_DIR": ""}, tmp_path), (
            {"KEVRA_CACHE_DIR": None, "TMPDIR": tmp_path}, tmp_path / "kevra_cache"):
        assert fresh(works, functools.partial(os.chdir, tmp_path), env=variables) is True
        assert objects(root) == [object_name()]


def test_an_unknown_architecture_has_a_name_too(tmp_path):
    assert fresh(works, env={"KEVRA_CACHE_DIR": tmp_path, "KEVRA_CPU_FAIL": "hipGetDevicePropertiesR0600:1"}) is True
    assert objects(tmp_path) == [object_name().replace(kevra.device_arch(), "gfxunknown")]


def fill_disk():
    """Gives this process's temporary file a place where every write fails for want of space."""
    folder = Path(os.environ["KEVRA_CACHE_DIR"]) / "kernels"
    folder.mkdir(parents=True)
    (folder / f"{object_name()}.tmp{os.getpid()}_0").symlink_to("/dev/full")


def test_folders_that_cannot_be_written_cost_a_compile_and_nothing_else(tmp_path):
    file = tmp_path / "file"
    file.write_text("in the way")
    for folder in file / "below", "/proc/kevra", "/dev/null":
        assert fresh(works, env={"KEVRA_CACHE_DIR": folder}) is True, folder
    assert fresh(works, fill_disk, env={"KEVRA_CACHE_DIR": tmp_path / "full"}) is True
    assert objects(tmp_path / "full") == [], "a file cut short, or the temporary one, stayed"
    (tmp_path / "taken" / "kernels" / object_name()).mkdir(parents=True)
    assert fresh(works, env={"KEVRA_CACHE_DIR": tmp_path / "taken"}) is True
    assert objects(tmp_path / "taken") == [object_name()], "a temporary file stayed beside the folder in the way"


def test_without_hiprtc_cached_objects_serve_and_others_name_the_remedies(tmp_path, compiled, without_hiprtc):
    text = fresh(works, env={**without_hiprtc, "KEVRA_CACHE_DIR": tmp_path / "empty"})
    assert re.search(r"kevra_rms .*hipRTC \(libhiprtc\).*beside the HIP runtime.*KEVRA_HIPRTC_PATH", text), text
    assert fresh(works, env={**without_hiprtc, **put(tmp_path / "filled", compiled)}) is True


def damages(code):
    size = len(code)
    yield "empty", b""
    yield "garbage", np.random.default_rng(3).bytes(5000)
    yield "text", b"not an object\n"
    yield "behind a whole one", code + b"more"
    for length in [1, 3, 4, 16, 63, 64, 65, 4095, 4096, 4097, size - 1, *range(200, size, size // 12)]:
        yield f"first {length} of {size} bytes", code[:length]
    for at in [*range(0, 64, 3), *range(64, size, size // 40), *range(size - 128, size, 17)]:
        yield f"byte {at} of {size} flipped", code[:at] + bytes([code[at] ^ 0xFF]) + code[at + 1:]


def test_damaged_objects_are_never_used(tmp_path, compiled, without_hiprtc):
    started = {case: Fresh(works, env={**without_hiprtc, **put(tmp_path / case, content)})
               for case, content in damages(compiled)}
    outcomes = {case: process.result()[0] for case, process in started.items()}
    # Refused, so that a compiler is asked for. What stands behind a whole object does not matter.
    assert outcomes.pop("behind a whole one") is True
    assert {case: outcome for case, outcome in outcomes.items() if "hipRTC" not in str(outcome)} == {}


@pytest.mark.parametrize("content", [b"", b"garbage", None], ids=["empty", "garbage", "cut short"])
def test_damaged_objects_are_replaced(tmp_path, compiled, content):
    content = compiled[:-99] if content is None else content
    assert fresh(works, env=put(tmp_path, content)) is True
    assert objects(tmp_path) == [object_name()]
    replaced = (tmp_path / "kernels" / object_name()).read_bytes()
    assert len(replaced) > len(compiled) // 2 and replaced != content
