// UrdfImport: a robot from a YAML mapping and its URDF, read from files or from texts.

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <kr/error.h>
#include <kr/model/urdfimport.h>

#include "importer.h"

namespace KR {
namespace Model {

namespace {

using importer::Importer;

std::string readFile(const std::string& path, const std::string& what, const std::string& who) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    throw KRError("UrdfImport", "robotFromUrdfMapping",
                  UrdfImport::oneLine(who + "cannot read " + what + " '" + path + "'"));
  }
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string folderOf(const std::string& path) {
  const auto slash = path.find_last_of('/');
  return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}

std::string resolve(const std::string& baseDir, const std::string& path) {
  if (!path.empty() && path[0] == '/') {
    return path;
  }
  return (baseDir.empty() ? std::string(".") : baseDir) + "/" + path;
}

}  // namespace

std::unique_ptr<Robot> UrdfImport::robotFromTexts(const std::string& yaml,
                                                  const std::string& mappingName,
                                                  const std::string& urdf,
                                                  const std::string& urdfName,
                                                  std::vector<std::string>* notes) {
  const UrdfMapping mapping = readMapping(yaml, mappingName);
  if (urdf.size() > importer::kMaxUrdfBytes) {
    throw KRError(
        "UrdfImport", "robotFromUrdfMapping",
        oneLine(urdfName + ": is " + std::to_string(urdf.size()) + " bytes, more than the " +
                std::to_string(importer::kMaxUrdfBytes) + " accepted"));
  }
  std::string error;
  const urdf::ModelInterfaceSharedPtr model = importer::parseUrdf(urdf, error);
  if (!model) {
    throw KRError("UrdfImport", "robotFromUrdfMapping",
                  oneLine(urdfName + ": refused by urdfdom: " + error));
  }
  Importer in(mapping, mappingName, *model, urdfName, notes);
  in.run();
  return in.takeRobot();
}

std::unique_ptr<Robot> UrdfImport::robotFromUrdfMappingText(const std::string& yaml,
                                                            const std::string& baseDir,
                                                            const std::string& mappingName,
                                                            std::vector<std::string>* notes) {
  const UrdfMapping mapping = readMapping(yaml, mappingName);
  const std::string path = resolve(baseDir, mapping.urdf);
  const std::string urdf = readFile(path, "the URDF", mappingName + ": urdf: ");
  return robotFromTexts(yaml, mappingName, urdf, path, notes);
}

std::unique_ptr<Robot> UrdfImport::robotFromUrdfMapping(const std::string& path,
                                                        std::vector<std::string>* notes) {
  const std::string yaml = readFile(path, "the robot mapping", "");
  return robotFromUrdfMappingText(yaml, folderOf(path), path, notes);
}

std::string UrdfImport::urdfError(const std::string& urdf) {
  std::string error;
  return importer::parseUrdf(urdf, error) ? std::string() : error;
}

std::string UrdfImport::oneLine(std::string text) {
  constexpr std::size_t kMaxLength = 2000;
  if (text.size() > kMaxLength) {
    text.resize(kMaxLength);
    text += "...";
  }
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
      c = ' ';
    }
  }
  return text;
}

bool UrdfImport::isMappingFile(const std::string& path) {
  const auto ends = [&](const std::string& suffix) {
    return path.size() > suffix.size() &&
           path.compare(path.size() - suffix.size(), suffix.size(), suffix) == 0;
  };
  return ends(".yaml") || ends(".yml");
}

std::string UrdfImport::urdfPath(const std::string& mappingPath, const UrdfMapping& mapping) {
  return resolve(folderOf(mappingPath), mapping.urdf);
}

}  // namespace Model
}  // namespace KR
