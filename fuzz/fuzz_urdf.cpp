// UrdfImport on any URDF text, read with the shipped mappings (kibo.yaml with arms, lumen.yaml
// with held joints): urdfdom's refusals and the kinematic checks give one KRError of one line
// that names the file first; an accepted robot keeps the promises of the XML format.

#include <cstdint>
#include <string>

#include "fuzz_support.h"
#include "fuzz_urdf_support.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::string kibo = krfuzz::readRobotFile("kibo.yaml");
  static const std::string lumen = krfuzz::readRobotFile("lumen.yaml");
  const std::string text(reinterpret_cast<const char*>(data), size);
  for (const std::string* yaml : {&kibo, &lumen}) {
    krfuzz::checkImport(*yaml, text);
  }
  return 0;
}
