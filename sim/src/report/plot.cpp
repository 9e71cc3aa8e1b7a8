#include <krsim/report/plot.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iomanip>
#include <optional>
#include <sstream>
#include <stdexcept>

#include <krsim/report/output_files.h>
#include <krsim/run/scenario.h>

namespace KR {
namespace Sim {

namespace {

/// A gnuplot string in single quotes, where a quote is doubled.
std::string gpString(const std::string& text) {
  std::string q = "'";
  for (char c : text)
    q += c == '\'' ? std::string("''") : std::string(1, c);
  return q + "'";
}

/// A gnuplot string in double quotes, where newlines become line breaks of a label.
std::string gpLines(const std::string& text) {
  std::string q = "\"";
  for (char c : text) {
    if (c == '\n')
      q += "\\n";
    else if (c == '"' || c == '\\')
      q += std::string("\\") + c;
    else
      q += c;
  }
  return q + "\"";
}

/// " label 1.23 unit" for a figure present, nothing otherwise.
std::string figure(const char* label, const std::optional<double>& v, const char* unit) {
  if (!v)
    return "";
  std::ostringstream os;
  os << " " << label << " " << std::fixed << std::setprecision(2) << *v << unit;
  return os.str();
}

/// The first line of gnuplot's output that says something.
std::string firstLineOf(const char* log) {
  std::ifstream in(log);
  std::string line;
  while (std::getline(in, line)) {
    if (line.find_first_not_of(" ^") != std::string::npos)
      return line;
  }
  return "";
}

/// Runs gnuplot on the script with the variables, its output into a temporary file.
void runGnuplot(const std::string& script, const std::string& args, const std::string& png) {
  char log[] = "/tmp/krtracker-sim-gnuplot-XXXXXX";
  const int logFd = ::mkstemp(log);
  if (logFd < 0)
    throw std::runtime_error("cannot create a temporary file");
  const pid_t pid = ::fork();
  if (pid < 0)
    throw std::runtime_error("cannot start gnuplot");
  if (pid == 0) {
    ::dup2(logFd, 1);
    ::dup2(logFd, 2);
    ::execlp("gnuplot", "gnuplot", "-e", args.c_str(), script.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ::close(logFd);
  int status = 0;
  ::waitpid(pid, &status, 0);
  const std::string firstLine = firstLineOf(log);
  std::remove(log);
  if (!WIFEXITED(status) || WEXITSTATUS(status) == 127)
    throw std::runtime_error("cannot run gnuplot: install the Debian package gnuplot-nox");
  if (WEXITSTATUS(status) != 0) {
    throw std::runtime_error("gnuplot failed to draw " + png +
                             (firstLine.empty() ? "" : ": " + firstLine));
  }
}

}  // namespace

void drawPlot(const std::string& csv, const std::string& png, const RunConfig& config,
              const Model::Robot& robot, const std::string& modeText, const std::string& figures,
              const std::string& shownAs) {
  const std::string script = findDataFile("tools/plot.gp");
  if (script.empty())
    throw std::runtime_error("cannot find tools/plot.gp");
  const auto& head = robot.trackerModel().head;
  constexpr double kDeg = 180.0 / 3.14159265358979323846;
  std::ostringstream subtitle;
  subtitle << robot.getName() << ", seed " << config.seed << ", mode " << modeText << ", latency "
           << config.camera.latencyS << " s, compensation " << (config.compensation ? "on" : "off")
           << ", physics " << config.physics;
  std::ostringstream args;
  args << "csv=" << gpString(absolutePath(csv)) << "; png=" << gpString(png) << "; "
       << "subtitle=" << gpString(subtitle.str()) << "; yawmin=" << head.yaw.min * kDeg
       << "; yawmax=" << head.yaw.max * kDeg << "; pitchmin=" << head.pitch.min * kDeg
       << "; pitchmax=" << head.pitch.max * kDeg << "; yawjoint=" << gpString(head.yaw.name)
       << "; pitchjoint=" << gpString(head.pitch.name) << "; figures=" << gpLines(figures);
  runGnuplot(script, args.str(), shownAs.empty() ? png : shownAs);
}

std::string plotFigures(const std::vector<PhaseMeasures>& phases) {
  // Short lines: they stand in the right margin, under the second panel's key.
  std::string text;
  const auto line = [&text](const std::string& l) {
    if (!l.empty())
      text += (text.empty() ? "" : "\n") + l;
  };
  for (const auto& m : phases) {
    line(m.name);
    line(figure("on target after", m.timeToOnTargetS, " s"));
    line(figure("found", m.foundAfterS, " s,") + figure("searched", m.searchS, " s"));
    line(figure("LoS RMS", m.losRmsDeg, "") + figure("/ tracking", m.losRmsTrackingDeg, " deg"));
    line(figure("arms RMS", m.armsRmsDeg, " deg"));
  }
  return text;
}

}  // namespace Sim
}  // namespace KR
