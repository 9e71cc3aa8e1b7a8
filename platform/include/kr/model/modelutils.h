#pragma once
#include <memory>
#include <string>

#include <kr/model/robot.h>

namespace KR {
namespace Model {

class ModelUtils {
 public:
  /// Parses a robot description (XML, see robots/README.md). A malformed description throws
  /// KRError("ModelUtils", "robotFromXml", text naming what is wrong and where).
  static std::unique_ptr<Robot> robotFromXml(const std::string& xml);
  /// Reads and parses a file; errors also name the file.
  static std::unique_ptr<Robot> robotFromFile(const std::string& path);
  /// The description of a robot in the XML format, every field written: robotFromXml reads it
  /// back to the same numbers (the effector rotations to within float rounding, as roll,
  /// pitch, yaw). How a robot read from a URDF is served to a tracker that reads XML.
  static std::string robotToXml(const Robot& robot);
};

}  // namespace Model
}  // namespace KR
