"""The simulated robot scripted from Python: an experiment by hand, a scenario against the
command line's run of it, callbacks, refusals, threads and memory."""

import gc
import json
import math
import os
import sys
import threading
import weakref

import numpy as np
import pytest

import krtracker

LOST = "KRTracker/TargetLost"


def test_a_scripted_experiment_follows_the_ball_and_hears_it_lost():
    with krtracker.Simulation(physics="kinematic", seed=3) as sim:
        sim.add_target("ball", "RedBall", [1.5, 0.45, 0.5])  # ahead and to the left
        sim.tracker.registerTarget("RedBall", 0.06)
        sim.tracker.track("RedBall")
        lost = []
        sim.on_event(LOST, lambda value: lost.append((sim.time, value)))
        start = sim.line_of_sight()
        sim.step(3.0)
        assert start > 10.0
        assert sim.line_of_sight() < 2.0 < start
        # A target never seen is searched for at once: the one loss so far is at the start.
        assert [when for when, _ in lost] == [pytest.approx(0.01)]
        lost.clear()
        sim.hide_target("ball")
        sim.step(4.0)
        assert len(lost) == 1
        when, value = lost[0]
        assert 3.0 < when <= 7.0 and value is not None
        # The samples measured the ball all along: seen and tracked, then hidden and lost.
        samples = sim.series()
        assert samples["tracked"][299] == 1.0 and samples["tracked"][-1] == 0.0
        assert samples["perceived"][299] == 1.0 and samples["perceived"][-1] == 0.0
        assert np.all(np.isfinite(samples["line_of_sight_deg"]))
        # A sample's line of sight is the one asked for at the same moment.
        assert samples["line_of_sight_deg"][-1] == pytest.approx(sim.line_of_sight(), abs=1e-3)
        assert "TargetLost" in samples["events"][round(when * 100) - 1]
        assert set(samples["phase_index"]) == {-1}  # outside every phase
        assert sim.summary()["phases"] == []


def test_a_target_moved_by_hand_is_followed(sim):
    sim.add_target("ball", "RedBall", [1.5, 0.0, 0.5])
    sim.tracker.registerTarget("RedBall", 0.06)
    sim.tracker.track("RedBall")
    sim.step(2.0)
    sim.move_target("ball", [1.5, -0.5, 0.5])
    assert sim.line_of_sight() > 10.0
    sim.step(3.0)
    assert sim.line_of_sight() < 3.0
    assert sim.targets == ["ball"]


@pytest.fixture(scope="module")
def ball_cli(tmp_path_factory, krtracker_sim):
    """krtracker-sim's run of ball, seed 1: its JSON summary and its CSV."""
    import subprocess
    folder = tmp_path_factory.mktemp("cli")
    subprocess.run([krtracker_sim, "--seed", "1", "--quiet", "--json", "ball.json", "--csv",
                    "ball.csv"], cwd=folder, check=True, capture_output=True)
    with open(folder / "ball.json") as f:
        summary = json.load(f)
    return summary, folder / "ball.csv"


def without_cpu(summary):
    return {key: value for key, value in summary.items() if key != "cpu_s"}


def test_run_gives_the_command_lines_figures(ball_cli):
    summary = krtracker.run("ball", seed=1)
    assert without_cpu(summary) == without_cpu(ball_cli[0])
    assert [p["name"] for p in summary["phases"]] == [
        "head tracking", "whole body + arms", "lost and found"]
    assert summary["cpu_s"] > 0.0


def test_the_series_has_the_csvs_columns_lengths_and_values(ball_cli):
    with krtracker.Simulation("ball", seed=1) as sim:
        sim.run_to_end()
        series = sim.series()
        summary = sim.summary()
    assert without_cpu(summary) == without_cpu(ball_cli[0])
    csv = np.genfromtxt(ball_cli[1], delimiter=",", names=True, dtype=None, encoding="utf-8",
                        deletechars="", missing_values="", usemask=False)
    assert list(series) == list(csv.dtype.names)
    assert all(len(column) == len(csv) == 6000 for column in series.values())
    for name in ["time", "line_of_sight_deg", "HeadYaw", "cmd_LShoulderPitch", "larm_deg"]:
        np.testing.assert_allclose(series[name], csv[name].astype(float), atol=1e-3, rtol=0)
    assert series["phase_index"].dtype == np.int64
    for name in ["phase", "events", "observation"]:
        assert list(series[name]) == list(csv[name]), name
    assert set(series["phase"]) == {p["name"] for p in summary["phases"]}


