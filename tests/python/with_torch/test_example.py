"""The example, as a user runs it, with fewer steps."""

from pathlib import Path

import pytest

pytest.importorskip("torch", reason="PyTorch is not installed for this Python; ./test --torch runs these")

EXAMPLE = Path(__file__).parents[3] / "examples" / "fit_to_mel.py"


def test_the_fit_comes_nearer_and_draws_its_loss(run_python, tmp_path):
    child = run_python([EXAMPLE, "--steps", 60, "--seconds", 0.5, "--output", tmp_path], env={"KEVRA_HIP_PATH": None})
    assert "dB of noise" in child.stdout
    assert (tmp_path / "fit-to-mel.png").read_bytes().startswith(b"\x89PNG")
    assert {path.name for path in tmp_path.glob("*.wav")} == {"fit-to-mel-target.wav", "fit-to-mel-fitted.wav"}
