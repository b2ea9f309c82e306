"""The demo: every kind of recording, a wrong result, and a plain sentence for a file that is no recording."""

import wave
from pathlib import Path

import numpy as np
import pytest
from scipy.io import wavfile

FOLDER = Path(__file__).parents[2] / "python" / "demo"


@pytest.fixture
def run_demo(run_python, tmp_path):
    return lambda file, **options: run_python(
        [FOLDER / "recording.py", "--output", tmp_path / "out", file], **options)


@pytest.mark.parametrize("width, channels", [(1, 1), (2, 2), (3, 1), (4, 5)])
def test_scales_every_sample_width_and_plays_it_back(run_demo, tmp_path, width, channels):
    amplitude = 0.5 / (1 + np.arange(channels))
    tone = amplitude * np.sin(np.arange(8000)[:, None] * np.pi / 16)  # whole periods in a frame
    scaled = np.round(tone * 2.0 ** (8 * width - 1)).astype("<i4")
    raw = (scaled + 128).astype("u1") if width == 1 else scaled.view("u1").reshape(-1, 4)[:, :width]
    file = tmp_path / "tone.wav"
    with wave.open(str(file), "wb") as out:
        out.setparams((channels, width, 8000, 0, "NONE", ""))
        out.writeframes(raw.tobytes())
    child = run_demo(file)
    assert f"{channels} channel" in child.stdout and "loudest frame -9.0 dB" in child.stdout
    assert child.stdout.count("agrees with") == 9
    for picture in "spectrogram.png", "constant-q.png":
        assert (tmp_path / "out" / picture).read_bytes().startswith(b"\x89PNG")
    rate, played = wavfile.read(tmp_path / "out" / "round-trip.wav")
    assert rate == 8000
    exact = scaled / 2.0 ** (8 * width - 1)
    np.testing.assert_allclose(played.reshape(exact.shape), exact, rtol=0, atol=2e-6)


@pytest.mark.parametrize("rate, samples, frames", [
    (8000, 2, "3 of 2 samples"), (48000, 3, "4 of 2 samples"), (44100, 700, "6 of 512 samples"),
    (1, 40, "11 of 16 samples"), (192000, 9000, "5 of 8192 samples")])
def test_fits_the_frame_to_rate_and_length(run_demo, tmp_path, rate, samples, frames):
    noise = np.random.default_rng(samples).uniform(-1, 1, samples).astype(np.float32)
    for signal in noise, np.zeros_like(noise):
        wavfile.write(tmp_path / "short.wav", rate, signal)
        child = run_demo(tmp_path / "short.wav")
        assert frames in child.stdout and child.stdout.count("agrees with") == 9
    assert "silence" in child.stdout and "the recording to the last bit" in child.stdout


@pytest.mark.parametrize("operation, checks", [
    ("rms", ["RMS"]), ("stft", ["STFT", "round trip"]), ("mel", ["mel in dB"]), ("istft", ["round trip"]),
    ("cepstra", ["MFCC"]), ("onset_strength", ["onset"]), ("cqt", ["CQT"]), ("chroma", ["chroma"])])
def test_fails_when_an_operation_is_wrong(run_python, tmp_path, operation, checks):
    wavfile.write(tmp_path / "noise.wav", 8000, np.random.default_rng(0).uniform(-1, 1, 3000).astype(np.float32))
    child = run_python(f"""
import sys
sys.path.insert(0, {str(FOLDER)!r})
sys.argv = ["./demo", "--output", "out", "noise.wav"]
import kevra, recording
right = kevra.{operation}_staged
kevra.{operation}_staged = lambda *arguments: right(*arguments) * 1.0001
sys.exit(recording.main())
""", check=False)
    assert child.returncode == 1, child.stderr
    lines = child.stdout.splitlines()
    wrong = [line for line in lines if "DIFFERS from" in line]
    assert len(wrong) == len(checks) and all(name in line for name, line in zip(checks, wrong, strict=True))


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
