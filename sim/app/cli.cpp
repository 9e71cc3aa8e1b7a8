#include <app/cli.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iomanip>
#include <limits>
#include <mutex>
#include <optional>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <CLI/CLI.hpp>

#include <kr/model/modelutils.h>
#include <krsim/remote/two_process.h>
#include <krsim/report/json_summary.h>
#include <krsim/robot/physics/factory.h>
#include <krsim/run/scenario.h>
#include <krsim/run/scenario_run.h>
#include <krtracker/tools/tools.h>

namespace KR {
namespace Sim {

namespace {

/// Called at each phase boundary of a single run with the simulation and the label.
using SnapshotHook = std::function<void(Simulation& sim, const std::string& label)>;

constexpr const char* kProgram = "krtracker-sim";
constexpr float kDefaultNoise = 0.0f;  // [m], on top of the camera's own errors

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
  bool realtime = false;
  bool quiet = false;
  std::string scenario = "ball";
  std::string robot;
  std::string mode;
  std::string effector;
  std::string seed = "1";
  std::string seeds;
  std::string noise;
  std::string duration;
  std::string csv;
  std::string plot;
  std::string json;
  std::string compare;
  std::string cameraRate = "15";
  std::string latency = "0.08";
  std::string dropout = "0";
  std::string compensation = "on";
  std::string physics = "mujoco";
  std::string snapshots;
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

/// Inputs are regular files of a reasonable size (not a device, a pipe or a folder).
void checkInputFile(const std::string& what, const std::string& path) {
  constexpr long kMaxInputBytes = 1 << 20;
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0)
    return;  // the reader names the missing file
  if (!S_ISREG(st.st_mode))
    throw UsageError(what + " '" + path + "' is not a regular file");
  if (st.st_size > kMaxInputBytes) {
    throw UsageError(what + " '" + path + "' is " + std::to_string(st.st_size) +
                     " bytes, more than the " + std::to_string(kMaxInputBytes) + " accepted");
  }
}

std::unique_ptr<Model::Robot> loadRobot(const std::string& nameOrPath, std::string& path) {
  path = resolveRobotFile(nameOrPath);
  checkInputFile("robot", path);
  try {
    return Model::ModelUtils::robotFromFile(path);
  } catch (const std::exception& e) {
    throw UsageError("cannot load robot '" + nameOrPath + "': " + e.what());
  }
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

/// A gnuplot string in single quotes, where a quote is doubled.
std::string gpString(const std::string& text) {
  std::string q = "'";
  for (char c : text)
    q += c == '\'' ? std::string("''") : std::string(1, c);
  return q + "'";
}

/// Draws the run's CSV with tools/plot.gp, gnuplot's own output kept off the terminal; its
/// first error line becomes the message.
void drawPlot(const std::string& csv, const std::string& png, const std::string& variables) {
  const std::string script = findDataFile("tools/plot.gp");
  if (script.empty())
    throw RunError("cannot find tools/plot.gp");
  char log[] = "/tmp/krtracker-sim-gnuplot-XXXXXX";
  const int logFd = ::mkstemp(log);
  if (logFd < 0)
    throw RunError("cannot create a temporary file");
  const pid_t pid = ::fork();
  if (pid < 0)
    throw RunError("cannot start gnuplot");
  if (pid == 0) {
    ::dup2(logFd, 1);
    ::dup2(logFd, 2);
    const std::string args = "csv=" + gpString(csv) + "; png=" + gpString(png) + "; " + variables;
    ::execlp("gnuplot", "gnuplot", "-e", args.c_str(), script.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ::close(logFd);
  int status = 0;
  ::waitpid(pid, &status, 0);
  std::string firstLine;
  {
    std::ifstream in(log);
    std::string line;
    while (std::getline(in, line) && firstLine.empty()) {
      if (line.find_first_not_of(" ^") != std::string::npos)
        firstLine = line;
    }
  }
  std::remove(log);
  if (!WIFEXITED(status) || WEXITSTATUS(status) == 127)
    throw RunError("cannot run gnuplot: install the Debian package gnuplot-nox");
  if (WEXITSTATUS(status) != 0)
    throw RunError("gnuplot failed to draw " + png + (firstLine.empty() ? "" : ": " + firstLine));
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

/// Set by SIGINT and SIGTERM: the run stops at the end of its step and writes what it has.
volatile std::sig_atomic_t gStopSignal = 0;

extern "C" void onStopSignal(int signal) {
  gStopSignal = signal;
}

/// Installs the stop handlers for the life of a run, then restores the previous ones.
class StopSignals {
 public:
  StopSignals() {
    gStopSignal = 0;
    fInt = std::signal(SIGINT, onStopSignal);
    fTerm = std::signal(SIGTERM, onStopSignal);
  }
  ~StopSignals() {
    std::signal(SIGINT, fInt);
    std::signal(SIGTERM, fTerm);
  }
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

 private:
  void (*fInt)(int);
  void (*fTerm)(int);
};

/// Longest simulated time a run accepts: a week, far beyond any scenario's script.
constexpr double kMaxDurationS = 7.0 * 24.0 * 3600.0;

/// Same file, whether or not both exist yet.
bool sameFile(const std::string& a, const std::string& b) {
  struct stat sa {};
  struct stat sb {};
  if (::stat(a.c_str(), &sa) == 0 && ::stat(b.c_str(), &sb) == 0)
    return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
  return absolutePath(a) == absolutePath(b);
}

/// The folder of an output must exist (it is created) and be writable, checked before
/// anything runs.
void checkWritable(const std::string& option, const std::string& path) {
  makeParentDirectory(path);
  const auto slash = path.find_last_of('/');
  const std::string dir = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  struct stat st {};
  if (::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
    throw UsageError(option + " " + path + " is a folder, not a file");
  if (::access(dir.c_str(), W_OK) != 0)
    throw UsageError(option + " " + path + ": cannot write in " + dir);
}

void checkWritableFolder(const std::string& option, const std::string& dir) {
  ::mkdir(dir.c_str(), 0755);
  struct stat st {};
  if (::stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || ::access(dir.c_str(), W_OK) != 0)
    throw UsageError(option + " " + dir + " is not a folder that can be written");
}

struct SeedRange {
  std::uint32_t first;
  std::uint32_t last;
};

SeedRange parseSeeds(const std::string& text) {
  const auto dash = text.find('-');
  if (dash == std::string::npos || dash == 0)
    throw UsageError("--seeds expects a range A-B, not '" + text + "'");
  try {
    const SeedRange r{parseSeed(text.substr(0, dash)), parseSeed(text.substr(dash + 1))};
    if (r.last < r.first || r.last - r.first >= 10000)
      throw UsageError("--seeds expects A-B with A <= B and at most 10000 seeds, not '" + text +
                       "'");
    return r;
  } catch (const UsageError&) {
    throw UsageError(
        "--seeds expects a range A-B of integers with A <= B and at most 10000 "
        "seeds, not '" +
        text + "'");
  }
}

/// One run of a scenario with one seed; streams its CSV if `csv` is not null.
struct RunResult {
  std::vector<PhaseSummary> summaries;
  double simulatedS = 0.0;
  double cpuS = 0.0;
  bool interrupted = false;
};

RunResult runOnce(const Scenario& scenario, const SimulationConfig& config, bool realtime,
                  std::ostream* progress, std::ostream* csv, const SnapshotHook& hook) {
  const std::clock_t cpuStart = std::clock();
  ScenarioRun run(scenario, config);
  if (progress != nullptr)
    run.setProgress([progress](const std::string& line) { *progress << line << "\n"; });
  run.setCsv(csv);
  if (hook)
    run.setPhaseHook([&run, &hook](const std::string& label) { hook(run.simulation(), label); });
  RunResult result;
  const auto wallStart = std::chrono::steady_clock::now();
  while (!gStopSignal && run.step()) {
    if (realtime) {
      std::this_thread::sleep_until(wallStart +
                                    std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                        std::chrono::duration<double>(run.simulation().time())));
    }
  }
  result.interrupted = gStopSignal != 0;
  result.summaries = run.summaries();
  result.simulatedS = run.simulatedSeconds();
  result.cpuS = static_cast<double>(std::clock() - cpuStart) / CLOCKS_PER_SEC;
  return result;
}

std::vector<PhaseMeasures> measuresOf(const std::vector<PhaseSummary>& summaries) {
  std::vector<PhaseMeasures> m;
  for (const auto& s : summaries)
    m.push_back(s.measures);
  return m;
}

void writeText(const std::string& path, const std::string& text) {
  std::ofstream file(path);
  file << text;
  if (!file.flush())
    throw RunError("cannot write " + path);
}

/// The thresholds behind "on target", stated under the table.
std::string measuresNote(const Scenario& scenario) {
  std::string text;
  for (const auto& p : scenario.phases) {
    std::ostringstream os;
    os << p.name << " " << p.acquireDegrees << " deg";
    text += (text.empty() ? "" : ", ") + os.str();
  }
  return "On target: visible and line-of-sight error under " + text + "\n";
}

int runScenario(Options o, std::ostream& out, const SubModuleFactory& modules,
                const SnapshotHook& snapshotHook) {
  if (o.list)
    return listScenariosTo(out);
  const std::uint32_t seed = parseSeed(o.seed);
  float noise = kDefaultNoise;
  if (!o.noise.empty()) {
    const double v = parseNumber("--noise", o.noise);
    if (v < 0.0)
      throw UsageError("--noise expects a non-negative number of metres");
    noise = static_cast<float>(v);
  }
  ScenarioOptions so;
  if (!o.duration.empty()) {
    so.duration = parseNumber("--duration", o.duration);
    if (so.duration <= 0.0)
      throw UsageError("--duration expects a positive number of seconds");
    if (so.duration > kMaxDurationS) {
      throw UsageError("--duration " + o.duration + " is beyond the longest run, " +
                       std::to_string(static_cast<long>(kMaxDurationS)) + " s");
    }
  }
  if (!o.mode.empty())
    expectOneOf("--mode", o.mode, {"Head", "WholeBody", "Move", "Navigate"});
  if (!o.effector.empty())
    expectOneOf("--effector", o.effector, {"Arms", "LArm", "RArm", "None"});
  expectOneOf("--compensation", o.compensation, {"on", "off"});
  if (!o.compare.empty())
    expectOneOf("--compare", o.compare, {"compensation"});
  SimulationConfig config;
  config.noise = noise;
  config.modules = modules;
  config.physics = o.physics;
  config.camera.cameraRateHz = parseNumber("--camera-rate", o.cameraRate);
  if (config.camera.cameraRateHz <= 0.0 || config.camera.cameraRateHz > 1000.0)
    throw UsageError("--camera-rate expects a frame rate above 0 and up to 1000 Hz");
  config.camera.latencyS = parseNumber("--latency", o.latency);
  if (config.camera.latencyS < 0.0 || config.camera.latencyS > 10.0)
    throw UsageError("--latency expects from 0 to 10 seconds");
  config.camera.dropout = parseNumber("--dropout", o.dropout);
  if (config.camera.dropout < 0.0 || config.camera.dropout > 1.0)
    throw UsageError("--dropout expects a probability from 0 to 1");
  config.compensation = o.compensation == "on";
  std::optional<SeedRange> seeds;
  if (!o.seeds.empty())
    seeds = parseSeeds(o.seeds);

  if (!o.robot.empty()) {
    std::string path;
    loadRobot(o.robot, path);
    so.robotFile = path;
  }
  so.mode = o.mode;
  so.effector = o.effector;
  Scenario scenario;
  const auto endsWith = [&](const std::string& tail) {
    return o.scenario.size() > tail.size() &&
           o.scenario.compare(o.scenario.size() - tail.size(), tail.size(), tail) == 0;
  };
  if (o.scenario.find('/') != std::string::npos || endsWith(".yaml") || endsWith(".yml"))
    checkInputFile("scenario", o.scenario);
  try {
    scenario = makeScenario(o.scenario, so);
  } catch (const KRError& e) {
    throw UsageError(e.message());
  }
  std::string robotPath;
  const auto robot = loadRobot(scenario.robotFile, robotPath);
  // A mode the robot lacks is refused before anything runs, not replaced by another.
  const std::string modes = o.mode.empty() ? scenario.modeText : o.mode;
  if (modes.find("Navigate") != std::string::npos && robot->getRobotType() != 1) {
    throw UsageError("mode Navigate needs a robot of type 1; " + robot->getName() + " is of type " +
                     std::to_string(robot->getRobotType()));
  }
  {
    // The physics backend is chosen by name: an unknown one is refused before anything runs.
    try {
      makePhysicsBackend(config.physics, *robot);
    } catch (const KRError& e) {
      throw UsageError("--physics: " + e.message());
    }
  }

  // Outputs: by default beside each other in out/; never an input, never twice the same file.
  const bool defaultOutputs = o.csv.empty() && o.plot.empty();
  const std::string stem = "out/" + scenario.name;
  if (defaultOutputs) {
    o.csv = stem + ".csv";
    o.plot = stem + ".png";
  }
  if (o.json.empty() && defaultOutputs)
    o.json = stem + ".json";
  const std::vector<std::pair<std::string, std::string>> outputs = {
      {"--csv", o.csv}, {"--plot", o.plot}, {"--json", o.json}};
  for (std::size_t i = 0; i < outputs.size(); ++i) {
    const auto& [option, path] = outputs[i];
    if (path.empty())
      continue;
    for (const auto& input : {robotPath, scenario.file}) {
      if (!input.empty() && sameFile(path, input))
        throw UsageError(option + " " + path + " is an input of the run");
    }
    for (std::size_t j = 0; j < i; ++j) {
      if (!outputs[j].second.empty() && sameFile(path, outputs[j].second)) {
        throw UsageError(option + " " + path + " is also the file of " + outputs[j].first);
      }
    }
    checkWritable(option, path);
  }
  if (!o.snapshots.empty())
    checkWritableFolder("--snapshots", o.snapshots);

  RunInfo info;
  info.scenario = scenario.name;
  info.robot = robot->getName();
  info.physics = config.physics;
  info.latencyS = config.camera.latencyS;
  info.compensation = config.compensation;
  StopSignals stopSignals;

  if (seeds || !o.compare.empty()) {
    // Many runs: summaries only (no CSV nor plot), the seeds two at a time.
    std::vector<SimulationConfig> variants;
    if (!o.compare.empty()) {
      SimulationConfig on = config;
      on.compensation = true;
      SimulationConfig off = config;
      off.compensation = false;
      variants = {on, off};
    } else {
      variants = {config};
    }
    const SeedRange range = seeds ? *seeds : SeedRange{seed, seed};
    out << kProgram << ": scenario " << scenario.name << ", robot " << robot->getName()
        << ", seeds " << range.first << "-" << range.last << "\n";
    std::vector<std::string> json;  // one summary per variant
    for (const auto& variant : variants) {
      const std::size_t n = range.last - range.first + 1;
      std::vector<RunResult> results(n);
      std::atomic<std::size_t> next{0};
      std::mutex failureMutex;
      std::string failure;
      auto worker = [&] {
        for (std::size_t i = next++; i < n; i = next++) {
          SimulationConfig c = variant;
          c.seed = range.first + static_cast<std::uint32_t>(i);
          try {
            results[i] = runOnce(scenario, c, false, nullptr, nullptr, {});
          } catch (const std::exception& e) {
            std::lock_guard<std::mutex> lock(failureMutex);
            failure = e.what();
          }
        }
      };
      std::thread second(worker);
      worker();
      second.join();
      if (!failure.empty())
        throw RunError(failure);
      std::vector<std::vector<PhaseMeasures>> runs;
      std::vector<double> cpu;
      RunInfo total = info;
      total.compensation = variant.compensation;
      total.simulatedS = total.cpuS = 0.0;
      for (const auto& r : results) {
        runs.push_back(measuresOf(r.summaries));
        cpu.push_back(r.cpuS);
        total.simulatedS += r.simulatedS;
        total.cpuS += r.cpuS;
      }
      out << "\nCompensation " << (variant.compensation ? "on" : "off") << ", " << n
          << (n == 1 ? " seed" : " seeds") << ", " << std::fixed << std::setprecision(1)
          << total.simulatedS << " s simulated in " << std::setprecision(3) << total.cpuS
          << " s of CPU\n"
          << formatSeedSummary(aggregateSeeds(runs), n);
      json.push_back(seedsJson(total, range.first, range.last, runs, cpu));
    }
    if (!o.json.empty()) {
      // Two comparisons go into one file as a JSON list of the two summaries.
      writeText(o.json,
                json.size() == 1 ? json.front() : "[\n" + json[0] + ",\n" + json[1] + "]\n");
      out << "JSON: " << absolutePath(o.json) << "\n";
    }
    return gStopSignal ? 128 + gStopSignal : 0;
  }

  config.seed = seed;
  info.seed = seed;
  out << kProgram << ": scenario " << scenario.name << ": " << scenario.description << "\n"
      << "robot " << robot->getName() << " (" << robotPath << "), seed " << seed << ", "
      << std::fixed << std::setprecision(1) << scenario.duration << " s at 100 Hz, physics "
      << config.physics << ", camera " << config.camera.cameraRateHz << " Hz, latency "
      << std::setprecision(3) << config.camera.latencyS << " s, compensation " << o.compensation
      << (o.realtime ? ", real time" : "") << "\n";
  for (const auto& note : scenario.notes)
    out << "note: " << note << "\n";

  // A plot without a CSV of its own draws from a temporary one, removed afterwards.
  std::string csvPath = o.csv;
  std::string temporaryCsv;
  if (csvPath.empty() && !o.plot.empty()) {
    char name[] = "/tmp/krtracker-sim-XXXXXX";
    const int fd = ::mkstemp(name);
    if (fd < 0)
      throw RunError("cannot create a temporary file");
    ::close(fd);
    csvPath = temporaryCsv = name;
  }
  struct Remove {
    std::string path;
    ~Remove() {
      if (!path.empty())
        std::remove(path.c_str());
    }
  } removeTemporary{temporaryCsv};
  std::ofstream csv;
  if (!csvPath.empty()) {
    csv.open(csvPath);
    if (!csv)
      throw RunError("cannot write " + csvPath);
  }
  const RunResult r = runOnce(scenario, config, o.realtime, o.quiet ? nullptr : &out,
                              csvPath.empty() ? nullptr : &csv, snapshotHook);
  if (!csvPath.empty() && !csv.flush())
    throw RunError("cannot write " + csvPath);
  csv.close();
  info.simulatedS = r.simulatedS;
  info.cpuS = r.cpuS;
  if (r.interrupted) {
    out << "\nStopped by signal " << gStopSignal << " after " << std::fixed << std::setprecision(2)
        << r.simulatedS << " s: what ran is measured below\n";
  }
  out << "\nSummary: " << std::fixed << std::setprecision(1) << r.simulatedS << " s simulated in "
      << std::setprecision(3) << r.cpuS << " s of CPU (" << std::setprecision(0)
      << (r.cpuS > 0.0 ? r.simulatedS / r.cpuS : 0.0) << "x real time)\n"
      << formatSummary(r.summaries) << measuresNote(scenario);
  if (!o.csv.empty())
    out << "CSV:  " << absolutePath(o.csv) << "\n";
  if (!o.json.empty()) {
    writeText(o.json, summaryJson(info, measuresOf(r.summaries)));
    out << "JSON: " << absolutePath(o.json) << "\n";
  }
  if (!o.plot.empty() && r.simulatedS <= 0.0)
    out << "Plot: not drawn, nothing was simulated\n";
  if (!o.plot.empty() && r.simulatedS > 0.0) {
    const auto& head = robot->trackerModel().head;
    constexpr double kDeg = 180.0 / 3.14159265358979323846;
    std::ostringstream variables;
    std::ostringstream subtitle;
    subtitle << robot->getName() << ", seed " << seed << ", mode "
             << (o.mode.empty() ? scenario.modeText : o.mode) << ", latency "
             << config.camera.latencyS << " s, compensation " << o.compensation << ", physics "
             << config.physics;
    variables << "subtitle=" << gpString(subtitle.str()) << "; yawmin=" << head.yaw.min * kDeg
              << "; yawmax=" << head.yaw.max * kDeg << "; pitchmin=" << head.pitch.min * kDeg
              << "; pitchmax=" << head.pitch.max * kDeg;
    drawPlot(absolutePath(csvPath), o.plot, variables.str());
    out << "Plot: " << absolutePath(o.plot) << "\n";
  }
  return r.interrupted ? 128 + gStopSignal : 0;
}

void parsePoint(const std::string& option, const std::vector<std::string>& v, std::size_t from,
                Math::Position3D& point) {
  const double x = parseNumber(option, v[from]);
  const double y = parseNumber(option, v[from + 1]);
  const double z = parseNumber(option, v[from + 2]);
  point = {static_cast<float>(x), static_cast<float>(y), static_cast<float>(z)};
}

struct AnglesOptions {
  std::string robot;
  std::vector<std::string> lookAt;
  std::vector<std::string> pointAt;
  bool wholeBody = false;
  std::string effectorId = "0";
};

int runAngles(const AnglesOptions& a, std::ostream& out) {
  if (a.robot.empty())
    throw UsageError("angles needs --robot FILE");
  const bool lookAt = !a.lookAt.empty();
  const bool pointAt = !a.pointAt.empty();
  if (lookAt == pointAt)
    throw UsageError("angles needs either --look-at X Y Z or --point-at");
  Math::Position3D point;
  std::string arm;
  if (lookAt)
    parsePoint("--look-at", a.lookAt, 0, point);
  if (pointAt) {
    arm = a.pointAt[0];
    expectOneOf("--point-at", arm, {"Arms", "LArm", "RArm"});
    parsePoint("--point-at", a.pointAt, 1, point);
  }
  const double id = parseNumber("--effector-id", a.effectorId);
  if (id != 0.0 && id != 1.0 && id != 2.0)
    throw UsageError("--effector-id expects 0, 1 or 2");
  const int effectorId = static_cast<int>(id);
  if (pointAt && (a.wholeBody || effectorId != 0))
    throw UsageError("--whole-body and --effector-id go with --look-at only");
  std::string path;
  const auto robot = loadRobot(a.robot, path);
  const Model::KRTrackerModel& model = robot->trackerModel();
  std::vector<std::string> names;
  std::vector<float> angles;
  std::ostringstream where;
  where << "(" << point.x << ", " << point.y << ", " << point.z << ")";
  if (lookAt) {
    if (!Tracker::tools::computeLookAtAngles(point, model,
                                             static_cast<Model::TRACK_EFFECTOR>(effectorId),
                                             a.wholeBody, names, angles)) {
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

const char* const kMeasuresHelp =
    "Measures, per phase (README, \"Measures\"):\n"
    "  on target after  time from the phase start, and from each loss (target no longer\n"
    "                   perceived, or reported lost by the tracker), to the camera on target,\n"
    "                   search included; the longest such wait, '-' if one never ended\n"
    "  LoS              line-of-sight error (camera axis to target) over every sample with\n"
    "                   the target visible (in the camera's field of view, not occluded),\n"
    "                   acquisition included: RMS, 95th percentile, max, mean (bias) and\n"
    "                   standard deviation (jitter)\n"
    "  on target [%]    share of the phase with the target visible and the error under the\n"
    "                   phase's threshold (3 degrees unless the scenario says otherwise)\n"
    "  overshoot        step phases: how far the camera swings past the target [deg]\n"
    "  settling         step phases: time until the error stays within 1 degree\n"
    "  arms RMS         pointing error of the arms the effector commands\n"
    "  events           the tracker's events per phase, listed below the table\n";

/// remote-robot: the robot side of a run over DDS.
struct RemoteRobotOptions {
  std::string scenario = "ball";
  std::string physics = "mujoco";
};

/// The scenario and the backend are checked before the robot side waits for the tracking
/// service, so that a typo is reported at once rather than after a two-minute wait.
int runRemoteRobotCommand(const RemoteRobotOptions& o, std::ostream& out, std::ostream& err) {
  Scenario scenario;
  try {
    scenario = makeScenario(o.scenario, ScenarioOptions{});
  } catch (const KRError& e) {
    throw UsageError(e.message());
  }
  std::string robotPath;
  const auto robot = loadRobot(scenario.robotFile, robotPath);
  try {
    makePhysicsBackend(o.physics, *robot);
  } catch (const KRError& e) {
    throw UsageError("--physics: " + e.message());
  }
  return runRemoteRobot(o.scenario, out, err, o.physics);
}

/// Both command lines, built by CLI11 on the options they fill.
struct Parser {
  CLI::App app{
      "Runs the tracker on a simulated robot and reports how well it followed its "
      "target.",
      kProgram};
  CLI::App* angles = nullptr;
  CLI::App* remoteTracker = nullptr;
  CLI::App* remoteRobot = nullptr;
  Options run;
  AnglesOptions ang;
  RemoteRobotOptions remote;

  Parser() {
    app.footer(std::string("Without --csv and --plot, the CSV, the plot and the JSON summary go "
                           "to out/<scenario>.{csv,png,json}.\n\n") +
               kMeasuresHelp);
    app.add_flag("--list", run.list, "list the scenarios");
    app.add_option("--scenario", run.scenario,
                   "scenario to run: a name of --list or a YAML file (default: ball)");
    app.add_option("--robot", run.robot, "robot description: a file, or kibo or rover");
    app.add_option("--mode", run.mode, "mode of every phase: Head, WholeBody, Move or Navigate");
    app.add_option("--effector", run.effector, "effector of every phase: Arms, LArm, RArm, None");
    app.add_option("--seed", run.seed, "seed of the observation noise (default: 1)");
    app.add_option("--seeds", run.seeds,
                   "run each seed of A-B (two at a time): mean and 95th percentile of every "
                   "measure across them");
    app.add_option(
        "--noise", run.noise,
        "extra observation noise on top of the camera's, standard deviation [m] (default: 0)");
    app.add_option("--duration", run.duration, "simulated time [s] (default: the scenario's)");
    app.add_option("--camera-rate", run.cameraRate, "camera frames per second (default: 15)");
    app.add_option("--latency", run.latency,
                   "capture to delivery of a detection [s] (default: 0.08)");
    app.add_option("--dropout", run.dropout,
                   "probability that a frame's detection is missed (default: 0)");
    app.add_option("--compensation", run.compensation,
                   "latency compensation of the tracking service: on or off (default: on)");
    app.add_option("--compare", run.compare,
                   "compensation: run with it on and off and print both rows");
    app.add_option("--physics", run.physics,
                   "physics backend: mujoco or kinematic (default: mujoco)");
    app.add_flag("--realtime", run.realtime, "run at wall-clock speed");
    app.add_option("--csv", run.csv,
                   "stream one line per 10 ms step: pose, joints commanded and measured, "
                   "observation, tracker state");
    app.add_option("--plot", run.plot, "draw the run with tools/plot.gp (gnuplot)");
    app.add_option("--json", run.json, "write the JSON summary there");
    app.add_option("--snapshots", run.snapshots, "folder for pictures at each phase boundary");
    app.add_flag("--quiet", run.quiet, "no progress lines");

    angles = app.add_subcommand(
        "angles", "print the joint angles that the library computes for a point, one per line");
    angles->footer("");
    angles->add_option("--robot", ang.robot, "robot description: a file, or kibo or rover");
    angles
        ->add_option("--look-at", ang.lookAt,
                     "head angles toward X Y Z of the torso frame (of the robot frame with "
                     "--whole-body)")
        ->expected(3);
    angles
        ->add_option("--point-at", ang.pointAt,
                     "EFFECTOR X Y Z: arm angles (LArm, RArm or Arms) toward a point of the "
                     "torso frame")
        ->expected(4);
    angles->add_flag("--whole-body", ang.wholeBody, "with --look-at: the whole body looks");
    angles->add_option("--effector-id", ang.effectorId,
                       "with --look-at: 0 top camera, 1 bottom camera, 2 depth camera");

    // A run over DDS on loopback in two processes (make demo-remote starts both).
    remoteTracker = app.add_subcommand(
        "remote-tracker", "the tracking service alone, serving the robot side of remote-robot");
    remoteRobot = app.add_subcommand(
        "remote-robot",
        "the robot side: plays a built-in scenario in real time, the tracking service in "
        "another process (remote-tracker)");
    remoteTracker->footer("");
    remoteRobot->footer("");
    remoteRobot->add_option("scenario", remote.scenario, "built-in scenario (default: ball)");
    remoteRobot->add_option("--physics", remote.physics,
                            "physics backend: mujoco or kinematic (default: mujoco)");
  }
};

/// CLI11's message, on one line and in the words of the other errors.
std::string parseErrorText(const CLI::ParseError& e) {
  std::string text = e.what();
  std::replace(text.begin(), text.end(), '\n', ' ');
  const std::string name = e.get_name();
  const auto colon = text.find(": ");
  if (name == "ArgumentMismatch" && colon != std::string::npos) {
    const std::string option = text.substr(0, colon);
    const auto least = text.find("At least ");
    if (least != std::string::npos) {
      const std::string count = text.substr(least + 9, text.find(' ', least + 9) - least - 9);
      return "option " + option + " needs " + count + " values";
    }
    return "option " + option + " needs a value";
  }
  if (text.find("not expected:") != std::string::npos) {
    std::istringstream words(text.substr(text.find(':') + 1));
    std::string word;
    std::string first;
    while (words >> word) {
      if (word.rfind("-", 0) == 0)
        return "unknown option '" + word + "' (see --help)";
      if (first.empty())
        first = word;
    }
    return "unexpected argument '" + first + "' (see --help)";
  }
  return text;
}

}  // namespace

std::string usage() {
  Parser p;
  return p.app.help() + "\n" + p.angles->help();
}

int runCommandLine(const std::vector<std::string>& args, std::ostream& out, std::ostream& err,
                   const SubModuleFactory& modules, const RunHooks& hooks) {
  Parser p;
  try {
    std::vector<std::string> reversed(args.rbegin(), args.rend());
    try {
      p.app.parse(reversed);
    } catch (const CLI::CallForHelp&) {
      for (const CLI::App* sub : {p.angles, p.remoteTracker, p.remoteRobot}) {
        if (sub->parsed()) {
          out << sub->help();
          return 0;
        }
      }
      out << usage();
      return 0;
    } catch (const CLI::ParseError& e) {
      throw UsageError(parseErrorText(e));
    }
    if (p.angles->parsed())
      return runAngles(p.ang, out);
    if (p.remoteTracker->parsed())
      return runRemoteTrackingService(out, err);
    if (p.remoteRobot->parsed())
      return runRemoteRobotCommand(p.remote, out, err);
    SnapshotHook hook;
    if (hooks.snapshot && !p.run.snapshots.empty()) {
      hook = [snapshot = hooks.snapshot, folder = p.run.snapshots](
                 Simulation& sim, const std::string& label) { snapshot(sim, folder, label); };
    }
    return runScenario(p.run, out, modules, hook);
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
