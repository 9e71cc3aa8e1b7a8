#pragma once
// The tracker robot model (KRTrackerModel, TrackerHead, TrackerArm, TRACK_EFFECTOR, remembered
// angles) is a platform type, since the platform's robot description fills it.
#include <kr/model/trackermodel.h>
