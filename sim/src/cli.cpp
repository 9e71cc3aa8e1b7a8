#include <krsim/cli.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iomanip>
#include <limits>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <kr/model/modelutils.h>
#include <krsim/run.h>
#include <krsim/scenario.h>
#include <krtracker/tools/tools.h>

namespace KR {
namespace Sim {

namespace {

constexpr const char* kProgram = "krtracker-sim";
constexpr float kDefaultNoise = 0.005f;  // [m]

/// A command-line error: one line for the user, exit code 2.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};
/// A failure while running: exit code 1.
struct RunError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct Options {
  bool list = false;
  bool help = false;
  bool realtime = false;
  bool quiet = false;
  std::string scenario = "ball";
  std::string robot;
  std::string mode;
  std::string effector;
  std::uint32_t seed = 1;
  float noise = kDefaultNoise;
  double duration = 0.0;
  std::string csv;
  std::string plot;
};

class Args {
 public:
  explicit Args(const std::vector<std::string>& args) : fArgs(args) {}
  bool done() const { return fNext >= fArgs.size(); }
  std::string next() { return fArgs[fNext++]; }
  std::string value(const std::string& option) {
    if (done())
      throw UsageError("option " + option + " needs a value");
    return next();
  }

 private:
  const std::vector<std::string>& fArgs;
  std::size_t fNext = 0;
};

double parseNumber(const std::string& option, const std::string& text) {
  char* end = nullptr;
  errno = 0;
  const double v = std::strtod(text.c_str(), &end);
  // The numbers end up in floats: one beyond their range would not convert.
  if (text.empty() || *end != '\0' || errno != 0 || !std::isfinite(v) ||
      std::fabs(v) > std::numeric_limits<float>::max()) {
    throw UsageError(option + " expects a number, not '" + text + "'");
  }
  return v;
}

std::uint32_t parseSeed(const std::string& text) {
  char* end = nullptr;
  errno = 0;
  const unsigned long long v = std::strtoull(text.c_str(), &end, 10);
  if (text.empty() || text[0] == '-' || *end != '\0' || errno != 0 || v > 0xffffffffULL) {
    throw UsageError("--seed expects an integer from 0 to 4294967295, not '" + text + "'");
  }
  return static_cast<std::uint32_t>(v);
}

void expectOneOf(const std::string& option, const std::string& value,
                 const std::vector<std::string>& allowed) {
  std::string list;
  for (const auto& a : allowed) {
    if (a == value)
      return;
    list += (list.empty() ? "" : ", ") + a;
  }
  throw UsageError(option + " expects one of " + list + ", not '" + value + "'");
}

std::unique_ptr<Model::Robot> loadRobot(const std::string& nameOrPath, std::string& path) {
  path = resolveRobotFile(nameOrPath);
  try {
    return Model::ModelUtils::robotFromFile(path);
  } catch (const std::exception& e) {
    throw UsageError("cannot load robot '" + nameOrPath + "': " + e.what());
  }
}

Options parseRunOptions(const std::vector<std::string>& args) {
  Options o;
  Args a(args);
  while (!a.done()) {
    const std::string arg = a.next();
    if (arg == "--list") {
      o.list = true;
    } else if (arg == "--help" || arg == "-h") {
      o.help = true;
    } else if (arg == "--realtime") {
      o.realtime = true;
    } else if (arg == "--quiet") {
      o.quiet = true;
    } else if (arg == "--scenario") {
      o.scenario = a.value(arg);
    } else if (arg == "--robot") {
      o.robot = a.value(arg);
    } else if (arg == "--mode") {
      o.mode = a.value(arg);
      expectOneOf(arg, o.mode, {"Head", "WholeBody", "Move", "Navigate"});
    } else if (arg == "--effector") {
      o.effector = a.value(arg);
      expectOneOf(arg, o.effector, {"Arms", "LArm", "RArm", "None"});
    } else if (arg == "--seed") {
      o.seed = parseSeed(a.value(arg));
    } else if (arg == "--noise") {
      const double v = parseNumber(arg, a.value(arg));
      if (v < 0.0)
        throw UsageError("--noise expects a non-negative number of metres");
      o.noise = static_cast<float>(v);
    } else if (arg == "--duration") {
      o.duration = parseNumber(arg, a.value(arg));
      if (o.duration <= 0.0)
        throw UsageError("--duration expects a positive number of seconds");
    } else if (arg == "--csv") {
      o.csv = a.value(arg);
    } else if (arg == "--plot") {
      o.plot = a.value(arg);
    } else {
      throw UsageError("unknown option '" + arg + "' (see --help)");
    }
  }
  return o;
}

void makeParentDirectory(const std::string& path) {
  const auto slash = path.find_last_of('/');
  if (slash == std::string::npos || slash == 0)
    return;
  std::string dir;
  for (std::size_t i = 0; i <= slash; ++i) {
    if (path[i] == '/' && !dir.empty())
      ::mkdir(dir.c_str(), 0755);
    dir += path[i];
  }
}

void writeCsvFile(const ScenarioRun& run, const std::string& path) {
  makeParentDirectory(path);
  std::ofstream file(path);
  if (!file)
    throw RunError("cannot write " + path);
  run.writeCsv(file);
  if (!file.flush())
    throw RunError("cannot write " + path);
}

/// Draws the run with gnuplot, run as a separate process on a generated script.
void drawPlot(const ScenarioRun& run, const std::string& png) {
  makeParentDirectory(png);
  char dir[] = "/tmp/krtracker-sim-XXXXXX";
  if (::mkdtemp(dir) == nullptr)
    throw RunError("cannot create a temporary directory");
  const std::string data = std::string(dir) + "/run.csv";
  const std::string script = std::string(dir) + "/plot.gp";
  writeCsvFile(run, data);
  {
    std::ofstream gp(script);
    const std::string title = "krtracker-sim: " + run.scenario().name;
    auto quoted = [](const std::string& s) {
      std::string q = "\"";
      for (char c : s)
        q += (c == '"' || c == '\\') ? std::string("\\") + c : std::string(1, c);
      return q + "\"";
    };
    gp << "set terminal pngcairo size 1200,800 font 'sans,10'\n"
       << "set output " << quoted(png) << "\n"
       << "set datafile separator ','\n"
       << "set key top left\n"
       << "set grid\n"
       << "set multiplot layout 2,1 title " << quoted(title) << "\n"
       << "set ylabel 'yaw [deg]'\n"
       << "plot " << quoted(data)
       << " using 1:($11*180/pi) every ::1 with lines lw 2 title 'target bearing', '' using "
          "1:($6*180/pi) every ::1 with lines lw 1 title 'head yaw', '' using "
          "1:($5*180/pi) every ::1 with lines lw 1 dt 2 title 'robot heading'\n"
       << "set xlabel 'time [s]'\n"
       << "set ylabel 'pitch [deg]'\n"
       << "plot " << quoted(data)
       << " using 1:($12*180/pi) every ::1 with lines lw 2 title 'target bearing', '' using "
          "1:($7*180/pi) every ::1 with lines lw 1 title 'head pitch'\n"
       << "unset multiplot\n";
    if (!gp.flush())
      throw RunError("cannot write " + script);
  }
  const pid_t pid = ::fork();
  if (pid < 0)
    throw RunError("cannot start gnuplot");
  if (pid == 0) {
    ::execlp("gnuplot", "gnuplot", script.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  std::remove(data.c_str());
  std::remove(script.c_str());
  ::rmdir(dir);
  if (!WIFEXITED(status) || WEXITSTATUS(status) == 127) {
    throw RunError("cannot run gnuplot: install the Debian package gnuplot-nox");
  }
  if (WEXITSTATUS(status) != 0)
    throw RunError("gnuplot failed to draw " + png);
}

/// The full path of a file just written, so that the user can open it from anywhere.
std::string absolutePath(const std::string& path) {
  char* full = ::realpath(path.c_str(), nullptr);
  if (full == nullptr)
    return path;
  std::string result(full);
  std::free(full);
  return result;
}

int listScenariosTo(std::ostream& out) {
  for (const auto& s : listScenarios()) {
    out << std::left << std::setw(10) << s.name << "  " << s.description << "\n";
  }
  return 0;
}

int runScenario(const std::vector<std::string>& args, std::ostream& out,
                const SubModuleFactory& modules) {
  Options o = parseRunOptions(args);
  if (o.help) {
    out << usage();
    return 0;
  }
  if (o.list)
    return listScenariosTo(out);
  const bool defaultOutputs = o.csv.empty() && o.plot.empty();
  if (defaultOutputs) {
    o.csv = "out/" + o.scenario + ".csv";
    o.plot = "out/" + o.scenario + ".png";
  }

  ScenarioOptions so;
  so.mode = o.mode;
  so.effector = o.effector;
  so.duration = o.duration;
  if (!o.robot.empty()) {
    std::string path;
    loadRobot(o.robot, path);
    so.robotFile = path;
  }
  Scenario scenario;
  try {
    scenario = makeScenario(o.scenario, so);
  } catch (const KRError& e) {
    throw UsageError(e.message());
  }
  std::string robotPath;
  const auto robot = loadRobot(scenario.robotFile, robotPath);
  if (o.mode == "Navigate" && robot->getRobotType() != 1) {
    throw UsageError("mode Navigate needs a robot of type 1; " + robot->getName() + " is of type " +
                     std::to_string(robot->getRobotType()));
  }

  SimulationConfig config;
  config.seed = o.seed;
  config.noise = o.noise;
  config.modules = modules;
  out << kProgram << ": scenario " << scenario.name << ": " << scenario.description << "\n"
      << "robot " << robot->getName() << " (" << robotPath << "), seed " << o.seed << ", "
      << std::fixed << std::setprecision(1) << scenario.duration << " s at 100 Hz"
      << (o.realtime ? ", real time" : "") << "\n";

  const std::clock_t cpuStart = std::clock();
  ScenarioRun run(scenario, config);
  if (!o.quiet)
    run.setProgress([&out](const std::string& line) { out << line << "\n"; });
  const auto wallStart = std::chrono::steady_clock::now();
  while (run.step()) {
    if (o.realtime) {
      std::this_thread::sleep_until(wallStart +
                                    std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                        std::chrono::duration<double>(run.simulation().time())));
    }
  }
  const double cpu = static_cast<double>(std::clock() - cpuStart) / CLOCKS_PER_SEC;

  out << "\nSummary: " << std::fixed << std::setprecision(1) << scenario.duration
      << " s simulated in " << std::setprecision(3) << cpu << " s of CPU\n"
      << formatSummary(run.summaries());
  if (!o.csv.empty()) {
    writeCsvFile(run, o.csv);
    out << "CSV:  " << absolutePath(o.csv) << "\n";
  }
  if (!o.plot.empty()) {
    drawPlot(run, o.plot);
    out << "Plot: " << absolutePath(o.plot) << "\n";
  }
  return 0;
}

int runAngles(const std::vector<std::string>& args, std::ostream& out) {
  Args a(args);
  std::string robotArg;
  bool lookAt = false;
  bool pointAt = false;
  bool wholeBody = false;
  int effectorId = 0;
  std::string arm;
  Math::Position3D point;
  auto readPoint = [&](const std::string& option) {
    const double x = parseNumber(option, a.value(option));
    const double y = parseNumber(option, a.value(option));
    const double z = parseNumber(option, a.value(option));
    point = {static_cast<float>(x), static_cast<float>(y), static_cast<float>(z)};
  };
  while (!a.done()) {
    const std::string arg = a.next();
    if (arg == "--robot") {
      robotArg = a.value(arg);
    } else if (arg == "--look-at") {
      lookAt = true;
      readPoint(arg);
    } else if (arg == "--point-at") {
      pointAt = true;
      arm = a.value(arg);
      expectOneOf(arg, arm, {"Arms", "LArm", "RArm"});
      readPoint(arg);
    } else if (arg == "--whole-body") {
      wholeBody = true;
    } else if (arg == "--effector-id") {
      const double v = parseNumber(arg, a.value(arg));
      if (v != 0.0 && v != 1.0 && v != 2.0)
        throw UsageError("--effector-id expects 0, 1 or 2");
      effectorId = static_cast<int>(v);
    } else {
      throw UsageError("unknown option '" + arg + "' for angles (see --help)");
    }
  }
  if (robotArg.empty())
    throw UsageError("angles needs --robot FILE");
  if (lookAt == pointAt)
    throw UsageError("angles needs either --look-at X Y Z or --point-at");
  if (pointAt && (wholeBody || effectorId != 0)) {
    throw UsageError("--whole-body and --effector-id go with --look-at only");
  }
  std::string path;
  const auto robot = loadRobot(robotArg, path);
  const Model::KRTrackerModel& model = robot->trackerModel();
  std::vector<std::string> names;
  std::vector<float> angles;
  std::ostringstream where;
  where << "(" << point.x << ", " << point.y << ", " << point.z << ")";
  if (lookAt) {
    if (!Tracker::tools::computeLookAtAngles(point, model,
                                             static_cast<Model::TRACK_EFFECTOR>(effectorId),
                                             wholeBody, names, angles)) {
      throw RunError("no head angles look at " + where.str());
    }
  } else {
    if (!robot->canPointAt())
      throw UsageError(robot->getName() + " cannot point");
    if (arm != "RArm")
      Tracker::tools::computePointAtAngles(point, model.leftArm, names, angles);
    if (arm != "LArm")
      Tracker::tools::computePointAtAngles(point, model.rightArm, names, angles);
  }
  out << std::fixed << std::setprecision(6);
  for (std::size_t i = 0; i < names.size(); ++i)
    out << names[i] << " " << angles[i] << "\n";
  return 0;
}

}  // namespace

std::string usage() {
  return "usage: krtracker-sim [options]\n"
         "       krtracker-sim angles --robot FILE (--look-at X Y Z [--whole-body] "
         "[--effector-id N] | --point-at EFFECTOR X Y Z)\n"
         "\n"
         "Runs the tracker on a simulated robot and reports how well it followed its target.\n"
         "\n"
         "  --list              list the scenarios\n"
         "  --scenario NAME     scenario to run (default: ball)\n"
         "  --robot FILE        robot description: a file, or kibo or rover from robots/\n"
         "  --mode MODE         mode of every phase: Head, WholeBody, Move or Navigate\n"
         "  --effector NAME     effector of every phase: Arms, LArm, RArm or None\n"
         "  --seed N            seed of the observation noise (default: 1)\n"
         "  --noise SIGMA       observation noise, standard deviation [m] (default: 0.005)\n"
         "  --duration SECONDS  simulated time (default: the scenario's)\n"
         "  --realtime          run at wall-clock speed\n"
         "  --csv FILE          write one line per 10 ms step\n"
         "  --plot FILE.png     draw target bearing against head yaw and pitch (gnuplot)\n"
         "  --quiet             no progress lines\n"
         "Without --csv and --plot, both go to out/<scenario>.csv and out/<scenario>.png.\n"
         "\n"
         "angles prints the joint angles that the library computes, one joint per line:\n"
         "  --look-at X Y Z     head angles toward a point of the torso frame (of the robot\n"
         "                      frame with --whole-body); --effector-id: 0 top camera, 1\n"
         "                      bottom camera, 2 depth camera\n"
         "  --point-at EFFECTOR X Y Z   arm angles (LArm, RArm or Arms) toward a point of the\n"
         "                      torso frame\n";
}

int runCommandLine(const std::vector<std::string>& args, std::ostream& out, std::ostream& err,
                   const SubModuleFactory& modules) {
  try {
    if (!args.empty() && args[0] == "angles") {
      return runAngles(std::vector<std::string>(args.begin() + 1, args.end()), out);
    }
    return runScenario(args, out, modules);
  } catch (const UsageError& e) {
    err << kProgram << ": " << e.what() << "\n";
    return 2;
  } catch (const std::exception& e) {
    err << kProgram << ": " << e.what() << "\n";
    return 1;
  }
}

}  // namespace Sim
}  // namespace KR
