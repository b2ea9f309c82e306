"""kevra.tune: what it measures, sets and keeps, and the file that outlives the process."""

import json
import os
import re
import sys
import warnings
from dataclasses import replace
from pathlib import Path

import kevra
import numpy as np
import pytest
from kevra import _tuned_file
from kevra._tuned_file import TunedShape
from support import FLOAT, Fresh

KERNELS = os.environ["KEVRA_CACHE_DIR"]
QUICK = {"iters": 1, "warmup": 1}
FFT = {"n": 18, "batch": 7}
STFT = {"batch": 2, "length": 400, "n_fft": 48, "hop": 16}
EXAMPLE = TunedShape("fft", 18, 0, False, 32, "complex", 0, 0, 1, 48, 1, 0, 0.25, 7, 18)


@pytest.fixture(autouse=True)
def own_folder(tmp_path, monkeypatch):
    kernels = Path(KERNELS, "kernels")
    kernels.mkdir(exist_ok=True)
    (tmp_path / "kernels").symlink_to(kernels)
    monkeypatch.setenv("KEVRA_CACHE_DIR", str(tmp_path))
    yield
    kevra.shape_hint_clear()


def here(**changes):
    """The environment of a fresh process that shares the test's folder."""
    return {"KEVRA_CACHE_DIR": os.environ["KEVRA_CACHE_DIR"], **changes}


@pytest.fixture
def measured(monkeypatch):
    """The arguments of every run of the fft's tuner."""
    runs = []

    def run(*arguments, **counts):
        runs.append((arguments[1:], counts))
        return tuner(*arguments, **counts)

    tuner = kevra._rocm.fft_autotune_gpu
    monkeypatch.setattr(kevra._rocm, "fft_autotune_gpu", run)
    return runs


def test_measures_once_and_keeps_what_it_finds(measured):
    epoch = kevra.shape_epoch()
    found = kevra.tune("fft", **FFT, **QUICK)
    assert [tuned.shape for tuned in found] == [("fft", 18, 0, way, 32, "complex", 0) for way in (False, True)]
    assert measured == 2 * [((7, 18, FLOAT), {"device": 0, **QUICK})] and kevra.shape_epoch() == epoch + 2
    assert kevra.tune("fft", **FFT) == found and len(measured) == 2
    assert kevra.load_tuned() == 2 == kevra.load_tuned(0) and kevra.shape_epoch() == epoch + 8
    assert set(_tuned_file.read(0).values()) == set(found)

    kevra.tune("fft", n=18, batch=8, **QUICK)
    assert len(measured) == 4, "another batch may have another winner"
    kevra.tune("fft", n=18, batch=8, again=True, **QUICK)
    assert len(measured) == 6 and kevra.load_tuned() == 2
    assert {tuned.batch for tuned in _tuned_file.read(0).values()} == {8}
    assert kevra.tune("fft", n=[1, 1021], batch=3) == [] and kevra.load_tuned() == 2
    assert len(kevra.tune("fft", n=(18,), batch=[8, 9], prec=[FLOAT, FLOAT], **QUICK)) == 8
    assert measured[-1][0] == (9, 18, FLOAT)


def test_keeps_the_default_unless_two_measurements_prefer_something_else(monkeypatch):
    def winner(core, ms):
        return {"ept": 0, "fpb": 0, "tpf": 0, "core": core, "var": 0, "ms": ms}

    runs = iter([{"forward": winner(1, 1.0), "inverse": winner(1, 1.0)},
                 {"forward": winner(0, 2.0), "inverse": winner(2, 2.0)}])
    monkeypatch.setattr(kevra._rocm, "fft_autotune_gpu", lambda *_, **__: next(runs))
    found = kevra.tune("fft", **FFT)
    assert [(tuned.core, tuned.ms) for tuned in found] == [(0, 2.0), (1, 1.0)]
    assert set(_tuned_file.read(0).values()) == set(found)


def test_an_interrupt_loses_nothing_that_was_measured(monkeypatch):
    def run(*arguments, **counts):
        if arguments[2] == 20:
            raise KeyboardInterrupt
        return {way: {"ept": 0, "fpb": 2, "tpf": 0, "core": 1, "var": 0, "ms": 1.0} for way in ("forward", "inverse")}

    monkeypatch.setattr(kevra._rocm, "fft_autotune_gpu", run)
    with pytest.raises(KeyboardInterrupt):
        kevra.tune("fft", n=[18, 20, 24], batch=1)
    assert {tuned.n_fft for tuned in _tuned_file.read(0).values()} == {18}


