// The CSV of a run: each line's fields from hand-made samples, then the lines streamed by a run
// of the simulated services alone, and the same seed giving the same file byte for byte.

#include <algorithm>
#include <sstream>

#include <gtest/gtest.h>

#include <krsim/report/csv_writer.h>
#include <krsim/run/scenario_run.h>

#include "sim/helpers.h"
#include "sim/report/tracked_run.h"
#include "sim/run/aim_scenario.h"

namespace {

using namespace krtest;
using KR::Sim::CsvWriter;

long commas(const std::string& line) {
  return std::count(line.begin(), line.end(), ',');
}

TEST(CsvWriterTest, WritesTheHeaderAtOnceThenOneLinePerSampleWithEmptyFieldsForWhatIsMissing) {
  KR::Sim::Phase look;
  look.name = "look";
  look.acquireDegrees = 2.5;
  std::ostringstream out;
  CsvWriter writer(out, {look}, {"HeadYaw", "LElbowRoll"});
  const std::string header =
      "time,phase,robot_x,robot_y,robot_theta,head_yaw,head_pitch,target_x,target_y,target_z,"
      "bearing_yaw,bearing_pitch,in_view,perceived,tracked,line_of_sight_deg,horizontal_deg,"
      "larm_deg,rarm_deg,relative_error_m,phase_index,on_target_deg,events,observation,"
      "cmd_HeadYaw,HeadYaw,cmd_LElbowRoll,LElbowRoll";
  EXPECT_EQ(out.str(), header + "\n");
  EXPECT_EQ(CsvWriter::header({"HeadYaw", "LElbowRoll"}), header);

  // In a phase, with its target, the left arm measured.
  Sample in;
  in.time = 1.5;
  in.phase = 0;
  in.robot = {0.1f, -0.2f, 0.3f};
  in.headYaw = 0.25f;
  in.headPitch = -0.125f;
  in.hasTarget = in.inView = in.perceived = in.tracked = true;
  in.target = {1.0f, 0.4f, 0.3f};
  in.bearingYaw = 0.38f;
  in.bearingPitch = 0.05f;
  in.lineOfSightDeg = 1.25f;
  in.horizontalDeg = -0.5f;
  in.leftArmDeg = 0.75f;
  in.events = "TargetDetected TargetLost";
  in.observation = "[1 2]";
  in.jointCommands = {0.5f, -1.0f};
  in.jointAngles = {0.25f, -0.75f};
  writer.write(in);
  // Between phases, without a target nor joint values: only the robot and the tracker's state.
  Sample between;
  between.time = 0.01;
  between.tracked = true;
  between.relativeErrorM = 0.125f;
  writer.write(between);

  const auto lines = linesOf(out.str());
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[1],
            "1.50,look,0.1000,-0.2000,0.3000,0.2500,-0.1250,1.0000,0.4000,0.3000,0.3800,0.0500,"
            "1,1,1,1.250,-0.500,0.750,,,0,2.5,TargetDetected TargetLost,[1 2],"
            "0.5000,0.2500,-1.0000,-0.7500");
  EXPECT_EQ(lines[2], "0.01,,0.0000,0.0000,0.0000,0.0000,0.0000,,,,,,,,1,,,,,0.125,-1,,,,,,,");
  for (const auto& line : lines)
    EXPECT_EQ(commas(line), commas(header)) << line;
}

// The fields of one line as RFC 4180 reads them.
std::vector<std::string> rfc4180Fields(const std::string& line) {
  std::vector<std::string> fields(1);
  bool quoted = false;
  for (std::size_t i = 0; i < line.size(); ++i) {
    const char c = line[i];
    if (quoted && c == '"' && i + 1 < line.size() && line[i + 1] == '"') {
      fields.back() += '"';
      ++i;
    } else if (c == '"') {
      quoted = !quoted;
    } else if (c == ',' && !quoted) {
      fields.emplace_back();
    } else {
      fields.back() += c;
    }
  }
  return fields;
}