def test_the_summary_covers_the_phases_played_so_far():
    with krtracker.Simulation("ball", seed=1, physics="kinematic") as sim:
        assert sim.summary()["phases"] == []
        sim.step(25.0)
        names = [p["name"] for p in sim.summary()["phases"]]
        assert names == ["head tracking", "whole body + arms"]
        assert sim.summary()["simulated_s"] == 25.0


def test_a_scenario_stops_at_its_end():
    with krtracker.Simulation("ball", duration=0.5, physics="kinematic") as sim:
        sim.step(2.0)
        assert sim.time == pytest.approx(0.5) and sim.finished
        with pytest.raises(RuntimeError, match="the scenario ball ended at 0.5 s"):
            sim.step(0.01)
        sim.step(0.0)  # nothing asked, nothing refused


def test_a_callback_that_raises_is_reported_and_counted_and_the_run_goes_on(monkeypatch):
    reported = []
    monkeypatch.setattr(sys, "unraisablehook", reported.append)
    heard = []

    def broken(value):
        raise ValueError("a bug in the user's callback")

    with krtracker.Simulation("ball", duration=12.0, physics="kinematic") as sim:
        sim.on_event(LOST, broken)
        sim.on_event(LOST, heard.append)
        sim.run_to_end()
        assert sim.time == pytest.approx(12.0)
        assert sim.callback_errors == len(heard) >= 1
    assert len(reported) == len(heard)
    assert reported[0].exc_type is ValueError
    assert "a bug in the user's callback" in str(reported[0].exc_value)
    assert reported[0].object is broken


def test_an_event_raised_by_a_call_reaches_its_callback_when_the_call_returns(sim):
    heard = []
    sim.on_event("Experiment/Marker", heard.append)
    sim.proxy("KRMemory").raiseEvent("Experiment/Marker", [1, "start", 2.5])
    assert heard == [[1, "start", 2.5]]
    sim.proxy("KRMemory").raiseEvent("Experiment/Other", 3)
    assert heard == [[1, "start", 2.5]]


def test_callbacks_may_drive_the_simulation_between_steps_but_not_step_it(sim):
    sim.add_target("ball", "RedBall", [1.5, 0.0, 0.5])
    sim.tracker.registerTarget("RedBall", 0.06)
    refused, found = [], []

    def on_lost(value):
        sim.hide_target("ball", hidden=False)  # shown again from the callback
        try:
            sim.step(0.01)
        except RuntimeError as error:
            refused.append(str(error))

    sim.tracker.track("RedBall")
    sim.step(1.0)  # found (a never-seen target is lost at once, then detected)
    ident = sim.on_event(LOST, on_lost)
    sim.on_event("KRTracker/TargetDetected", lambda value: found.append(sim.time))
    sim.hide_target("ball")
    sim.step(6.0)
    assert len(refused) == 1 and "callback cannot step" in refused[0]
    assert len(found) == 1  # the tracker found the ball the callback showed
    sim.remove_callback(ident)
    with pytest.raises(KeyError):
        sim.remove_callback(ident)


@pytest.mark.parametrize("keywords, error, text", [
    ({"latency": -0.1}, ValueError, "latency expects from 0 to 10 seconds"),
    ({"scenario": "nowhere"}, ValueError, "unknown scenario 'nowhere'"),
    ({"scenario": 3}, TypeError, "scenario expects"),
    ({"robot": "nobody"}, ValueError, "nobody"),
    ({"robot": 3}, TypeError, "robot expects"),
    ({"seed": -1}, ValueError, "seed expects an integer from 0"),
    ({"mode": "Navigate"}, ValueError, "mode Navigate needs a robot of type 1"),
    ({"scenario": "ball", "duration": 100}, ValueError, "past the end of scenario ball"),
])
def test_settings_out_of_range_are_refused_naming_the_keyword(keywords, error, text):
    with pytest.raises(error, match=None) as refused:
        krtracker.Simulation(**keywords)
    assert text in str(refused.value)


