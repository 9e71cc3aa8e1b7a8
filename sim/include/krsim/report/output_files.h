#pragma once
// Where a run's outputs go and whether they can be written there, decided before the run:
// by default the CSV, the plot and the JSON summary side by side in out/; never an input of
// the run, never two outputs in one file, always in a folder that can be written.

#include <string>
#include <vector>

#include <krsim/run/run_config.h>

namespace KR {
namespace Sim {

/// Fills the default outputs of `config` for the scenario `name` (out/NAME.{csv,png,json}
/// unless --csv or --plot is given), then checks them against `inputs`, each other and their
/// folders (created if missing, except the video's, which must exist). KRError("krsim",
/// "outputs", "--OPTION PATH ...") when one cannot be written.
void decideOutputs(RunConfig& config, const std::string& name,
                   const std::vector<std::string>& inputs);

/// Writes a whole file; std::runtime_error "cannot write PATH".
void writeText(const std::string& path, const std::string& text);

/// The full path of a file just written, so that the user can open it from anywhere.
std::string absolutePath(const std::string& path);

}  // namespace Sim
}  // namespace KR