// Texts that hold the separator, a quote or a line break are quoted, the rest left as they are;
// a reader of RFC 4180 gets every column back where it belongs.
TEST(CsvWriterTest, TextsAreQuotedAsRfc4180Says) {
  const struct {
    std::string text, written;
  } cases[] = {
      {"look", "look"},
      {"", ""},
      {"a,b", "\"a,b\""},
      {"say \"hi\"", "\"say \"\"hi\"\"\""},
      {"two\nlines", "\"two\nlines\""},
      {"cr\r", "\"cr\r\""},
  };
  for (const auto& c : cases)
    EXPECT_EQ(CsvWriter::field(c.text), c.written) << c.text;

  KR::Sim::Phase phase;
  phase.name = "left, then \"right\"";
  std::ostringstream out;
  CsvWriter writer(out, {phase}, {"Head,Yaw"});
  Sample s;
  s.phase = 0;
  s.events = "TargetLost";
  s.observation = "[1 \"x\"]";
  s.jointCommands = {0.5f};
  s.jointAngles = {0.25f};
  writer.write(s);
  const auto lines = linesOf(out.str());
  ASSERT_EQ(lines.size(), 2u);
  const auto header = rfc4180Fields(lines[0]);
  const auto fields = rfc4180Fields(lines[1]);
  ASSERT_EQ(fields.size(), header.size()) << lines[1];
  auto column = [&](const std::string& name) {
    const auto at = std::find(header.begin(), header.end(), name);
    return at == header.end() ? std::string("(no column)") : fields[at - header.begin()];
  };
  EXPECT_EQ(column("phase"), phase.name);
  EXPECT_EQ(column("observation"), s.observation);
  EXPECT_EQ(column("events"), "TargetLost");
  EXPECT_EQ(column("Head,Yaw"), "0.2500");
  EXPECT_EQ(column("cmd_Head,Yaw"), "0.5000");
}

TEST(CsvWriterTest, FollowsARunOneLinePerStepAsSoonAsTheStepIsDone) {
  KR::Sim::SimulationConfig config;
  config.physics = "kinematic";
  ScenarioRun run(aimScenario(), config);
  std::ostringstream csv;
  CsvWriter::follow(run, csv);
  std::size_t streamed = 0;
  run.addSampleObserver([&](const Sample& s) {
    const std::string text = csv.str();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), static_cast<long>(++streamed) + 1)
        << s.time;
  });
  run.runToEnd();
  const auto lines = linesOf(csv.str());
  ASSERT_EQ(lines.size(), 301u);
  EXPECT_EQ(lines[0], CsvWriter::header(run.jointNames()));
  // Every joint commanded and measured.
  for (const std::string joint : {"HeadYaw", "LShoulderPitch", "RElbowRoll"})
    EXPECT_NE(lines[0].find(",cmd_" + joint + "," + joint), std::string::npos) << lines[0];
  for (const auto& line : lines)
    EXPECT_EQ(commas(line), commas(lines[0])) << line;
}

// The tracker's first detection comes with the run's first observation: its step's line
// carries that observation, though nothing followed the observation event before it came.
TEST(CsvWriterTest, TheFirstObservationIsInTheLineOfItsStep) {
  ScenarioRun run(scenarioFor("step", 1.0), trackedKinematicConfig());
  std::ostringstream csv;
  CsvWriter::follow(run, csv);
  run.runToEnd();
  const auto lines = linesOf(csv.str());
  const auto first = std::find_if(lines.begin(), lines.end(), [](const std::string& line) {
    return line.find("TargetDetected") != std::string::npos;
  });
  ASSERT_NE(first, lines.end());
  const auto column =
      static_cast<std::size_t>(commas(lines[0].substr(0, lines[0].find(",observation"))));
  std::size_t at = 0;
  for (std::size_t c = 0; c <= column; ++c)
    at = first->find(',', at) + 1;
  EXPECT_NE(first->at(at), ',') << *first;  // the observation field is not empty
}

TEST(CsvWriterTest, TheSameSeedGivesTheSameCsvByteForByte) {
  auto csv = [](std::uint32_t seed) {
    KR::Sim::SimulationConfig config = trackedKinematicConfig();
    config.seed = seed;
    config.noise = 0.01f;
    config.camera = KR::Sim::CameraConfig::ideal();
    config.servo = KR::Sim::ServoModel::ideal();
    ScenarioRun run(scenarioFor("ball", 25.0), config);
    std::ostringstream out;
    CsvWriter::follow(run, out);
    run.runToEnd();
    return out.str();
  };
  const std::string first = csv(7);
  EXPECT_EQ(std::count(first.begin(), first.end(), '\n'), 2501);
  EXPECT_EQ(first, csv(7));
  EXPECT_NE(first, csv(8));
}

}  // namespace
