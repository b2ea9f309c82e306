"""Calls of every entry point, made to fail, made wrongly and made at once."""

import harness

SHOWN = 50
SELECTION = {"only": {"metavar": "TEXT", "default": "", "help": "entry points with this in their names"}}


def selected(table: dict, chosen) -> list[str]:
    """Entry points that are there, of those that --only asks for, each --every-th."""
    return [name for name, call in table.items() if call.present and chosen.only in name][::chosen.every]


def report(chosen, measured: str, failures: list[str], notes: dict) -> int:
    """Prints the failures by number and the table of what was tried; the exit status is 0 where nothing failed."""
    for number, failure in enumerate(failures[:SHOWN], 1):
        print(f"{number:4}  {failure}")
    if len(failures) > SHOWN:
        print(f"      and {len(failures) - SHOWN} more")
    figures = [harness.Figure("failures", len(failures), "", 0)]
    return harness.report(chosen, measured, figures, {name: str(told) for name, told in notes.items()})
