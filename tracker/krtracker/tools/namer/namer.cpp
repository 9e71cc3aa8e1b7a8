#include <krtracker/tools/namer/namer.h>

#include <typeinfo>

#include <boost/lexical_cast.hpp>

#include <kr/error.h>

namespace KR {
namespace Tracker {

namespace {

// One process-wide, non-recursive lock for every Namer operation that touches the id set.
// Constant-initialised, so it is usable from any static initialiser.
std::mutex gNamerMutex;

const char* const kModule = "KRTracker";

// Strict decimal: an optional sign, then one or more digits, within the range of int32.
// lexical_cast alone already refuses spaces, trailing text and overflow in the classic
// locale; the form check keeps it strict whatever the global locale's digit grouping is.
std::int32_t parseId(const std::string& text) {
  std::size_t digits = 0;
  if (!text.empty() && (text[0] == '+' || text[0] == '-')) {
    digits = 1;
  }
  bool wellFormed = digits < text.size();
  for (std::size_t i = digits; wellFormed && i < text.size(); ++i) {
    wellFormed = text[i] >= '0' && text[i] <= '9';
  }
  if (!wellFormed) {
    throw boost::bad_lexical_cast(typeid(std::string), typeid(std::int32_t));
  }
  return boost::lexical_cast<std::int32_t>(text);
}

}  // namespace

Namer::Namer() : fBase("KRTracker/ObjectConverter") {}

Namer::~Namer() = default;

Namer& Namer::getInstance() {
  std::lock_guard<std::mutex> lock(gNamerMutex);
  static Namer instance;
  return instance;
}

std::string Namer::getId(std::int32_t id) {
  std::lock_guard<std::mutex> lock(gNamerMutex);
  if (fIds.count(id) != 0) {
    throw KRError(kModule, "Namer.getId", "Id already taken. Id is: " + std::to_string(id));
  }
  fIds.insert(id);
  return fBase + std::to_string(id);
}

void Namer::releaseId(std::int32_t id) {
  std::lock_guard<std::mutex> lock(gNamerMutex);
  if (fIds.erase(id) == 0) {
    throw KRError(kModule, "Namer.releaseId",
                  "Id to release does not exist. Id is: " + std::to_string(id));
  }
}

void Namer::releaseId(const std::string& name) {
  std::lock_guard<std::mutex> lock(gNamerMutex);
  if (name.size() < fBase.size() || name.find(fBase) == std::string::npos) {
    throw KRError(kModule, "Namer.releaseId", "String passed does not contain the right base.");
  }
  // The number is read right after the base's length, wherever the base was found.
  std::int32_t id = 0;
  try {
    id = parseId(name.substr(fBase.size()));
  } catch (const boost::bad_lexical_cast& e) {
    throw KRError(kModule, "Namer.releaseId",
                  "String passed contains garbage: " + name + " + " + e.what());
  }
  if (fIds.erase(id) == 0) {
    throw KRError(kModule, "Namer.releaseId",
                  "Id to release does not exist. Id is: " + std::to_string(id));
  }
}

std::string Namer::getName(std::int32_t id) {
  std::lock_guard<std::mutex> lock(gNamerMutex);
  return fBase + std::to_string(id);
}

void Namer::destroy() {
  std::lock_guard<std::mutex> lock(gNamerMutex);
  fIds.clear();
}

std::string Namer::getNameLooker() {
  return "KRTracker/ObjectLookAt";
}
std::string Namer::getNameTargetIdNotFound() {
  return "KRTracker/TargetIdNotFound";
}
std::string Namer::getNameMove() {
  return "KRTracker/ObjectMoveTo";
}
std::string Namer::getNameLost() {
  return "KRTracker/TargetLost";
}
std::string Namer::getNameTargetReached() {
  return "KRTracker/TargetReached";
}
std::string Namer::getNameStopSearch() {
  return "KRTracker/StopSearch";
}
std::string Namer::getNameDetected() {
  return "KRTracker/TargetDetected";
}
std::string Namer::getNameHeadStopped() {
  return "KRTracker/HeadTracking/Stopped";
}
std::string Namer::getNameHeadRestarted() {
  return "KRTracker/HeadTracking/Restarted";
}
std::string Namer::getNameArmStopped() {
  return "KRTracker/ArmTracking/Stopped";
}
std::string Namer::getNameArmRestarted() {
  return "KRTracker/ArmTracking/Restarted";
}

}  // namespace Tracker
}  // namespace KR
