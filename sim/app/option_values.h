#pragma once
// Option values of krtracker-sim as typed values, and the two ways a command fails.

#include <cstdint>
#include <stdexcept>
#include <string>

#include <kr/math/types.h>

#include <krsim/run/run_config.h>

namespace KR {
namespace Sim {

/// A bad command line, robot description or scenario file: one line for the user, exit 2.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// A finite number that fits a float; UsageError "OPTION expects a number, not 'TEXT'".
double parseNumber(const std::string& option, const std::string& text);
/// An integer from 0 to 2^32 - 1.
std::uint32_t parseSeed(const std::string& text);
/// A range A-B of seeds.
SeedRange parseSeeds(const std::string& text);
/// "on" or "off".
bool parseSwitch(const std::string& option, const std::string& text);
/// Three numbers from `from` on.
Math::Position3D parsePoint(const std::string& option, const std::vector<std::string>& values,
                            std::size_t from);

}  // namespace Sim
}  // namespace KR