# --- The file ---------------------------------------------------------------------------------------------------------

def launches_after_loading():
    assert kevra.load_tuned() == 1
    kevra.fft_staged(np.zeros((7, 18), np.complex64), False)
    kevra.shape_hint_clear()
    kevra.fft_staged(np.zeros((7, 18), np.complex64), False)


def test_a_later_process_runs_what_an_earlier_one_has_found():
    _tuned_file.keep([EXAMPLE], 0)
    assert _tuned_file.read(0) == {EXAMPLE.shape: EXAMPLE}
    path = kevra.tuned_file()
    assert re.fullmatch(rf"cpu-[\w-]+-{re.escape(kevra.__version__)}\.json", path.name)
    _, words = Fresh(launches_after_loading, env=here(KEVRA_DEBUG="1")).result()
    tuned, default = re.findall(r"launch (.*) stream", words)
    assert "block 48 " in tuned and tuned != default


def row(**changes):
    return json.loads(json.dumps({**EXAMPLE.__dict__, **changes}))


def content(*rows, **changes):
    return json.dumps({**_tuned_file._owner(0), "shapes": rows, **changes})


WHOLE = lambda: content(row(), row(n_fft=20))  # noqa: E731
DAMAGED = {
    "torn": lambda: WHOLE()[:-20],
    "empty": lambda: "",
    "no JSON": lambda: "\x00\xff RIFF",
    "a list": lambda: "[]",
    "a number": lambda: "3",
    "nested deep": lambda: "[" * 200_000,
    "of another device": lambda: content(row(), architecture="gfx000"),
    "of another version": lambda: content(row(), version="0.0.0"),
    "without shapes": lambda: json.dumps(_tuned_file._owner(0)),
    "shapes of something else": lambda: content(3, None),
    "a field short": lambda: content({name: value for name, value in row().items() if name != "var"}),
    "a field more": lambda: content(row(other=1)),
    "text for a number": lambda: content(row(ept="8")),
    "truth for a number": lambda: content(row(ept=True)),
    "beyond 32 bits": lambda: content(row(), row(n_fft=2**31)),
    "an unknown operation": lambda: content(row(op="dct")),
}


@pytest.mark.parametrize("damage", DAMAGED)
def test_a_damaged_or_foreign_file_is_passed_over_and_replaced(damage):
    path = kevra.tuned_file()
    path.parent.mkdir()
    path.write_text(DAMAGED[damage](), encoding="latin-1")
    epoch = kevra.shape_epoch()
    with pytest.warns(RuntimeWarning, match=f"{re.escape(str(path))} is passed over: .*delete it"):
        assert kevra.load_tuned() == 0
    assert kevra.shape_epoch() == epoch, "not even the rows before the damage"
    with pytest.warns(RuntimeWarning, match="is passed over"):
        _tuned_file.keep([EXAMPLE], 0)
    assert kevra.load_tuned() == 1


def keep_some(first, count):
    for n in range(first, first + count):
        _tuned_file.keep([replace(EXAMPLE, n_fft=n)], 0)


def test_processes_that_write_at_once_lose_nothing_and_readers_see_whole_files():
    writers = [Fresh(keep_some, first, 25, env=here())
               for first in (100, 200, 300)]
    sizes = [0]
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        while sizes[-1] < 75 and any(writer.process.is_alive() for writer in writers):
            sizes.append(len(_tuned_file.read(0)))
    for writer in writers:
        writer.result()
    assert sizes == sorted(sizes) and len(_tuned_file.read(0)) == 75
    assert not list(kevra.tuned_file().parent.glob("*.tmp"))


def test_a_failed_write_leaves_the_old_file(monkeypatch):
    _tuned_file.keep([EXAMPLE], 0)

    def full(*_):
        raise OSError(28, "No space left on device")

    monkeypatch.setattr(os, "fsync", full)
    with pytest.warns(RuntimeWarning, match="holds for this process alone, .* cannot be written: .*No space left"):
        _tuned_file.keep([replace(EXAMPLE, n_fft=20)], 0)
    assert list(_tuned_file.read(0)) == [EXAMPLE.shape]
    assert not list(kevra.tuned_file().parent.glob("*.tmp"))


