"""A short sample of each campaign under bench/: failures of the runtime, wrong calls, many at once, checked kernels."""

import sys
from pathlib import Path

import pytest
from kevra import _rocm

BENCH = Path(__file__).parents[2] / "bench"
VIEWER = Path(_rocm.__file__).parents[2] / "tools" / "kevra_kernels"
SAMPLES = {
    "faults": ["--every", "21", "--most", "1", "--jobs", "1"],
    "bad_input": ["--every", "7", "--calls", "200", "--jobs", "1"],
    "load": ["--every", "25", "--minutes", "0.02", "--calls", "1000"],
    "checked": ["--only", "frame_contrast", "inverse_mel", "--jobs", "1"],
}
WATCHED = """
import os, sys, time
sys.path.insert(0, sys.argv[1])
from campaigns import children
def work(case):
    if case == "crash": os.kill(os.getpid(), 11)
    if case == "hang": time.sleep(60)
    return case if case != "raise" else 1 // 0
cases = ["first", ["crash", "after", "raise", "hang", "last"]]
for case, answer in children.each(work, cases, 2, 1.5):
    print(case, answer.why if isinstance(answer, children.Lost) else answer, sep=": ")
"""


@pytest.mark.parametrize("campaign", SAMPLES)
def test_a_sample_has_no_failures(run_python, campaign):
    if campaign == "checked" and not VIEWER.exists():
        pytest.skip("kevra_kernels is not built; ./test builds it unless --python-only is given")
    child = run_python([BENCH / f"{campaign}.py", *SAMPLES[campaign]], check=False)
    assert child.returncode == 0, child.stdout + child.stderr


def test_the_campaigns_call_every_entry_point():
    sys.path.insert(0, str(BENCH))
    try:
        from campaigns.calls import calls
    finally:
        sys.path.remove(str(BENCH))
    assert {name for name in dir(_rocm) if not name.startswith("_")} <= set(calls())


def test_a_case_that_dies_or_hangs_is_told_and_costs_itself_alone(run_python):
    told = run_python(["-c", WATCHED, BENCH]).stdout.splitlines()
    assert sorted(told) == ["after: after", "crash: killed by SIGSEGV", "first: first",
                            "hang: no answer within 1.5 s", "last: last",
                            "raise: ZeroDivisionError('integer division or modulo by zero'), <string>:8"]
