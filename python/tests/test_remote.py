"""The tracking service of another process, krtracker-sim remote-tracker serving a
remote-robot's run, called from Python over DDS on the loopback interface."""

import os
import signal
import subprocess
import time

import pytest

import krtracker


@pytest.fixture
def remote_run(krtracker_sim, tmp_path, monkeypatch):
    """The two processes of a run over DDS, under a topic prefix of this test's own; they and
    this process's own broker (krtracker.connect reads the same variables) stay on loopback."""
    prefix = f"krpytest_{os.getpid()}"
    # Interface lo, multicast off, 127.0.0.1 the one discovery peer: nothing leaves the machine.
    config = krtracker.LOOPBACK_DDS_CONFIG
    assert '<NetworkInterface name="lo"/>' in config
    assert "<AllowMulticast>false</AllowMulticast>" in config
    assert '<Peer address="127.0.0.1"/>' in config
    monkeypatch.setenv("KRTRACKER_DDS_CONFIG", config)
    monkeypatch.delenv("CYCLONEDDS_URI", raising=False)
    env = dict(os.environ, KRTRACKER_REMOTE_PREFIX=prefix)
    tracker = subprocess.Popen([krtracker_sim, "remote-tracker"], cwd=tmp_path, env=env,
                               stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    robot = subprocess.Popen([krtracker_sim, "remote-robot", "ball", "--physics", "kinematic"],
                             cwd=tmp_path, env=env, stdout=subprocess.PIPE,
                             stderr=subprocess.STDOUT, text=True)
    yield prefix
    # Stopped at once: the tracking service would otherwise wait for DDS to time the robot out.
    for process in (robot, tracker):
        process.send_signal(signal.SIGTERM)
    for process in (robot, tracker):
        process.communicate(timeout=60)


def wait_for_tracker(broker, seconds=60.0):
    deadline = time.monotonic() + seconds
    while True:
        try:
            return broker.proxy("KRTracker")
        except krtracker.KRError:
            if time.monotonic() > deadline:
                raise


def test_a_remote_tracker_answers_with_python_values(remote_run):
    with krtracker.connect(remote_run, timeout=2.0) as broker:
        assert broker.prefix == remote_run
        tracker = wait_for_tracker(broker)
        assert isinstance(tracker, krtracker.Tracker)
        assert "KRTracker" in broker.modules
        assert "RedBall" in tracker.getSupportedTargets()
        deadline = time.monotonic() + 30.0  # the scenario's first calls, in real time
        while tracker.getActiveTarget() != "RedBall" and time.monotonic() < deadline:
            time.sleep(0.1)
        assert tracker.getActiveTarget() == "RedBall"
        tracker.setMaximumVelocity(0.8)
        assert tracker.getMaximumVelocity() == 0.8
        with pytest.raises(RuntimeError, match="Legs"):
            tracker.setEffector("Legs")
        with pytest.raises(TypeError, match="registerTarget: argument 'params'"):
            tracker.registerTarget("RedBall", {"diameter": 0.06})
    with pytest.raises(RuntimeError, match="closed"):
        tracker.getMode()


def test_connect_refuses_a_bad_timeout_and_finds_no_module_where_none_is():
    with pytest.raises(ValueError, match="timeout expects seconds"):
        krtracker.connect(timeout=0)
    with krtracker.connect(f"krpytest_none_{os.getpid()}", timeout=0.2) as broker:
        with pytest.raises(krtracker.KRError):
            broker.proxy("KRTracker")
        assert broker.modules == []
