"""The two examples a user copies, run as they are."""

import os
import pathlib
import subprocess
import sys

EXAMPLES = pathlib.Path(__file__).resolve().parents[2] / "examples"


def run_example(name, *args, cwd):
    done = subprocess.run([sys.executable, str(EXAMPLES / name), *args], cwd=cwd,
                          capture_output=True, text=True, env=dict(os.environ), timeout=300)
    assert done.returncode == 0, done.stderr
    return done.stdout


def test_the_latency_sweep_draws_both_settings(tmp_path):
    out = run_example("latency_sweep.py", "--latencies", "0", "0.1", "--physics", "kinematic",
                      "--duration", "8", "--out", "sweep.png", cwd=tmp_path)
    rows = [line for line in out.splitlines() if line.startswith("latency")]
    assert len(rows) == 4 and "compensation off" in rows[-1]
    png = (tmp_path / "sweep.png").read_bytes()
    assert png.startswith(b"\x89PNG") and len(png) > 10000


def test_the_scripted_path_prints_the_loss_and_the_find_as_they_come(tmp_path):
    out = run_example("scripted_path.py", cwd=tmp_path)
    events = [line.split()[-1] for line in out.splitlines() if "KRTracker/" in line]
    assert events.index("KRTracker/TargetLost") < events.index("KRTracker/TargetDetected")
    assert "line of sight" in out and out.splitlines()[-1].startswith("tracked")
