// Uses both installed libraries: reads an installed robot description with the platform and
// round-trips a tracker sample through its KRValue form.
#include <iostream>

#include <kr/model/modelutils.h>
#include <krtracker/types/types/trackinfos.h>

int main() {
  const auto robot = KR::Model::ModelUtils::robotFromFile(std::string(ROBOTS_DIR) + "/kibo.xml");
  const KR::Tracker::types::TrackInfos sample(KR::Math::Position6D(1, 2, 3, 0, 0, 0.5f), 7, 250, 1,
                                              2.0f, 0.1f);
  const KR::Tracker::types::TrackInfos copy(sample.toKRValue());
  if (robot->getName().empty() || copy.getTimestamp() != sample.getTimestamp() ||
      copy.getWorldToObject3D().x != 1.0f) {
    std::cerr << "unexpected robot or sample\n";
    return 1;
  }
  std::cout << "robot " << robot->getName() << ", sample at " << copy.getTimestamp() << " ns\n";
  return 0;
}
