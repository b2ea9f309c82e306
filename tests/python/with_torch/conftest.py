"""Without PyTorch these tests are skipped; ./test --torch makes an environment that has it."""

import kevra
import pytest


@pytest.fixture(autouse=True)
def deterministic():
    """Gradients that repeat to the bit, which gradcheck asks for."""
    import torch

    torch.set_num_threads(1)  # the tests run side by side
    torch.manual_seed(1)
    kevra.set_deterministic(1)
    yield
    kevra.set_deterministic(0)
