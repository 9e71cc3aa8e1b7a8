#!/usr/bin/python3
"""A target path scripted by hand: a ball goes round a square in front of the robot, hides
for four seconds, then comes back; the tracker's events are printed as they come, and the
line-of-sight error once a second.

    PYTHONPATH=build/python /usr/bin/python3 examples/scripted_path.py
"""

import numpy as np

import krtracker

EVENTS = ["KRTracker/TargetDetected", "KRTracker/TargetLost",
          "KRTracker/HeadTracking/Restarted", "KRTracker/HeadTracking/Stopped"]
CORNERS = [(1.4, 0.4, 0.3), (1.4, -0.4, 0.3), (1.4, -0.4, 0.7), (1.4, 0.4, 0.7)]  # [m]
SIDE_S = 3.0  # seconds per side of the square


def ball_at(t):
    """The ball's position at t seconds: round the square's corners, in the world frame."""
    side = int(t // SIDE_S) % len(CORNERS)
    u = (t % SIDE_S) / SIDE_S
    a, b = CORNERS[side], CORNERS[(side + 1) % len(CORNERS)]
    return [a[i] + (b[i] - a[i]) * u for i in range(3)]


def main():
    with krtracker.Simulation(latency=0.08) as sim:
        for name in EVENTS:
            sim.on_event(name, lambda value, name=name: print(f"[{sim.time:6.2f} s] {name}"))
        sim.add_target("ball", "RedBall", ball_at(0.0))
        sim.tracker.registerTarget("RedBall", 0.06)
        sim.tracker.setMode("Head")
        sim.tracker.track("RedBall")

        for step in range(1, 2001):  # 20 s in steps of 10 ms
            sim.step(0.01)
            sim.move_target("ball", ball_at(sim.time))
            if step == 800:
                sim.hide_target("ball")
            if step == 1200:
                sim.hide_target("ball", hidden=False)
            if step % 100 == 0:
                print(f"[{sim.time:6.2f} s] line of sight {sim.line_of_sight():5.2f} deg")

        samples = sim.series()
        tracked = samples["tracked"] == 1
        print(f"tracked {100 * tracked.mean():.0f} % of the time; line of sight while tracked: "
              f"median {np.median(samples['line_of_sight_deg'][tracked]):.2f} deg")


if __name__ == "__main__":
    main()
