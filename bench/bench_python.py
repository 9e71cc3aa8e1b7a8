#!/usr/bin/python3
"""The cost of driving the simulator from Python: the default scenario stepped from Python 10 ms
at a time against the same run by krtracker-sim, both measured in this one run.

Two figures per side, medians over the repetitions:
- run CPU: from building the simulation to its last step; Python's time.process_time() around
  Simulation("ball", seed=1) and its 6,000 calls of step(0.01), the command line's own cpu_s
  (its JSON summary) over the same span, its CSV streamed as it goes;
- process CPU: the whole process, start-up included (the interpreter and NumPy for Python),
  from the operating system's accounting of the child.

    PYTHONPATH=build/python KRTRACKER_SIM=build/sim/krtracker-sim bench/bench_python.py
"""

import json
import os
import resource
import statistics
import subprocess
import sys
import tempfile
import time

STEP_LOOP = """
import sys, time, krtracker
start = time.process_time()
sim = krtracker.Simulation(sys.argv[1], seed=1)
while not sim.finished:
    sim.step(0.01)
print(time.process_time() - start, sim.time)
"""


def children_cpu():
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


def python_side(scenario):
    """(run CPU, process CPU, simulated seconds) of the scenario stepped from Python."""
    before = children_cpu()
    out = subprocess.run([sys.executable, "-c", STEP_LOOP, scenario], check=True,
                         capture_output=True, text=True).stdout.split()
    return float(out[0]), children_cpu() - before, float(out[1])


def command_line_side(sim, scenario, folder):
    """(run CPU, process CPU, simulated seconds) of the same run by krtracker-sim."""
    before = children_cpu()
    subprocess.run([sim, "--scenario", scenario, "--seed", "1", "--quiet", "--csv",
                    f"{folder}/run.csv", "--json", f"{folder}/run.json"], check=True,
                   stdout=subprocess.DEVNULL)
    process = children_cpu() - before
    with open(f"{folder}/run.json") as f:
        summary = json.load(f)
    return summary["cpu_s"], process, summary["simulated_s"]


def main():
    repetitions = 5
    for arg in sys.argv[1:]:  # Google Benchmark's option, as `make bench` gives every binary
        if arg.startswith("--benchmark_repetitions="):
            repetitions = int(arg.split("=", 1)[1])
    sim = os.environ.get("KRTRACKER_SIM", "krtracker-sim")
    scenario = "ball"
    python, command_line = [], []
    with tempfile.TemporaryDirectory() as folder:
        for _ in range(repetitions):  # interleaved, so that both see the same machine
            python.append(python_side(scenario))
            command_line.append(command_line_side(sim, scenario, folder))
    simulated = {round(r[2], 6) for r in python + command_line}
    if len(simulated) != 1:
        sys.exit(f"the two sides simulated different spans: {sorted(simulated)} s")

    def median(runs, i):
        return statistics.median(r[i] for r in runs)

    print(f"Run on {time.strftime('%Y-%m-%d %H:%M')}: scenario {scenario}, "
          f"{simulated.pop():.0f} s simulated, medians of {repetitions}")
    print(f"{'Benchmark':<40}{'run CPU [s]':>14}{'process CPU [s]':>18}")
    print("-" * 72)
    rows = [("python_step_10ms_median", python), ("command_line_median", command_line)]
    for name, runs in rows:
        print(f"{name:<40}{median(runs, 0):>14.3f}{median(runs, 1):>18.3f}")
    print(f"{'python_over_command_line_median':<40}"
          f"{median(python, 0) / median(command_line, 0):>13.2f}x"
          f"{median(python, 1) / median(command_line, 1):>17.2f}x")


if __name__ == "__main__":
    main()
