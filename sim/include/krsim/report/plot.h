#pragma once
// The plot of a run: its CSV drawn by tools/plot.gp with gnuplot, titled with the run's
// settings and the head's joint limits.

#include <string>

#include <krsim/run/measures.h>
#include <vector>

#include <kr/model/robot.h>

#include <krsim/run/run_config.h>

namespace KR {
namespace Sim {

/// Draws `csv` into `png`; gnuplot's own output is kept off the terminal and its first error
/// line becomes the message of the std::runtime_error thrown when it fails, naming the picture
/// `shownAs` (by default `png`: another name when `png` is a temporary file). `modeText` is
/// the run's mode(s), for the subtitle; `figures`, lines written beside the panels.
void drawPlot(const std::string& csv, const std::string& png, const RunConfig& config,
              const Model::Robot& robot, const std::string& modeText,
              const std::string& figures = "", const std::string& shownAs = "");
/// Each phase's main figures as lines for the plot: time to on target, line-of-sight RMS
/// (all and while tracking), arms' RMS, found after and searched.
std::string plotFigures(const std::vector<PhaseMeasures>& phases);

}  // namespace Sim
}  // namespace KR
