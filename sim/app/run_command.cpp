#include "app/run_command.h"

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iomanip>
#include <mutex>
#include <ostream>
#include <sstream>
#include <thread>

#include <kr/error.h>

#include <krsim/report/csv_writer.h>
#include <krsim/report/json_summary.h>
#include <krsim/report/output_files.h>
#include <krsim/report/plot.h>
#include <krsim/report/summary_table.h>
#include <krsim/run/run_loop.h>
#include <krsim/run/run_setup.h>
#include <krsim/run/simulation.h>

#include "app/option_values.h"

namespace KR {
namespace Sim {

namespace {

constexpr const char* kProgram = "krtracker-sim";

int listScenariosTo(std::ostream& out) {
  for (const auto& s : listScenarios())
    out << std::left << std::setw(10) << s.name << "  " << s.description << "\n";
  return 0;
}

/// The settings and the scenario on its robot, checked: UsageError otherwise.
Scenario prepare(const RunConfig& config) {
  try {
    config.validate();
    return prepareScenario(config);
  } catch (const KRError& e) {
    throw UsageError(e.message());
  } catch (const InputError& e) {
    throw UsageError(e.what());
  }
}

/// Where the outputs go, checked: UsageError otherwise.
void prepareOutputs(RunConfig& config, const Scenario& scenario) {
  try {
    decideOutputs(config, scenario.name, {scenario.robot->path, scenario.file});
  } catch (const KRError& e) {
    throw UsageError(e.message());
  }
}

SimulationConfig simulationConfig(const RunConfig& config, const SubModuleFactory& modules) {
  SimulationConfig sim;
  static_cast<SimulationSettings&>(sim) = config;
  sim.modules = modules;
  return sim;
}

/// The run of a scenario with one seed, built before anything is printed or written: a
/// robot that the physics backend rejects is a bad input, refused like the others.
std::unique_ptr<ScenarioRun> buildRun(const Scenario& scenario, const SimulationConfig& config) {
  try {
    return std::make_unique<ScenarioRun>(scenario, config);
  } catch (const KRError& e) {
    if (e.method() == config.physics)
      throw UsageError("--physics: " + e.message());
    throw;
  }
}

/// Plays a run built by buildRun; streams its CSV if `csv` is not null.
RunResult playOnce(ScenarioRun& run, std::ostream* progress, std::ostream* csv,
                   const AfterStep& afterStep, std::clock_t cpuStart) {
  if (progress != nullptr)
    run.setProgress([progress](const std::string& line) { *progress << line << "\n"; });
  if (csv != nullptr)
    CsvWriter::follow(run, *csv);
  return playRun(run, afterStep, cpuStart);
}

RunResult runOnce(const Scenario& scenario, const SimulationConfig& config) {
  const std::clock_t cpuStart = std::clock();
  const auto run = buildRun(scenario, config);
  return playOnce(*run, nullptr, nullptr, {}, cpuStart);
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

/// Each seed of `range` with `config`, two at a time.
std::vector<RunResult> runSeeds(const Scenario& scenario, const SimulationConfig& config,
                                SeedRange range) {
  const std::size_t n = range.last - range.first + 1;
  std::vector<RunResult> results(n);
  std::atomic<std::size_t> next{0};
  std::mutex failureMutex;
  std::exception_ptr failure;
  auto worker = [&] {
    for (std::size_t i = next++; i < n; i = next++) {
      SimulationConfig c = config;
      c.seed = range.first + static_cast<std::uint32_t>(i);
      try {
        results[i] = runOnce(scenario, c);
      } catch (...) {
        std::lock_guard<std::mutex> lock(failureMutex);
        failure = std::current_exception();
      }
    }
  };
  std::thread second(worker);
  worker();
  second.join();
  if (failure)
    std::rethrow_exception(failure);
  return results;
}

/// Prints the seeds' table of one variant and returns its JSON summary.
std::string reportSeeds(const RunConfig& variant, const Scenario& scenario, SeedRange range,
                        const std::vector<RunResult>& results, std::ostream& out) {
  std::vector<std::vector<PhaseMeasures>> runs;
  std::vector<double> cpu;
  RunRecord total{scenario.name, scenario.robot->robot->getName(), 0.0, 0.0};
  for (const auto& r : results) {
    runs.push_back(measuresOf(r.summaries));
    cpu.push_back(r.cpuS);
    total.simulatedS += r.simulatedS;
    total.cpuS += r.cpuS;
  }
  const std::size_t n = results.size();
  out << "\nCompensation " << (variant.compensation ? "on" : "off") << ", " << n
      << (n == 1 ? " seed" : " seeds") << ", " << std::fixed << std::setprecision(1)
      << total.simulatedS << " s simulated in " << std::setprecision(3) << total.cpuS
      << " s of CPU\n"
      << formatSeedSummary(aggregateSeeds(runs), n) << formatSeedFinding(aggregateFinding(runs));
  return seedsJson(variant, total, range, runs, cpu);
}

/// Many runs: summaries only (no CSV nor plot), the seeds two at a time.
int runMany(const RunConfig& config, const Scenario& scenario, const SubModuleFactory& modules,
            std::ostream& out) {
  std::vector<RunConfig> variants = {config};
  if (!config.compare.empty()) {
    variants = {config, config};
    variants[0].compensation = true;
    variants[1].compensation = false;
  }
  const SeedRange range = config.seeds.value_or(SeedRange{config.seed, config.seed});
  out << kProgram << ": scenario " << scenario.name << ", robot "
      << scenario.robot->robot->getName() << ", seeds " << range.first << "-" << range.last << "\n";
  std::vector<std::string> json;  // one summary per variant
  for (const auto& variant : variants) {
    const auto results = runSeeds(scenario, simulationConfig(variant, modules), range);
    json.push_back(reportSeeds(variant, scenario, range, results, out));
  }
  if (!config.json.empty()) {
    // Two comparisons go into one file as a JSON list of the two summaries.
    writeText(config.json,
              json.size() == 1 ? json.front() : "[\n" + json[0] + ",\n" + json[1] + "]\n");
    out << "JSON: " << absolutePath(config.json) << "\n";
  }
  const int signal = StopSignals::received();
  return signal ? 128 + signal : 0;
}

std::string modeText(const RunConfig& config, const Scenario& scenario) {
  return config.mode.empty() ? scenario.modeText : config.mode;
}

void printHeader(const RunConfig& config, const Scenario& scenario, std::ostream& out) {
  out << kProgram << ": scenario " << scenario.name << ": " << scenario.description << "\n"
      << "robot " << scenario.robot->robot->getName() << " (" << scenario.robot->path << "), seed "
      << config.seed << ", " << std::fixed << std::setprecision(1) << scenario.duration
      << " s at 100 Hz, physics " << config.physics << ", camera " << config.camera.cameraRateHz
      << " Hz, latency " << std::setprecision(3) << config.camera.latencyS << " s, compensation "
      << (config.compensation ? "on" : "off") << (config.realtime ? ", real time" : "") << "\n";
  for (const auto& note : scenario.robot->notes)
    out << "note: " << note << "\n";
  const UrdfSource* urdf = scenario.robot->urdf.get();
  if (urdf && config.physics == "mujoco" && !urdf->missingMeshes.empty()) {
    out << "note: " << urdf->missingMeshes.size() << " mesh file"
        << (urdf->missingMeshes.size() == 1 ? "" : "s") << " of " << urdf->urdfPath
        << " not found (" << urdf->missingMeshes.front()
        << (urdf->missingMeshes.size() > 1 ? ", ..." : "")
        << "): the MuJoCo robot has simple shapes sized from its links there\n";
  }
  for (const auto& note : scenario.notes)
    out << "note: " << note << "\n";
}

/// A file removed when the run is over, whatever happens.
struct TemporaryFile {
  std::string path;
  TemporaryFile() = default;
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  ~TemporaryFile() {
    if (!path.empty())
      std::remove(path.c_str());
  }
};

/// The run's CSV: the one asked for, or a temporary one for a plot without a CSV of its own.
std::string csvPathFor(const RunConfig& config, TemporaryFile& temporary) {
  if (!config.csv.empty() || config.plot.empty())
    return config.csv;
  char name[] = "/tmp/krtracker-sim-XXXXXX";
  const int fd = ::mkstemp(name);
  if (fd < 0)
    throw std::runtime_error("cannot create a temporary file");
  ::close(fd);
  temporary.path = name;
  return temporary.path;
}

void printSummary(const RunConfig& config, const Scenario& scenario, const RunResult& r,
                  bool windowClosed, std::ostream& out) {
  if (r.interrupted) {
    out << "\nStopped " << (windowClosed ? "by closing the live view" : "by signal ")
        << (windowClosed ? "" : std::to_string(StopSignals::received())) << " after " << std::fixed
        << std::setprecision(2) << r.simulatedS << " s: what ran is measured below\n";
  }
  out << "\nSummary: " << std::fixed << std::setprecision(1) << r.simulatedS << " s simulated in "
      << std::setprecision(3) << r.cpuS << " s of CPU (" << std::setprecision(0)
      << (r.cpuS > 0.0 ? r.simulatedS / r.cpuS : 0.0) << "x real time)\n"
      << formatSummary(r.summaries) << formatFinding(measuresOf(r.summaries))
      << measuresNote(scenario);
  if (!config.csv.empty())
    out << "CSV:  " << absolutePath(config.csv) << "\n";
}

/// The JSON summary and the plot of a single run.
void writeOutputs(const RunConfig& config, const Scenario& scenario, const RunResult& r,
                  const std::string& csvPath, std::ostream& out) {
  if (!config.json.empty()) {
    const RunRecord record{scenario.name, scenario.robot->robot->getName(), r.simulatedS, r.cpuS};
    writeText(config.json, summaryJson(config, record, measuresOf(r.summaries)));
    out << "JSON: " << absolutePath(config.json) << "\n";
  }
  if (config.plot.empty())
    return;
  if (r.simulatedS <= 0.0) {
    out << "Plot: not drawn, nothing was simulated\n";
    return;
  }
  drawPlot(csvPath, config.plot, config, *scenario.robot->robot, modeText(config, scenario),
           plotFigures(measuresOf(r.summaries)));
  out << "Plot: " << absolutePath(config.plot) << "\n";
}

int runSingle(const RunConfig& config, const Scenario& scenario, ScenarioRun& run,
              std::clock_t cpuStart, const SnapshotHook& hook, std::ostream& out) {
  printHeader(config, scenario, out);
  TemporaryFile temporary;
  const std::string csvPath = csvPathFor(config, temporary);
  std::ofstream csv;
  if (!csvPath.empty()) {
    csv.open(csvPath);
    if (!csv)
      throw std::runtime_error("cannot write " + csvPath);
  }
  RunPictures pictures(run, config, hook);
  const RunResult r = playOnce(run, config.quiet ? nullptr : &out, csvPath.empty() ? nullptr : &csv,
                               pictures.afterStep(config.realtime), cpuStart);
  const std::string videoError = pictures.finish();  // reported once the outputs are written
  if (!csvPath.empty() && !csv.flush())
    throw std::runtime_error("cannot write " + csvPath);
  csv.close();
  printSummary(config, scenario, r, pictures.windowClosed(), out);
  pictures.report(out);
  writeOutputs(config, scenario, r, csvPath, out);
  if (!videoError.empty())
    throw std::runtime_error(videoError);
  return r.interrupted ? 128 + StopSignals::received() : 0;
}

}  // namespace

int RunCommand::run(std::ostream& out, const SubModuleFactory& modules,
                    const SnapshotHook& snapshot) {
  if (list)
    return listScenariosTo(out);
  const Scenario scenario = prepare(config);
  if (config.seeds || !config.compare.empty()) {
    prepareOutputs(config, scenario);
    StopSignals stopSignals;
    return runMany(config, scenario, modules, out);
  }
  const std::clock_t cpuStart = std::clock();
  const auto run = buildRun(scenario, simulationConfig(config, modules));
  checkPictures(config, static_cast<bool>(snapshot));
  prepareOutputs(config, scenario);
  StopSignals stopSignals;
  return runSingle(config, scenario, *run, cpuStart, snapshot, out);
}

}  // namespace Sim
}  // namespace KR

namespace KR {
namespace Sim {

namespace {

/// A number option converted as it is parsed.
void addNumber(CLI::App& app, const std::string& name, const std::string& help,
               std::function<void(double)> set) {
  app.add_option_function<std::string>(
      name, [name, set](const std::string& text) { set(parseNumber(name, text)); }, help);
}

}  // namespace

void RunCommand::addOptions(CLI::App& app) {
  RunConfig& c = config;
  app.add_flag("--list", list, "list the scenarios");
  app.add_option("--scenario", c.scenario,
                 "scenario to run: a name of --list or a YAML file (default: ball)");
  app.add_option("--robot", c.robot,
                 "robot: a description (.xml), a URDF mapping (.yaml), or kibo, rover, lumen");
  app.add_option("--mode", c.mode, "mode of every phase: Head, WholeBody, Move or Navigate");
  app.add_option("--effector", c.effector, "effector of every phase: Arms, LArm, RArm, None");
  app.add_option_function<std::string>(
      "--seed", [&c](const std::string& text) { c.seed = parseSeed(text); },
      "seed of the observation noise (default: 1)");
  app.add_option_function<std::string>(
      "--seeds", [&c](const std::string& text) { c.seeds = parseSeeds(text); },
      "run each seed of A-B (two at a time): mean and 95th percentile of every measure across "
      "them");
  addNumber(app, "--noise",
            "extra observation noise on top of the camera's, standard deviation [m] (default: 0)",
            [&c](double v) { c.noise = static_cast<float>(v); });
  addNumber(app, "--duration", "simulated time [s] (default: the scenario's)",
            [&c](double v) { c.duration = v; });
  addNumber(app, "--camera-rate", "camera frames per second (default: 15)",
            [&c](double v) { c.camera.cameraRateHz = v; });
  addNumber(app, "--latency", "capture to delivery of a detection [s] (default: 0.08)",
            [&c](double v) { c.camera.latencyS = v; });
  addNumber(app, "--dropout", "probability that a frame's detection is missed (default: 0)",
            [&c](double v) { c.camera.dropout = v; });
  app.add_option_function<std::string>(
      "--compensation",
      [&c](const std::string& text) { c.compensation = parseSwitch("--compensation", text); },
      "latency compensation of the tracking service: on or off (default: on)");
  app.add_option("--compare", c.compare,
                 "compensation: run with it on and off and print both rows");
  app.add_option("--physics", c.physics, "physics backend: mujoco or kinematic (default: mujoco)");
  app.add_flag("--realtime", c.realtime, "run at wall-clock speed");
  app.add_option("--csv", c.csv,
                 "stream one line per 10 ms step: pose, joints commanded and measured, "
                 "observation, tracker state");
  app.add_option("--plot", c.plot, "draw the run with tools/plot.gp (gnuplot)");
  app.add_option("--json", c.json, "write the JSON summary there");
  app.add_option("--snapshots", c.snapshots, "folder for pictures at each phase boundary");
  app.add_option("--video", c.video,
                 "film the run into FILE.mp4: 30 frames per simulated second, 1280x720, the "
                 "robot followed from behind, the head camera's view inset, a caption");
  app.add_flag("--view", c.view,
               "show the run live in a window, in real time (space: pause, right arrow: step, "
               "[ ]: speed, mouse: orbit and zoom; closing it stops the run)");
  app.add_flag("--quiet", c.quiet, "no progress lines");
}

}  // namespace Sim
}  // namespace KR
