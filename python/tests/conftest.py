"""Shared fixtures of the krtracker package's tests.

The suite runs on the package of a build tree (PYTHONPATH=build/python, as ctest sets it);
KRTRACKER_SIM names that tree's krtracker-sim, which the tests compare with and run as the
other process of a remote run.
"""

import os
import shutil
import subprocess

import pytest

import krtracker


@pytest.fixture
def sim():
    """An empty world on the small humanoid, closed after the test."""
    with krtracker.Simulation() as s:
        yield s


@pytest.fixture(scope="session")
def krtracker_sim():
    """The path of krtracker-sim."""
    path = os.environ.get("KRTRACKER_SIM") or shutil.which("krtracker-sim")
    if not path:
        pytest.fail("KRTRACKER_SIM is not set: run the suite through ctest")
    return path


@pytest.fixture
def run_cli(krtracker_sim, tmp_path):
    """Runs krtracker-sim with arguments in a folder of its own; returns the finished process."""
    def run(*args):
        done = subprocess.run([krtracker_sim, *args], cwd=tmp_path, capture_output=True,
                              text=True, timeout=300)
        assert done.returncode == 0, done.stderr
        return done
    return run
