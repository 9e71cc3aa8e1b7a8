#pragma once
// Where a run's outputs go and whether they can be written there, decided before the run:
// by default the CSV, the plot and the JSON summary side by side in out/; never an input of
// the run, never two outputs in one file, never over anything but a file, always in a folder
// that exists and can be written (out/ is the one folder created).

#include <cstdint>
#include <string>
#include <vector>

#include <krsim/run/run_config.h>

namespace KR {
namespace Sim {

/// Fills the default outputs of `config` for the scenario `name` (out/NAME.{csv,png,json}
/// unless --csv or --plot is given; the JSON alone for many runs), then checks them against
/// `inputs`, each other and their folders (--video's too), each run's own file with --seeds or
/// --compare.
/// KRError("krsim", "outputs", "--OPTION PATH ...") when one cannot be written. Returns the
/// files the run replaces (see StagedOutputs): what it will write, and with the default
/// outputs all three of out/NAME.*.
std::vector<std::string> decideOutputs(RunConfig& config, const std::string& name,
                                       const std::vector<std::string>& inputs);

/// Checks one output file as decideOutputs checks a run's: its folder exists and can be
/// written, and it is nothing but a file if it exists. KRError("krsim", "outputs", ...).
void checkOutputFile(const std::string& option, const std::string& path);

/// The file of one run of many: `suffix` before the extension ("out/ball.csv", "-seed3":
/// "out/ball-seed3.csv").
std::string perRunPath(const std::string& path, const std::string& suffix);
/// The suffix of one run of many: "-compensation-on" or "-compensation-off" with --compare,
/// then "-seedN" with --seeds; empty for a single run.
std::string runSuffix(const RunConfig& config, bool compensation, std::uint32_t seed);

/// The full path of a file just written, so that the user can open it from anywhere.
std::string absolutePath(const std::string& path);

}  // namespace Sim
}  // namespace KR
