"""Every public method of the tracker, called from Python through the simulation's tracking
service: each setting read back as set, each command taking effect on the simulated robot."""

import math

import pytest

import krtracker
from krtracker._tracker_methods import METHODS


def test_the_tracker_class_has_every_method_the_service_serves(sim):
    # Names starting with "_" are the service's own (the robot side of a two-process run
    # copies the configuration with one); the class leaves them out.
    served = {name for name in sim.tracker.methods() if not name.startswith("_")}
    assert {name for name, _, _ in METHODS} == served


@pytest.mark.parametrize("setter, args, getter, getter_args, expected", [
    ("setMode", ["WholeBody"], "getMode", [], "WholeBody"),
    ("setMaximumVelocity", [0.8], "getMaximumVelocity", [], 0.8),
    ("setMaximumAcceleration", [5], "getMaximumAcceleration", [], 5.0),
    ("setExtractorPeriod", ["RedBall", 120], "getExtractorPeriod", ["RedBall"], 120),
    ("toggleSearch", [True], "isSearchEnabled", [], True),
    ("setRelativePosition", [[0.9, 0.0, 0.0, 0.1, 0.1, 0.3]], "getRelativePosition", [],
     [0.9, 0.0, 0.0, 0.1, 0.1, 0.3]),
    ("setMoveConfig", [[["MaxVelocityXY", 0.2]]], "getMoveConfig", [], [["MaxVelocityXY", 0.2]]),
    ("setTargetCoordinates", [[[2.2, 0.35, 0.45], [2.2, -0.35, 0.45]]], "getTargetCoordinates",
     [], [[2.2, 0.35, 0.45], [2.2, -0.35, 0.45]]),
])
def test_each_setting_reads_back_as_set(sim, setter, args, getter, getter_args, expected):
    tracker = sim.tracker
    before = getattr(tracker, getter)(*getter_args)
    assert before != expected
    assert getattr(tracker, setter)(*args) is None
    assert getattr(tracker, getter)(*getter_args) == expected


def test_the_configuration_table_takes_a_value_by_name(sim):
    sim.tracker.setTrackerConfig([["WHOLEBODY_THRESHOLD", 0.026]])
    table = dict(sim.tracker.getTrackerConfig())
    assert table["WHOLEBODY_THRESHOLD"] == pytest.approx(0.026)
    assert "WHOLEBODY_THRESHOLD" in sim.tracker.getTrackerConfigStr()
    sim.tracker.initialize()  # back to the defaults
    assert dict(sim.tracker.getTrackerConfig())["WHOLEBODY_THRESHOLD"] != pytest.approx(0.026)


def test_targets_are_registered_tracked_paused_and_forgotten(sim):
    t = sim.tracker
    assert {"RedBall", "Face", "People", "Sound", "LandMarks"} <= set(t.getSupportedTargets())
    assert "Head" in t.getAvailableModes()
    for kind in ["RedBall", "Face", "People"]:
        t.registerTarget(kind, 0.1)
    t.unregisterTarget("People")
    t.unregisterTargets(["Face"])
    assert t.getRegisteredTargets() == ["RedBall"]
    sim.add_target("ball", "RedBall", [1.5, 0.2, 0.5])
    t.track("RedBall")
    assert t.getActiveTarget() == "RedBall" and t.isActive()
    assert t.getEventName() != "" and t.getSecondEventName() == ""
    sim.step(1.0)
    assert len(t.getTargetPosition(krtracker.FRAME_WORLD)) == 3
    assert t.getRobotPosition() == []  # only from landmarks
    t.pause()
    t.restart()
    assert t.isActive()
    t.stopTracker()
    assert not t.isActive() and t.getActiveTarget() == ""
    t.trackEvent(t.getEventName() or "KRTracker/MyBall")
    t.setMoveEvent("KRTracker/MyMove")
    t.stop()
    t.start()
    t.stop()
    t.unregisterAllTargets()
    assert t.getRegisteredTargets() == []


def head_yaw(sim):
    return sim.series()["HeadYaw"][-1]


def test_one_shot_looks_and_points_move_the_robot(sim):
    t = sim.tracker
    left = [1.0, 0.5, 0.3]  # torso frame [m]
    t.lookAt(left, krtracker.FRAME_TORSO, 0.5, False)
    sim.step(2.0)
    assert head_yaw(sim) == pytest.approx(math.atan2(0.5, 1.0), abs=0.1)
    t.lookAt([1.0, -0.5, 0.3], krtracker.FRAME_TORSO, 0, 0.5, False)  # the top camera's form
    sim.step(2.0)
    assert head_yaw(sim) == pytest.approx(-math.atan2(0.5, 1.0), abs=0.1)
    t.stopLookAt()
    t.pointAt("LArm", left, krtracker.FRAME_TORSO, 0.5)
    sim.step(2.0)
    t.stopPointAt()
    samples = sim.series()
    assert samples["LShoulderPitch"][-1] != pytest.approx(samples["LShoulderPitch"][0], abs=0.1)
    t.lookAtAndMove([1.0, 0.0, 0.3], 0.5, False, False)
    sim.step(1.0)
    assert head_yaw(sim) == pytest.approx(0.0, abs=0.1)


def test_effectors_search_and_exit(sim):
    t = sim.tracker
    t.setEffector("Arms")
    t.removeEffector("Arms")
    assert t.getEffector() == "None"
    t.searcherSetUseWholeBodyLookAt(True)
    t.toggleSearch(False)
    assert not t.isSearchEnabled()
    t.exit()
    assert not t.isActive()
