"""A bar on the terminal for work that takes a while."""

import sys

_WIDTH = 30


def progress(steps, label: str):
    """Walks through `steps` with a bar on the terminal; silent where the output goes to a file."""
    steps = list(steps)
    shown = sys.stderr.isatty()
    try:
        for done, step in enumerate(steps):
            if shown:
                filled = _WIDTH * done // len(steps)
                bar = "#" * filled + "." * (_WIDTH - filled)
                print(f"\r{label} [{bar}] {done}/{len(steps)}", end="", file=sys.stderr, flush=True)
            yield step
    finally:
        if shown:
            print("\r\033[K", end="", file=sys.stderr, flush=True)
