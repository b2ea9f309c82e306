"""The demo: every kind of recording, and a plain sentence for what is none."""

import wave
from pathlib import Path

import numpy as np
import pytest

DEMO = Path(__file__).parents[2] / "python" / "demo" / "rms.py"


@pytest.fixture
def run_demo(run_python, tmp_path):
    return lambda file, **options: run_python([DEMO, "--output", tmp_path / "out", file], **options)


@pytest.mark.parametrize("width, channels", [(1, 1), (2, 2), (3, 1), (4, 5)])
def test_scales_every_sample_width_and_agrees_with_numpy(run_demo, tmp_path, width, channels):
    amplitude = 0.5 / (1 + np.arange(channels))
    tone = amplitude * np.sin(np.arange(8000)[:, None] * 0.05)
    scaled = np.round(tone * 2.0 ** (8 * width - 1)).astype("<i4")
    raw = (scaled + 128).astype("u1") if width == 1 else scaled.view("u1").reshape(-1, 4)[:, :width]
    file = tmp_path / "tone.wav"
    with wave.open(str(file), "wb") as out:
        out.setparams((channels, width, 8000, 0, "NONE", ""))
        out.writeframes(raw.tobytes())
    child = run_demo(file)
    assert f"{channels} channel" in child.stdout and "loudest frame -9.0 dB" in child.stdout
    assert "agrees with numpy" in child.stdout
    assert (tmp_path / "out" / "rms.png").read_bytes().startswith(b"\x89PNG")


@pytest.mark.parametrize(
    "content", [None, b"", b"RIFF", b"no sound at all" * 20, b"RIFF\x24\0\0\0WAVEfmt \x10\0\0\0" + bytes(24)],
    ids=["missing", "empty", "cut short", "text", "zeros"])
def test_says_in_one_sentence_what_is_wrong_with_a_file(run_demo, tmp_path, content):
    file = tmp_path / "bad.wav"
    if content is not None:
        file.write_bytes(content)
    child = run_demo(file, check=False)
    assert child.returncode == 1 and child.stdout == ""
    assert child.stderr.count("\n") == 1 and str(file) in child.stderr
