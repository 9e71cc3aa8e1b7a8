"""Robot descriptions and the library's look-at and point-at angles from Python, against the
command line's `angles`, which calls the same functions."""

import pathlib

import pytest

import krtracker

ROBOTS = pathlib.Path(__file__).resolve().parents[2] / "robots"


def cli_angles(run_cli, *args):
    lines = run_cli("angles", *args).stdout.split()
    return {name: float(value) for name, value in zip(lines[::2], lines[1::2])}


@pytest.mark.parametrize("robot, point, keywords, options", [
    ("kibo", (1.0, 0.3, 0.2), {}, []),
    ("kibo", (0.6, -0.4, -0.1), {"effector": 1}, ["--effector-id", "1"]),
    ("rover", (1.0, 0.3, 0.2), {"effector": 1, "whole_body": True},
     ["--effector-id", "1", "--whole-body"]),
])
def test_look_at_gives_the_librarys_angles(run_cli, robot, point, keywords, options):
    angles = krtracker.Robot.load(robot).look_at(*point, **keywords)
    expected = cli_angles(run_cli, "--robot", robot, "--look-at", *map(str, point), *options)
    assert list(angles) == list(expected)
    assert angles == pytest.approx(expected, abs=1e-6)


@pytest.mark.parametrize("arm", ["LArm", "RArm", "Arms"])
def test_point_at_gives_the_librarys_angles(run_cli, arm):
    angles = krtracker.Robot.load("kibo").point_at(arm, 0.8, 0.4, 0.1)
    expected = cli_angles(run_cli, "--robot", "kibo", "--point-at", arm, "0.8", "0.4", "0.1")
    assert list(angles) == list(expected)
    assert angles == pytest.approx(expected, abs=1e-6)


def test_a_robot_names_its_joints_and_their_limits():
    robot = krtracker.Robot.load("kibo")
    assert robot.name == "Kibo" and robot.path.endswith("kibo.xml")
    assert {"HeadYaw", "HeadPitch", "LShoulderPitch"} <= set(robot.joint_names)
    assert robot.joint_names == sorted(robot.limits) == sorted(robot.velocity_limits)
    low, high = robot.limits["HeadYaw"]
    assert low < 0.0 < high
    assert robot.velocity_limits["HeadYaw"] > 0.0
    assert robot.can_point
    assert "Rover" in repr(krtracker.Robot.load("rover"))


def test_a_urdf_robot_loads_from_its_mapping_and_answers_as_its_xml_twin():
    xml = krtracker.Robot.load("kibo")
    urdf = krtracker.Robot.load(str(ROBOTS / "kibo.yaml"))
    assert urdf.path.endswith("kibo.yaml") and urdf.name == xml.name
    assert urdf.joint_names == xml.joint_names
    assert urdf.look_at(1.0, 0.3, 0.2) == pytest.approx(xml.look_at(1.0, 0.3, 0.2), abs=1e-4)
    lumen = krtracker.Robot.load("lumen")
    assert not lumen.can_point
    with pytest.raises(ValueError, match="cannot point"):
        lumen.point_at("LArm", 1.0, 0.0, 0.5)
    with krtracker.Simulation(robot=lumen, physics="kinematic") as sim:
        sim.step(0.1)
        assert sim.summary()["robot"] == lumen.name


def test_bad_requests_are_refused_with_what_is_wrong():
    robot = krtracker.Robot.load("kibo")
    with pytest.raises(ValueError, match="effector expects 0"):
        robot.look_at(1.0, 0.0, 0.0, effector=3)
    with pytest.raises(ValueError, match="arm expects Arms, LArm or RArm, not 'Leg'"):
        robot.point_at("Leg", 1.0, 0.0, 0.0)
    with pytest.raises(ValueError, match="nobody"):
        krtracker.Robot.load("nobody")
    with pytest.raises(TypeError):
        robot.look_at("far", 0.0, 0.0)