def test_a_folder_that_cannot_be_written_costs_the_file_alone(monkeypatch):
    monkeypatch.setenv("KEVRA_CACHE_DIR", "/dev/null")
    epoch = kevra.shape_epoch()
    with pytest.warns(RuntimeWarning, match="holds for this process alone"):
        found = kevra.tune("stft", **STFT, **QUICK)
    assert len(found) == 1 and kevra.shape_epoch() == epoch + 1


def test_the_file_stands_in_the_users_cache_folder(monkeypatch, tmp_path):
    name = kevra.tuned_file().name
    assert kevra.tuned_file().parent == tmp_path / "tuned"
    monkeypatch.delenv("KEVRA_CACHE_DIR")
    monkeypatch.setenv("HOME", str(tmp_path))
    for users, folder in (None, tmp_path / ".cache"), ("not/absolute", tmp_path / ".cache"), ("/users", Path("/users")):
        if users:
            monkeypatch.setenv("XDG_CACHE_HOME", users)
        else:
            monkeypatch.delenv("XDG_CACHE_HOME", raising=False)
        assert kevra.tuned_file() == folder / "kevra" / "tuned" / name


# --- Arguments --------------------------------------------------------------------------------------------------------

WRONG = [
    (("dct",), {}, ValueError, "tune: op is 'dct', must be one of stft, istft, mel, fft, rfft, cqt"),
    (("fft",), {"n": 8}, TypeError, "fft() missing 1 required positional argument: 'batch'"),
    (("stft",), {**STFT, "n": 8}, TypeError, "stft() got an unexpected keyword argument 'n'"),
    (("fft",), {**FFT, "prec": 4}, ValueError, "tune: prec is 4, must be 0 (half)"),
    (("fft",), {**FFT, "prec": "float"}, ValueError, "tune: prec is 'float'"),
    (("cqt",), {"batch": 1, "length": 9, "plan": None, "prec": 3}, ValueError, "must be 0, 1 or 2 for cqt"),
    (("fft",), {"n": [16, 0], "batch": 1}, ValueError, "tune: n is 0, must be from 1 to 2147483647"),
    (("fft",), {"n": 16, "batch": 1.5}, TypeError, "float"),
    (("fft",), {"n": 2**31 - 1, "batch": 2**31 - 1, "prec": 2}, ValueError, "must have less than 2**63"),
    (("fft",), {**FFT, "iters": -1}, ValueError, "fft: iters is -1"),
    (("fft",), {"n": 2**30, "batch": 2**20}, RuntimeError, "hipMalloc failed for 9007199254740992 bytes of input"),
    (("fft",), {**FFT, "device": 7}, RuntimeError, "tune: hipSetDevice failed"),
    (("mel",), {**STFT, "fb": np.ones(25)}, ValueError, "fb"),
    (("stft",), {**STFT, "window": [1.0, 2.0]}, ValueError, "window"),
]


@pytest.mark.parametrize("arguments, shape, kind, words", WRONG, ids=[row[3][:40] for row in WRONG])
def test_says_what_is_wrong(arguments, shape, kind, words):
    epoch, blocks = kevra.shape_epoch(), kevra._diagnostics.read()["pools"]["device"]["in_use_blocks"]
    with pytest.raises(kind, match=re.escape(words)):
        kevra.tune(*arguments, **shape)
    assert kevra.shape_epoch() == epoch
    assert kevra._diagnostics.read()["pools"]["device"]["in_use_blocks"] == blocks


def test_without_a_device_nothing_is_measured(run_python, no_runtime, tmp_path):
    child = run_python("import kevra; kevra.tune('fft', n=16, batch=1)", check=False,
                       env={**no_runtime, "KEVRA_CACHE_DIR": tmp_path})
    assert "RuntimeError: no HIP device available" in child.stderr


def test_long_work_shows_its_progress_on_a_terminal_alone(monkeypatch, capsys):
    kevra.tune("fft", n=[1, 1021], batch=1)
    assert capsys.readouterr().err == ""
    monkeypatch.setattr(sys.stderr, "isatty", lambda: True)
    kevra.tune("fft", n=[1, 1021], batch=1)
    shown = capsys.readouterr().err
    assert "tuning fft [..............................] 0/2" in shown
    assert "tuning fft [###############...............] 1/2" in shown and shown.endswith("\r\033[K")
