#!/usr/bin/python3
"""Line-of-sight error against the camera's latency, with the tracker's latency compensation
on and off: one run of a scenario per latency and setting, one panel per phase, to a PNG.

    PYTHONPATH=build/python /usr/bin/python3 examples/latency_sweep.py --out sweep.png
"""

import argparse

import matplotlib

matplotlib.use("Agg")  # no display needed
import matplotlib.pyplot as plt

import krtracker


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--scenario", default="ball")
    parser.add_argument("--latencies", type=float, nargs="+",
                        default=[0.0, 0.04, 0.08, 0.12, 0.16], help="[s]")
    parser.add_argument("--physics", default="mujoco", choices=["mujoco", "kinematic"])
    parser.add_argument("--duration", type=float, help="[s], default: the scenario's")
    parser.add_argument("--out", default="latency_sweep.png")
    args = parser.parse_args()

    # rms[compensation][phase] = one figure per latency [deg]
    rms = {True: {}, False: {}}
    for compensation in (True, False):
        for latency in args.latencies:
            summary = krtracker.run(args.scenario, latency=latency, compensation=compensation,
                                    physics=args.physics, duration=args.duration, seed=1)
            for phase in summary["phases"]:
                rms[compensation].setdefault(phase["name"], []).append(phase["los_rms_deg"])
            print(f"latency {latency * 1000:5.0f} ms, compensation "
                  f"{'on ' if compensation else 'off'}: " +
                  ", ".join(f"{p['name']} {p['los_rms_deg']:.2f}" for p in summary["phases"]))

    phases = list(rms[True])
    figure, axes = plt.subplots(1, len(phases), figsize=(4.5 * len(phases), 4), squeeze=False)
    milliseconds = [latency * 1000 for latency in args.latencies]
    for axis, phase in zip(axes[0], phases):
        for compensation, style in ((True, "o-"), (False, "s--")):
            axis.plot(milliseconds, rms[compensation][phase], style,
                      label=f"compensation {'on' if compensation else 'off'}")
        axis.set_title(phase)
        axis.set_xlabel("camera latency [ms]")
        axis.set_ylabel("line-of-sight RMS [deg]")
        axis.grid(True, alpha=0.3)
        axis.legend()
    figure.suptitle(f"{args.scenario}: line-of-sight error against latency ({args.physics})")
    figure.tight_layout()
    figure.savefig(args.out, dpi=100)
    print("plot:", args.out)


if __name__ == "__main__":
    main()
