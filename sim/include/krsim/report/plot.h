#pragma once
// The plot of a run: its CSV drawn by tools/plot.gp with gnuplot, titled with the run's
// settings and the head's joint limits.

#include <string>

#include <kr/model/robot.h>

#include <krsim/run/run_config.h>

namespace KR {
namespace Sim {

/// Draws `csv` into `png`; gnuplot's own output is kept off the terminal and its first error
/// line becomes the message of the std::runtime_error thrown when it fails, naming the picture
/// `shownAs` (by default `png`: another name when `png` is a temporary file). `modeText` is
/// the run's mode(s), for the subtitle.
void drawPlot(const std::string& csv, const std::string& png, const RunConfig& config,
              const Model::Robot& robot, const std::string& modeText,
              const std::string& shownAs = "");

}  // namespace Sim
}  // namespace KR
