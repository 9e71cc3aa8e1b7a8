"""krtracker: a humanoid robot's target tracking, on a simulated robot, from Python.

    import krtracker

    summary = krtracker.run("ball", seed=1)          # one run, as krtracker-sim does it

    sim = krtracker.Simulation()                      # an empty world on the small humanoid
    sim.add_target("ball", "RedBall", [1.5, 0.3, 0.5])
    sim.tracker.registerTarget("RedBall", 0.06)
    sim.tracker.track("RedBall")
    sim.step(2.0)
    print(sim.line_of_sight(), "degrees")

    robot = krtracker.Robot.load("kibo")
    robot.look_at(1.0, 0.3, 0.2)                      # {joint: angle [rad]}

    broker = krtracker.connect()                      # DDS on loopback
    broker.proxy("KRTracker").getActiveTarget()       # a krtracker-sim remote-tracker's

Values cross into the library as None, bool, int, float (single precision), str and lists of
them; anything else raises TypeError naming the argument. The library's errors raise KRError,
a RuntimeError, with its text. The steps, runs and remote calls release the GIL.

The tracker's configuration table (setTrackerConfig) is one per process: each Simulation
built resets it to its defaults, so simulations that run side by side share it.
"""

from ._krtracker import (FRAME_ROBOT, FRAME_TORSO, FRAME_WORLD, LOOPBACK_DDS_CONFIG, Broker,
                         KRError, Proxy, Robot, Simulation, Tracker, connect, run)
from ._tracker_methods import install as _install_tracker_methods

__all__ = ["Broker", "FRAME_ROBOT", "FRAME_TORSO", "FRAME_WORLD", "KRError",
           "LOOPBACK_DDS_CONFIG", "Proxy", "Robot", "Simulation", "Tracker", "connect", "run"]

_install_tracker_methods(Tracker)

