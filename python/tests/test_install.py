"""The package installed by `cmake --install` into a fresh prefix, imported from there by
Debian's Python with the build tree out of its path."""

import os
import subprocess
import sys

import pytest

CHECK = """
import os, sys, krtracker
where = os.path.dirname(krtracker.__file__)
assert where.startswith(sys.argv[1]), where
angles = krtracker.Robot.load("kibo").look_at(1.0, 0.3, 0.2)
with krtracker.Simulation(physics="kinematic") as sim:
    sim.step(0.1)
print(where, sorted(angles))
"""


def test_the_installed_package_imports_and_runs(tmp_path):
    build = os.environ.get("KRTRACKER_BUILD_DIR")
    subdir = os.environ.get("KRTRACKER_PYTHON_INSTALL_DIR")
    if not build or not subdir:
        pytest.fail("KRTRACKER_BUILD_DIR is not set: run the suite through ctest")
    prefix = tmp_path / "prefix"
    subprocess.run(["cmake", "--install", build, "--prefix", str(prefix)], check=True,
                   capture_output=True)
    env = {k: v for k, v in os.environ.items() if k != "PYTHONPATH"}
    env["PYTHONPATH"] = str(prefix / subdir)
    done = subprocess.run(["/usr/bin/python3", "-c", CHECK, str(prefix)], cwd=tmp_path, env=env,
                          capture_output=True, text=True)
    assert done.returncode == 0, done.stderr
    assert done.stdout.startswith(str(prefix / subdir / "krtracker"))
    assert "HeadYaw" in done.stdout
