"""Python values into the library and back, through a service that keeps what it is given (the
memory service), and the values refused with the argument named."""

import numpy as np
import pytest

import krtracker


@pytest.fixture
def memory(sim):
    return sim.proxy("KRMemory")


@pytest.mark.parametrize("value, expected", [
    (None, None),
    (True, True),
    (False, False),
    (0, 0),
    (-(2 ** 31), -(2 ** 31)),
    (2 ** 31 - 1, 2 ** 31 - 1),
    (1.5, 1.5),
    (0.8, 0.8),                      # single precision, read back as the decimal set
    (1 / 3, 0.33333334),             # what single precision keeps of it
    (-0.0, -0.0),
    ("", ""),
    ("ballon rouge \u00e9", "ballon rouge \u00e9"),
    ([], []),
    ([1, "a", [True, 2.5, [None]]], [1, "a", [True, 2.5, [None]]]),
    ((1, (2.0, "x")), [1, [2.0, "x"]]),          # tuples come back as lists
    (np.array([[1.0, 2.0], [3.0, 4.0]]), [[1.0, 2.0], [3.0, 4.0]]),
    (np.int64(7), 7),
    (np.float32(0.25), 0.25),
    (np.bool_(True), True),
    ([np.int32(1), np.float64(2.5)], [1, 2.5]),
])
def test_values_cross_both_ways(memory, value, expected):
    memory.insertData("key", value)
    back = memory.getData("key")
    assert back == expected
    assert type(back) is type(expected)
    if isinstance(expected, float):
        assert np.copysign(1.0, back) == np.copysign(1.0, expected)


@pytest.mark.parametrize("value, why", [
    ({"a": 1}, "a dict does not convert"),
    ({1, 2}, "a set does not convert"),
    (b"bytes", "a bytes does not convert"),
    (object(), "a object does not convert"),
    (1 + 2j, "a complex does not convert"),
    (2 ** 31, "an int must fit in 32 bits"),
    (-(2 ** 31) - 1, "an int must fit in 32 bits"),
    (1e39, "single precision's range"),
    ([1, [2, {}]], "argument 2[1][1]: a dict does not convert"),
])
def test_a_value_that_does_not_convert_raises_type_error_naming_the_argument(memory, value, why):
    with pytest.raises(TypeError, match="insertData: argument 2") as refused:
        memory.insertData("key", value)
    assert why in str(refused.value)


def test_lists_nested_too_deep_are_refused_without_harm(memory):
    deep = []
    for _ in range(100000):
        deep = [deep]
    with pytest.raises(TypeError, match="lists nest at most 32 deep"):
        memory.insertData("key", deep)
    nested = 0
    for _ in range(31):
        nested = [nested]
    memory.insertData("key", nested)
    assert memory.getData("key") == nested


def test_the_trackers_arguments_are_named_by_their_parameter(sim):
    with pytest.raises(TypeError, match=r"registerTarget: argument 'params'\[0\]: a dict"):
        sim.tracker.registerTarget("RedBall", [{"diameter": 0.06}])
    with pytest.raises(TypeError, match=r"lookAt: argument 4: a set"):
        sim.tracker.lookAt([1.0, 0.0, 0.5], krtracker.FRAME_TORSO, 0.5, {True})
    with pytest.raises(TypeError, match="missing a required argument: 'target'"):
        sim.tracker.track()
    assert sim.tracker.getRegisteredTargets() == []  # nothing was sent


def test_the_librarys_errors_are_runtime_errors_with_its_text(sim, memory):
    with pytest.raises(krtracker.KRError, match=r"^KRMemory::getData: .*nowhere"):
        memory.getData("nowhere")
    with pytest.raises(RuntimeError, match="Legs"):
        sim.tracker.setEffector("Legs")
    with pytest.raises(RuntimeError, match="argument.*float"):
        sim.tracker.setMaximumVelocity("fast")
    assert issubclass(krtracker.KRError, RuntimeError)


def test_a_proxy_answers_its_modules_methods_and_refuses_others(sim, memory):
    assert {"insertData", "getData", "raiseEvent"} <= set(memory.methods())
    assert "getData" in dir(memory)
    memory.call("insertData", "via call", 3)
    assert memory.getData("via call") == 3
    with pytest.raises(AttributeError, match="KRMemory has no method 'fly'"):
        memory.fly()
    with pytest.raises(krtracker.KRError, match="Nowhere"):
        sim.proxy("Nowhere")
