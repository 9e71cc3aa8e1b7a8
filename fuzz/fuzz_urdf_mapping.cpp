// UrdfImport on any mapping text, against the shipped URDFs (kibo.urdf with arms, lumen.urdf
// with a pan-tilt head): a bad mapping is refused with one KRError of one line that names the
// file first; an accepted one gives a robot that keeps the promises of the XML format, so that
// it can be served to the tracker as XML (robotToXml, read back by robotFromXml).

#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>

#include <kr/error.h>
#include <kr/model/modelutils.h>
#include <kr/model/urdfimport.h>

#include "fuzz_support.h"
#include "fuzz_urdf_support.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::string kibo = krfuzz::readRobotFile("kibo.urdf");
  static const std::string lumen = krfuzz::readRobotFile("lumen.urdf");
  const std::string text(reinterpret_cast<const char*>(data), size);
  for (const std::string* urdf : {&kibo, &lumen}) {
    krfuzz::checkImport(text, *urdf);
  }
  return 0;
}
