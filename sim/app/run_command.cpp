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
#include <krsim/report/staged_outputs.h>
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

/// Where the outputs go, checked: UsageError otherwise. Returns the files the run replaces.
std::vector<std::string> prepareOutputs(RunConfig& config, const Scenario& scenario) {
  try {
    return decideOutputs(config, scenario.name, {scenario.robot->path, scenario.file});
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

/// The files of one run: its CSV and its plot, empty when not written.
struct RunFiles {
  std::string csv;
  std::string plot;
};

/// Where the run's CSV is streamed: its own file, staged, or a temporary one for a plot
/// without a CSV of its own; empty when neither is written.
std::string csvPathFor(const RunFiles& files, StagedOutputs& outputs, TemporaryFile& temporary) {
  if (!files.csv.empty())
    return outputs.stage(files.csv);
  if (files.plot.empty())
    return "";
  char name[] = "/tmp/krtracker-sim-XXXXXX";
  const int fd = ::mkstemp(name);
  if (fd < 0)
    throw std::runtime_error("cannot create a temporary file");
  ::close(fd);
  temporary.path = name;
  return temporary.path;
}

/// The CSV's name in errors: the one the user gave, else the temporary file's path.
std::string csvShownAs(const RunFiles& files, const std::string& csvPath) {
  return files.csv.empty() ? csvPath : files.csv;
}

/// Plays one run of many with its CSV streamed to `csvPath` (none when empty), named
/// `shownAs` in errors.
RunResult playToCsv(ScenarioRun& run, const std::string& csvPath, const std::string& shownAs,
                    std::clock_t cpuStart) {
  std::ofstream csv;
  if (!csvPath.empty()) {
    csv.open(csvPath);
    if (!csv)
      throw std::runtime_error("cannot write " + shownAs);
    CsvWriter::follow(run, csv);
  }
  RunResult r = playRun(run, false, cpuStart);
  if (!csvPath.empty() && !csv.flush())
    throw std::runtime_error("cannot write " + shownAs);
  return r;
}

std::string modeText(const RunConfig& config, const Scenario& scenario) {
  return config.mode.empty() ? scenario.modeText : config.mode;
}

/// The plot of a run from its CSV, staged; false when nothing was simulated (none drawn).
bool drawStaged(const RunConfig& config, const Scenario& scenario, const RunResult& r,
                const std::string& csvPath, const std::string& plot, StagedOutputs& outputs) {
  if (plot.empty() || r.simulatedS <= 0.0)
    return false;
  drawPlot(csvPath, outputs.stage(plot), config, *scenario.robot->robot, modeText(config, scenario),
           plotFigures(measuresOf(r.summaries)), plot);
  return true;
}

/// One run of many, with its own CSV and plot when asked.
RunResult runOnce(const RunConfig& config, const Scenario& scenario,
                  const SubModuleFactory& modules, const RunFiles& files, StagedOutputs& outputs) {
  const std::clock_t cpuStart = std::clock();
  const auto run = buildRun(scenario, simulationConfig(config, modules));
  TemporaryFile temporary;
  const std::string csvPath = csvPathFor(files, outputs, temporary);
  const RunResult r = playToCsv(*run, csvPath, csvShownAs(files, csvPath), cpuStart);
  drawStaged(config, scenario, r, csvPath, files.plot, outputs);
  return r;
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

/// Each seed of `range` with `variant`, two at a time, each writing its own files.
std::vector<RunResult> runSeeds(const Scenario& scenario, const RunConfig& variant,
                                const SubModuleFactory& modules, SeedRange range,
                                StagedOutputs& outputs) {
  const std::size_t n = range.last - range.first + 1;
  std::vector<RunResult> results(n);
  std::atomic<std::size_t> next{0};
  std::mutex failureMutex;
  std::exception_ptr failure;
  auto worker = [&] {
    for (std::size_t i = next++; i < n; i = next++) {
      RunConfig c = variant;
      c.seed = range.first + static_cast<std::uint32_t>(i);
      const std::string suffix = runSuffix(c, c.compensation, c.seed);
      const RunFiles files{c.csv.empty() ? "" : perRunPath(c.csv, suffix),
                           c.plot.empty() ? "" : perRunPath(c.plot, suffix)};
      try {
        results[i] = runOnce(c, scenario, modules, files, outputs);
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
  RunRecord total{scenario.name, scenario.robot->robot->getName(), 0.0, 0.0, ""};
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

/// "CSV:  first ... last (N files)" of many runs' files.
void printRunFiles(const char* label, const RunConfig& config, const std::string& path,
                   SeedRange range, std::ostream& out) {
  if (path.empty())
    return;
  const std::size_t n = (range.last - range.first + 1) * (config.compare.empty() ? 1 : 2);
  const std::string first = perRunPath(path, runSuffix(config, true, range.first));
  const std::string last = perRunPath(path, runSuffix(config, config.compare.empty(), range.last));
  out << label << absolutePath(first);
  if (n > 1)
    out << " ... " << absolutePath(last) << " (" << n << " files)";
  out << "\n";
}

/// Many runs: the summaries, and each run's own CSV and plot when asked; two at a time.
int runMany(const RunConfig& config, const Scenario& scenario, const SubModuleFactory& modules,
            StagedOutputs& outputs, std::ostream& out) {
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
    const auto results = runSeeds(scenario, variant, modules, range, outputs);
    json.push_back(reportSeeds(variant, scenario, range, results, out));
  }
  // Two comparisons go into one file as a JSON list of the two summaries.
  if (!config.json.empty()) {
    outputs.writeText(config.json,
                      json.size() == 1 ? json.front() : "[\n" + json[0] + ",\n" + json[1] + "]\n");
  }
  outputs.commit();
  printRunFiles("CSV:  ", config, config.csv, range, out);
  printRunFiles("Plot: ", config, config.plot, range, out);
  if (!config.json.empty())
    out << "JSON: " << absolutePath(config.json) << "\n";
  const int signal = StopSignals::received();
  return signal ? 128 + signal : 0;
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

/// How the run ended, for the summary and the JSON.
std::string statusOf(const RunResult& r) {
  if (r.interrupted)
    return "stopped by signal " + std::to_string(StopSignals::received());
  return r.stoppedBy.empty() ? "completed" : r.stoppedBy;
}

void printSummary(const Scenario& scenario, const RunResult& r, bool windowClosed,
                  std::ostream& out) {
  if (r.interrupted || !r.stoppedBy.empty()) {
    std::string how = "Stopped (" + r.stoppedBy + ")";
    if (r.interrupted) {
      how = windowClosed ? "Stopped by closing the live view"
                         : "Stopped by signal " + std::to_string(StopSignals::received());
    }
    out << "\n"
        << how << " after " << std::fixed << std::setprecision(2) << r.simulatedS
        << " s: what ran is measured below\n"
        << std::flush;
  }
  out << "\nSummary: " << std::fixed << std::setprecision(1) << r.simulatedS << " s simulated in "
      << std::setprecision(3) << r.cpuS << " s of CPU (" << std::setprecision(0)
      << (r.cpuS > 0.0 ? r.simulatedS / r.cpuS : 0.0) << "x real time)\n"
      << formatSummary(r.summaries) << formatFinding(measuresOf(r.summaries))
      << measuresNote(scenario);
}

/// The JSON summary and the plot of a single run, staged with its CSV, then all put in place
/// together. The JSON says how the run ended unless it completed in one process.
void writeOutputs(const RunConfig& config, const Scenario& scenario, const RunResult& r,
                  const std::string& csvPath, StagedOutputs& outputs, std::ostream& out) {
  if (!config.json.empty()) {
    RunRecord record{scenario.name, scenario.robot->robot->getName(), r.simulatedS, r.cpuS, ""};
    const std::string status = statusOf(r);
    if (status != "completed" || config.transport != "inproc")
      record.status = status;
    outputs.writeText(config.json, summaryJson(config, record, measuresOf(r.summaries)));
  }
  const bool drawn = drawStaged(config, scenario, r, csvPath, config.plot, outputs);
  outputs.commit();
  if (!config.csv.empty())
    out << "CSV:  " << absolutePath(config.csv) << "\n";
  if (!config.json.empty())
    out << "JSON: " << absolutePath(config.json) << "\n";
  if (drawn)
    out << "Plot: " << absolutePath(config.plot) << "\n";
  else if (!config.plot.empty())
    out << "Plot: not drawn, nothing was simulated\n";
}

}  // namespace

struct PreparedRun::Parts {
  std::clock_t cpuStart;
  std::unique_ptr<ScenarioRun> run;
  StagedOutputs outputs;
};

PreparedRun::PreparedRun(RunConfig& config, const Scenario& scenario,
                         const SubModuleFactory& modules, bool snapshotHook) {
  const std::clock_t cpuStart = std::clock();
  auto run = buildRun(scenario, simulationConfig(config, modules));
  checkPictures(config, snapshotHook);
  fParts.reset(
      new Parts{cpuStart, std::move(run), StagedOutputs(prepareOutputs(config, scenario))});
}

PreparedRun::~PreparedRun() = default;

int PreparedRun::play(const RunConfig& config, const Scenario& scenario,
                      const SingleRunHooks& hooks, std::ostream& out) {
  Parts& p = *fParts;
  printHeader(config, scenario, out);
  TemporaryFile temporary;
  const RunFiles files{config.csv, config.plot};
  const std::string csvPath = csvPathFor(files, p.outputs, temporary);
  const std::string csvName = csvShownAs(files, csvPath);
  std::ofstream csv;
  if (!csvPath.empty()) {
    csv.open(csvPath);
    if (!csv)
      throw std::runtime_error("cannot write " + csvName);
  }
  RunPictures pictures(*p.run, config, hooks.snapshot);
  if (!config.quiet)
    p.run->setProgress([&out](const std::string& line) { out << line << "\n"; });
  if (!csvPath.empty())
    CsvWriter::follow(*p.run, csv);
  const RunResult r = playRun(*p.run, pictures.afterStep(config.realtime), p.cpuStart, hooks.stop);
  const std::string videoError = pictures.finish();  // reported once the outputs are written
  if (hooks.ended)
    hooks.ended(statusOf(r));
  if (!csvPath.empty() && !csv.flush())
    throw std::runtime_error("cannot write " + csvName);
  csv.close();
  printSummary(scenario, r, pictures.windowClosed(), out);
  pictures.report(out);
  writeOutputs(config, scenario, r, csvPath, p.outputs, out);
  if (!videoError.empty())
    throw std::runtime_error(videoError);
  if (r.interrupted)
    return 128 + StopSignals::received();
  return r.stoppedBy.empty() ? 0 : hooks.stoppedCode;
}

int RunCommand::run(std::ostream& out, const SubModuleFactory& modules,
                    const SnapshotHook& snapshot) {
  if (list)
    return listScenariosTo(out);
  const Scenario scenario = prepare(config);
  if (config.seeds || !config.compare.empty()) {
    StagedOutputs outputs(prepareOutputs(config, scenario));
    StopSignals stopSignals;
    return runMany(config, scenario, modules, outputs, out);
  }
  PreparedRun run(config, scenario, modules, static_cast<bool>(snapshot));
  StopSignals stopSignals;
  return run.play(config, scenario, {snapshot, {}, {}, 1}, out);
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

void addRunOptions(CLI::App& app, RunConfig& c) {
  app.add_option("--scenario", c.scenario,
                 "scenario to run: a name of --list or a YAML file (default: ball)");
  app.add_option("--robot", c.robot,
                 "robot: a description (.xml), a URDF mapping (.yaml), or kibo, rover, lumen");
  app.add_option("--mode", c.mode, "mode of every phase: Head, WholeBody, Move or Navigate");
  app.add_option("--effector", c.effector, "effector of every phase: Arms, LArm, RArm, None");
  app.add_option_function<std::string>(
      "--seed", [&c](const std::string& text) { c.seed = parseSeed(text); },
      "seed of the observation noise (default: 1)");
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
  app.add_option("--physics", c.physics, "physics backend: mujoco or kinematic (default: mujoco)");
  app.add_option("--csv", c.csv,
                 "stream one line per 10 ms step: pose, joints commanded and measured, "
                 "observation, tracker state");
  app.add_option("--plot", c.plot, "draw the run with tools/plot.gp (gnuplot)");
  app.add_option("--json", c.json, "write the JSON summary there");
  app.add_flag("--quiet", c.quiet, "no progress lines");
}

void RunCommand::addOptions(CLI::App& app) {
  RunConfig& c = config;
  app.add_flag("--list", list, "list the scenarios");
  addRunOptions(app, c);
  app.add_option_function<std::string>(
      "--seeds", [&c](const std::string& text) { c.seeds = parseSeeds(text); },
      "run each seed of A-B (two at a time): mean and 95th percentile of every measure across "
      "them");
  app.add_option("--compare", c.compare,
                 "compensation: run with it on and off and print both rows");
  app.add_flag("--realtime", c.realtime, "run at wall-clock speed");
  app.add_option("--snapshots", c.snapshots, "folder for pictures at each phase boundary");
  app.add_option("--video", c.video,
                 "film the run into FILE.mp4: 30 frames per simulated second, 1280x720, the "
                 "robot followed from behind, the head camera's view inset, a caption");
  app.add_flag("--view", c.view,
               "show the run live in a window, in real time (space: pause, right arrow: step, "
               "[ ]: speed, mouse: orbit and zoom; closing it stops the run)");
}

}  // namespace Sim
}  // namespace KR
