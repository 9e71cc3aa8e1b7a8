"""The tracker's public methods on krtracker.Tracker, each with its signature and a line of help.

Every method calls the tracking service "KRTracker" by its own name; the arguments are named
in the TypeError of a value that does not convert.
"""

import inspect

# (name, parameters, help). Units: metres, radians, seconds unless the help says otherwise.
METHODS = [
    # Lifecycle.
    ("initialize", "", "Puts every setting back to its default; neither starts nor stops."),
    ("start", "", "Starts tracking the registered target."),
    ("stop", "", "Stops every sub-module and forgets the target."),
    ("stopTracker", "", "Another name of stop()."),
    ("pause", "", "Stops head and arm tracking; keeps the target for restart()."),
    ("restart", "", "Re-activates the current target: searcher, arms and mode."),
    ("exit", "", "As stop(), then asks every sub-module to exit."),
    ("isActive", "", "Whether the tracker is active."),
    # Targets.
    ("registerTarget", "target params",
     "Registers a target kind ('RedBall', 'Face', 'People', 'Sound', 'LandMarks') with its "
     "parameters (the ball's diameter [m], the face's width [m], ...)."),
    ("unregisterTarget", "target", "Forgets a registered target kind."),
    ("unregisterTargets", "targets", "Forgets a list of registered target kinds."),
    ("unregisterAllTargets", "", "Forgets every registered target kind."),
    ("getSupportedTargets", "", "The target kinds the tracker knows."),
    ("getRegisteredTargets", "", "The target kinds registered."),
    ("getActiveTarget", "", "The target kind tracked; '' when none."),
    ("track", "target", "Tracks a registered target kind."),
    ("trackEvent", "event_name", "Tracks the target raised under a memory event of that name."),
    ("setTargetCoordinates", "coordinates",
     "Fixed positions of the two landmarks: [[x, y, z], [x, y, z]] [m]."),
    ("getTargetCoordinates", "", "The landmarks' fixed positions."),
    ("getTargetPosition", "frame",
     "[x, y, z] of the active target in frame (FRAME_TORSO, FRAME_WORLD, FRAME_ROBOT) [m]; "
     "[] when there is none."),
    ("getEventName", "", "The memory event the target is read from."),
    ("getSecondEventName", "", "The second landmark's memory event."),
    # Modes and moves.
    ("setMode", "mode", "'Head', 'WholeBody', 'Move' or 'Navigate' (wheeled robot)."),
    ("getMode", "", "The tracking mode."),
    ("getAvailableModes", "", "The modes this robot has."),
    ("setMoveConfig", "config", "The movers' parameters, passed on as given."),
    ("getMoveConfig", "", "The movers' parameters as last set."),
    ("setRelativePosition", "position",
     "Where the robot keeps the target in Move modes: [x, y, wz, threshold_x, threshold_y, "
     "threshold_wz] [m, rad]."),
    ("getRelativePosition", "", "The relative position kept in Move modes."),
    ("setMoveHysteresis", "hysteresis", "The movers' hysteresis values."),
    ("getMoveHysteresis", "", "The movers' hysteresis values."),
    ("setMoveEvent", "event_name", "The memory event the movers follow."),
    ("getRobotPosition", "",
     "The robot's position from the landmarks, six floats [m, rad]; [] for other targets."),
    # Effectors.
    ("setEffector", "effector", "The arms that point at the target: 'Arms', 'LArm', 'RArm' or "
     "'None'."),
    ("getEffector", "", "The effector that points at the target."),
    ("addEffector", "effector", "Deprecated: use setEffector."),
    ("removeEffector", "effector", "Deprecated: use setEffector('None')."),
    # Speeds, smoother and searcher.
    ("setMaximumVelocity", "velocity", "The head's maximum velocity [rad/s]."),
    ("getMaximumVelocity", "", "The head's maximum velocity [rad/s]."),
    ("setMaximumAcceleration", "acceleration", "The head's maximum acceleration [rad/s^2]."),
    ("getMaximumAcceleration", "", "The head's maximum acceleration [rad/s^2]."),
    ("setTimeOut", "timeout", "How long a target unseen counts as lost [ms]."),
    ("getTimeOut", "", "How long a target unseen counts as lost [ms]."),
    ("setExtractorPeriod", "target period", "The detection period of a target kind [ms]."),
    ("getExtractorPeriod", "target", "The detection period of a target kind [ms]."),
    ("setMaximumDistanceDetection", "distance", "Targets farther away are ignored [m]."),
    ("getMaximumDistanceDetection", "", "Targets farther away are ignored [m]."),
    ("setSearcherFractionMaxSpeed", "fraction", "The searcher's speed, a fraction of the "
     "maximum."),
    ("getSearcherFractionMaxSpeed", "", "The searcher's speed, a fraction of the maximum."),
    ("searcherSetUseWholeBodyLookAt", "use_whole_body",
     "Whether the searcher looks around with the whole body."),
    ("toggleSearch", "enable", "Searches for a lost target, or not."),
    ("isSearchEnabled", "", "Whether a lost target is searched for."),
    # One-shot looks and points.
    ("lookAt", "position frame *args",
     "Looks at position [x, y, z] of frame [m] once: lookAt(position, frame, fraction, "
     "whole_body) or lookAt(position, frame, effector_id, fraction, whole_body); fraction of "
     "the maximum speed, effector_id 0 top camera, 1 bottom, 2 depth."),
    ("lookAtAndMove", "position fraction whole_body allow_turning",
     "Looks at a torso-frame point [m], turning the robot first when it is behind and "
     "allowed."),
    ("pointAt", "effector position frame fraction",
     "Points effector ('LArm', 'RArm', 'Arms') at position [x, y, z] of frame [m]."),
    ("stopLookAt", "", "Stops a one-shot look."),
    ("stopPointAt", "", "Stops a one-shot point."),
    # Configuration table.
    ("setTrackerConfig", "config",
     "Sets entries of the configuration table: [[name, value], ...], e.g. "
     "[['WHOLEBODY_THRESHOLD', 0.026]]."),
    ("getTrackerConfig", "", "The configuration table: [[name, value], ...] in name order."),
    ("getTrackerConfigStr", "", "The configuration table as text."),
]


def _parameters(text):
    out = [inspect.Parameter("self", inspect.Parameter.POSITIONAL_OR_KEYWORD)]
    for name in text.split():
        if name.startswith("*"):
            out.append(inspect.Parameter(name[1:], inspect.Parameter.VAR_POSITIONAL))
        else:
            out.append(inspect.Parameter(name, inspect.Parameter.POSITIONAL_OR_KEYWORD))
    return out


def _method(name, params, doc):
    signature = inspect.Signature(_parameters(params))
    names = [p.name for p in signature.parameters.values()][1:]

    def call(self, *args, **kwargs):
        bound = signature.bind(self, *args, **kwargs)  # TypeError for a missing argument
        values, labels = [], []
        for label in names:
            value = bound.arguments.get(label, ())
            if signature.parameters[label].kind == inspect.Parameter.VAR_POSITIONAL:
                values.extend(value)
                labels.extend("" for _ in value)
            else:
                values.append(value)
                labels.append(label)
        return self._call_named(name, labels, *values)

    call.__name__ = call.__qualname__ = name
    call.__module__ = "krtracker"
    call.__signature__ = signature
    call.__doc__ = doc
    return call


def install(cls):
    """Gives cls one method per entry of METHODS."""
    for name, params, doc in METHODS:
        setattr(cls, name, _method(name, params, doc))
