#pragma once
// Namer: the process-wide registry of target ids and the one place where the tracker's event
// and memory key names are spelled.

#include <cstdint>
#include <mutex>
#include <set>
#include <string>

namespace KR {
namespace Tracker {

class Namer {
 public:
  /// The one instance, created on first use.
  static Namer& getInstance();

  /// Reserves id and returns its name "KRTracker/ObjectConverter<id>". Throws KRError
  /// ("KRTracker", "Namer.getId", ...) when it is taken.
  std::string getId(std::int32_t id);
  /// Gives an id back. Throws KRError ("KRTracker", "Namer.releaseId", ...) when not taken.
  void releaseId(std::int32_t id);
  /// Gives back the id encoded in a name produced by getId or getName.
  void releaseId(const std::string& name);
  /// The name of an id, taken or not.
  std::string getName(std::int32_t id);
  /// Forgets every taken id.
  void destroy();

  static std::string getNameLooker();
  static std::string getNameTargetIdNotFound();
  static std::string getNameMove();
  static std::string getNameLost();
  static std::string getNameTargetReached();
  static std::string getNameStopSearch();
  static std::string getNameDetected();
  static std::string getNameHeadStopped();
  static std::string getNameHeadRestarted();
  static std::string getNameArmStopped();
  static std::string getNameArmRestarted();

  Namer(const Namer&) = delete;
  Namer& operator=(const Namer&) = delete;

 private:
  Namer();
  ~Namer();

  std::set<std::int32_t> fIds;
  std::string fBase;
};

}  // namespace Tracker
}  // namespace KR
