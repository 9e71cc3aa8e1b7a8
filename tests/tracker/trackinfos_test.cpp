#include <cmath>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <kr/error.h>
#include <kr/math/eigen.h>
#include <kr/math/math.h>
#include <krtracker/types/types/trackinfos.h>

#include <Eigen/Geometry>
#include "pose_util.h"
#include "support/error_of.h"

namespace {

using namespace KR;
using KR::Tracker::types::TrackInfos;

const Math::Position6D kPose{1.0f, -2.0f, 0.5f, 0.3f, 0.2f, 0.1f};

TEST(TrackInfosTest, DefaultRecordIsInvalidWithoutSource) {
  const TrackInfos infos;
  EXPECT_FALSE(infos.isValid());
  EXPECT_EQ(infos.getTimestamp(), 0);
  EXPECT_EQ(infos.toKRValue(), (KRValue{KRValue{0, 0, -1, 0, 0.0f, 0.0f, false},
                                        KRValue{0.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f}}));
}

TEST(TrackInfosTest, KRValueFormRoundTrips) {
  const TrackInfos infos(kPose, 1, 500000, 2, 3.5f, 0.25f);
  EXPECT_TRUE(infos.isValid());
  EXPECT_EQ(infos.getTimestamp(), 1'500'000'000);
  EXPECT_EQ(infos.getWorldToObject6D(), kPose);
  EXPECT_EQ(infos.getWorldToObject3D(), Math::Position3D(1.0f, -2.0f, 0.5f));

  const KRValue value = infos.toKRValue();
  EXPECT_EQ(value, (KRValue{KRValue{1, 500000, -1, 2, 3.5f, 0.25f, true},
                            KRValue{1.0f, -2.0f, 0.5f, 0.3f, 0.2f, 0.1f}}));
  const TrackInfos back(value);
  EXPECT_EQ(back.toKRValue(), value);
  EXPECT_EQ(back.getTimestamp(), 1'500'000'000);
  EXPECT_EQ(back.getTrackEffector(), 2);
  EXPECT_EQ(back.getDistance(), 3.5f);
  EXPECT_EQ(back.getHeadThreshold(), 0.25f);

  // A source id and an int distance are read too; only a real bool marks the record valid.
  const TrackInfos fromInts(KRValue{KRValue{7, 20, 4, 1, 2, 0, 1}, KRValue{1, 2, 3, 0, 0, 0}});
  EXPECT_FALSE(fromInts.isValid());
  EXPECT_EQ(fromInts.getTimestamp(), 7'000'020'000);
  EXPECT_EQ(fromInts.getDistance(), 2.0f);
  EXPECT_EQ(fromInts.toKRValue()[0][2], KRValue(4));
}

TEST(TrackInfosTest, TimedKRValueGivesTheTimeInSecondsAndMicroseconds) {
  const KRValue value = TrackInfos(kPose, 1, 500000, 0, 3.5f, 0.25f).toKRValue(2500.0f);
  EXPECT_EQ(value[0], (KRValue{2.5f, 2500000.0f, -1, 0, 3.5f, 0.25f, true}));
}

TEST(TrackInfosTest, MalformedValuesThrow) {
  const KRValue pose{1.0f, 2.0f, 3.0f, 0.0f, 0.0f, 0.0f};
  const KRValue header{1, 0, -1, 0, 1.0f, 0.1f, true};
  const std::vector<KRValue> wrongSizes{
      KRValue{KRValue{1, 0, -1, 0, 1.0f, 0.1f}, pose},
      KRValue{header, KRValue{1.0f, 2.0f, 3.0f}},
      KRValue{header, pose, pose},
      KRValue{header},
  };
  for (const KRValue& v : wrongSizes) {
    SCOPED_TRACE(v.toString());
    EXPECT_EQ(krtest::errorOf<KRError>([&] { TrackInfos infos(v); }),
              "KRTracker::TrackInfos: KRValue does not follow the format.");
  }
  const std::vector<KRValue> wrongKinds{
      KRValue(3), KRValue{header, 5}, KRValue{KRValue{1, 0, -1, 0.5f, 1.0f, 0.1f, true}, pose},
      KRValue{KRValue{1, 0, -1, 0, "far", 0.1f, true}, pose},
      KRValue{header, KRValue{1.0f, 2.0f, 3.0f, 0.0f, true, 0.0f}}};
  for (const KRValue& v : wrongKinds)
    EXPECT_THROW(TrackInfos infos(v), std::exception) << v;
}

TEST(TrackInfosTest, ToStringWritesATableLine) {
  const TrackInfos infos(kPose, 1, 500000, 2, 3.5f, 0.25f);
  std::ostringstream pose;
  pose << kPose;
  EXPECT_EQ(infos.toString(";", false), pose.str() + "3.5;0.25;-1;2;1500000000;1;\n");
  EXPECT_EQ(infos.toString(", ", true),
            "WorldToObjectX, WorldToObjectY, WorldToObjectZ, WorldToObjectWx, WorldToObjectWy, "
            "WorldToObjectWz, Distance, HeadThreshold, SourceId, TrackEffector, Timestamp, "
            "isValid, \n" +
                pose.str() + "3.5, 0.25, -1, 2, 1500000000, 1, \n");
}

// Frame getters against Eigen: translations and rotation matrices of the expected poses.
Eigen::Isometry3f isometry(const Math::Position6D& p) {
  return posetest::isometry(p.x, p.y, p.z, p.wx, p.wy, p.wz);
}

void expectPose(const Math::Position6D& actual, const Eigen::Isometry3f& expected) {
  EXPECT_TRUE(isometry(actual).matrix().isApprox(expected.matrix(), 1e-5f))
      << isometry(actual).matrix() << "\n!=\n"
      << expected.matrix();
}

TEST(TrackInfosTest, FrameGettersApplyOrInvertTheTransform) {
  const Math::Position6D object{2.0f, 1.0f, 0.4f, 0.3f, -0.25f, 0.8f};
  const Eigen::Isometry3f T = isometry({0.5f, -1.0f, 0.3f, 0.05f, 0.1f, -2.0f});
  const TrackInfos infos(object, 0, 0, 0, 1.0f, 0.1f);
  const Eigen::Isometry3f torsoToObject = T * isometry(object);
  const Eigen::Isometry3f robotToObject = T.inverse() * isometry(object);
  const Math::Transform t(posetest::rows(T));

  expectPose(infos.getTorsoToObject6D(t), torsoToObject);
  expectPose(infos.getRobotToObject6D(t), robotToObject);
  const Math::Position3D torso3D = infos.getTorsoToObject3D(t);
  const Math::Position3D robot3D = infos.getRobotToObject3D(t);
  EXPECT_TRUE(Math::toEigen(torso3D).isApprox(torsoToObject.translation(), 1e-5f));
  EXPECT_TRUE(Math::toEigen(robot3D).isApprox(robotToObject.translation(), 1e-5f));

  for (const auto& [move, expected] :
       {std::make_pair(infos.getTorsoToObjectMove(t), torsoToObject),
        std::make_pair(infos.getRobotToObjectMove(t), robotToObject)}) {
    EXPECT_NEAR(move.x, expected.translation().x(), 1e-5f);
    EXPECT_NEAR(move.y, expected.translation().y(), 1e-5f);
    EXPECT_NEAR(move.theta, std::atan2(expected(1, 0), expected(0, 0)), 1e-5f);
  }

  // Whole body: pitch and yaw of the robot-frame orientation, the roll dropped.
  const Math::Rotation3D wb = infos.getRobotToObjectWB(t);
  EXPECT_EQ(wb.wx, 0.0f);
  EXPECT_NEAR(wb.wy, std::asin(-robotToObject(2, 0)), 1e-5f);
  EXPECT_NEAR(wb.wz, std::atan2(robotToObject(1, 0), robotToObject(0, 0)), 1e-5f);

  const Math::Rotation3D identityWb =
      TrackInfos(kPose, 0, 0, 0, 0.0f, 0.0f).getRobotToObjectWB(Math::Transform());
  EXPECT_EQ(identityWb.wx, 0.0f);
  EXPECT_NEAR(identityWb.wy, 0.2f, 1e-6f);
  EXPECT_NEAR(identityWb.wz, 0.1f, 1e-6f);
}

}  // namespace