POSITION = r"position expects \[x, y, z\]"


@pytest.mark.parametrize("call, error, text", [
    (lambda sim: sim.add_target("cup", "Ball", [1, 0, 0.5]), ValueError,
     "kind expects one of RedBall, Face, People"),
    (lambda sim: sim.add_target("cup", "RedBall", [1, 0]), ValueError, POSITION),
    (lambda sim: sim.add_target("cup", "RedBall", [1, 0, math.nan]), ValueError, POSITION),
    (lambda sim: sim.add_target("cup", "RedBall", "here"), TypeError, POSITION),
    (lambda sim: sim.add_target("ball", "Face", [1, 0, 0.5]), krtracker.KRError,
     "already named ball"),
    (lambda sim: sim.move_target("cup", [1, 0, 0.5]), krtracker.KRError, "no target named cup"),
    (lambda sim: sim.hide_target("cup"), krtracker.KRError, "no target named cup"),
    (lambda sim: sim.line_of_sight("cup"), krtracker.KRError, "no target named cup"),
    (lambda sim: sim.step(-1.0), ValueError, "seconds expects a finite number"),
])
def test_targets_are_refused_with_what_is_wrong(sim, call, error, text):
    sim.add_target("ball", "RedBall", (1, 0, 0.5))
    with pytest.raises(error, match=text):
        call(sim)
    assert sim.targets == ["ball"]


def test_a_closed_simulation_refuses_every_call():
    sim = krtracker.Simulation(physics="kinematic")
    tracker = sim.tracker
    sim.close()
    for call in [lambda: sim.step(0.1), lambda: sim.time, sim.summary, sim.series,
                 lambda: sim.add_target("b", "RedBall", [1, 0, 0]), tracker.getMode]:
        with pytest.raises(RuntimeError, match="closed"):
            call()
    sim.close()  # twice is harmless


def test_steps_release_the_gil():
    # With a switch interval this long, a thread keeps the GIL until it blocks or releases it:
    # start() returns (and reads `returned`) while the step runs only if the step let it go.
    interval = sys.getswitchinterval()
    returned = []
    with krtracker.Simulation("ball", physics="kinematic") as sim:
        def stepping():
            sim.step(30.0)
            returned.append(sim.time)

        stepper = threading.Thread(target=stepping)
        sys.setswitchinterval(1000.0)
        try:
            stepper.start()
            seen_during_step = list(returned)
        finally:
            sys.setswitchinterval(interval)
        stepper.join()
    assert seen_during_step == []
    assert returned == [pytest.approx(30.0)]


def test_a_simulation_held_by_its_own_callback_is_collected():
    sim = krtracker.Simulation(physics="kinematic")
    tracker = sim.tracker
    sim.on_event(LOST, lambda value: (sim.time, tracker.getMode()))  # sim -> callback -> sim
    gone = weakref.ref(sim)
    del sim, tracker
    gc.collect()
    assert gone() is None


def resident_kib():
    with open("/proc/self/status") as f:
        for line in f:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    raise RuntimeError("no VmRSS")


def test_a_thousand_simulations_leave_memory_and_objects_flat():
    count = int(os.environ.get("KRTRACKER_SIMULATIONS", "1000"))  # fewer under a sanitizer

    def create(n):
        for _ in range(n):
            sim = krtracker.Simulation()  # MuJoCo's model built and freed each time
            sim.add_target("ball", "RedBall", [1.5, 0.0, 0.5])
            sim.tracker.registerTarget("RedBall", 0.06)
            sim.on_event(LOST, lambda value: None)
            sim.step(0.05)
            del sim
        gc.collect()

    create(count // 5)  # allocators and caches at their working size
    rss, objects = resident_kib(), len(gc.get_objects())
    create(count - count // 5)
    assert len(gc.get_objects()) - objects < 100
    if "KRTRACKER_SIMULATIONS" not in os.environ:  # a sanitizer holds on to freed memory
        assert resident_kib() - rss < 8 * 1024
