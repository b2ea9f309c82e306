"""Adds up the reports of a ./test run: tally.py FOLDER [NAME OF A BROKEN RUN]..."""

import sys
import xml.etree.ElementTree as xml
from pathlib import Path


def count(report):
    """The cases of one JUnit report as (passed, failed, skipped)."""
    passed = failed = skipped = 0
    for case in xml.parse(report).getroot().iter("testcase"):
        if case.find("failure") is not None or case.find("error") is not None:
            failed += 1
        elif case.find("skipped") is not None:
            skipped += 1
        else:
            passed += 1
    return passed, failed, skipped


def main(folder, broken):
    counts = [count(report) for report in sorted(Path(folder).glob("*.xml"))]
    passed, failed, skipped = (sum(column) for column in zip((0, 0, 0), *counts))
    line = f"{passed} passed, {failed} failed" + (f", {skipped} skipped" if skipped else "")
    if broken:
        line = f"FAILED in {', '.join(broken)}: {line}"
    elif counts and passed + failed + skipped == 0:
        line, failed = "FAILED: no test matches", 1
    print(line)
    return 1 if broken or failed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], sys.argv[2:]))
