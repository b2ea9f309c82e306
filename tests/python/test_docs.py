"""The Python code of the readme and the guides runs."""

import re
from importlib.util import find_spec
from pathlib import Path

import numpy as np
import pytest
import scipy.io.wavfile

ROOT = Path(__file__).parents[2]
PAGES = [ROOT / "README.md", *sorted((ROOT / "docs").glob("*.md"))]


def blocks(page, language):
    return re.findall(rf"^```{language}\n(.*?)^```", page.read_text(), re.DOTALL | re.MULTILINE)


@pytest.mark.parametrize("page", [page for page in PAGES if blocks(page, "python")], ids=lambda page: page.name)
def test_python_blocks_run_one_behind_the_other(page, run_python, tmp_path):
    if page.name == "README.md":  # the demo's output, which its first block reads
        (tmp_path / "out").mkdir()
        sound = np.random.default_rng(0).uniform(-0.5, 0.5, 48000).astype(np.float32)
        scipy.io.wavfile.write(tmp_path / "out" / "round-trip.wav", 16000, sound)
    code = [block for block in blocks(page, "python") if find_spec("torch") or "torch" not in block]
    run_python("\n".join(code))
