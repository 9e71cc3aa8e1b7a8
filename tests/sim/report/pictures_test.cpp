// Pictures of a run drawn for real, off screen: the head camera's inset is its pinhole view, a
// snapshot carries its legend and caption, a filmed run read back has its duration, no blank
// frame, the ball where the line-of-sight error puts it, and the figures of the same run
// without a video. Without any way to draw here, each checks the refusal instead. The ctests
// "snapshot_xvfb" and "video_xvfb" run them again under Xvfb through GLFW.

#include <sys/resource.h>
#include <sys/stat.h>

#include <cmath>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <kr/error.h>
#include <krsim/report/gl_context.h>
#include <krsim/report/run_frame.h>
#include <krsim/report/run_video.h>
#include <krsim/report/scene_renderer.h>
#include <krsim/report/snapshot.h>
#include <krsim/robot/robot_description.h>
#include <krsim/tracking/context.h>

#include "sim/helpers.h"
#include "sim/report/child_process.h"
#include "sim/report/tracked_run.h"
#include "sim/report/video_probe.h"

namespace {

using namespace krtest;
using testing::AllOf;
using testing::HasSubstr;

constexpr double kRadToDeg = 180.0 / M_PI;

/// Why nothing can be drawn here, or empty.
std::string drawingProblem() {
  static const std::string problem = KR::Sim::offscreenRenderingProblem();
  return problem;
}

struct Rgb {
  int r, g, b;
};

Rgb pixel(const std::vector<unsigned char>& rgb, int width, int x, int y) {
  const std::size_t i = 3 * (static_cast<std::size_t>(y) * static_cast<std::size_t>(width) +
                             static_cast<std::size_t>(x));
  return {rgb[i], rgb[i + 1], rgb[i + 2]};
}

bool isRed(const Rgb& p) {
  return p.r > 60 && p.r > 2 * p.g && p.r > 2 * p.b;
}
bool isYellow(const Rgb& p) {
  return p.r > 150 && p.g > 120 && p.b < 80;
}

/// Centroid of the red pixels of a rectangle (x, y from the top left) and their count.
struct Blob {
  double x = 0.0, y = 0.0;
  int count = 0;
};
Blob redBlob(const std::vector<unsigned char>& rgb, int width, int x0, int y0, int w, int h) {
  Blob b;
  for (int y = y0; y < y0 + h; ++y) {
    for (int x = x0; x < x0 + w; ++x) {
      if (isRed(pixel(rgb, width, x, y))) {
        b.x += x;
        b.y += y;
        ++b.count;
      }
    }
  }
  if (b.count > 0) {
    b.x /= b.count;
    b.y /= b.count;
  }
  return b;
}

TEST(SceneRenderer, TheInsetIsThePinholeViewOfTheHeadCamera) {
  if (!drawingProblem().empty()) {
    EXPECT_THAT([] { KR::Sim::OffscreenContext context; },
                testing::ThrowsMessage<KR::KRError>(HasSubstr("xvfb-run -a")));
    return;
  }
  KR::Sim::OffscreenContext context;
  // Points in the head camera's frame (x forward, y left, z up) [m].
  const std::vector<Position3D> points = {
      {1.2f, 0.0f, 0.0f}, {1.2f, 0.15f, 0.0f}, {1.0f, -0.1f, 0.08f}, {1.5f, 0.25f, -0.15f}};
  // A robot of an XML description, and one of a URDF (drawn from its own MuJoCo model).
  for (const std::string robot : {"kibo", "lumen"}) {
    for (const Position3D& p : points) {
      SCOPED_TRACE(robot);
      KR::Sim::SimulationConfig config;
      config.robot = KR::Sim::RobotDescription::load(robot);
      config.physics = "kinematic";
      Simulation sim(config);
      TargetScript ball;
      ball.name = "ball";
      ball.kind = "RedBall";
      ball.path = Path::fixed(sim.motion().getMapToHeadEffector(0) * p);
      sim.world().addTarget(ball);
      sim.step();
      KR::Sim::SceneRenderer renderer(sim, false);
      renderer.update(sim, "ball");
      const int w = 400;
      const int h = static_cast<int>(w / renderer.headCameraAspect());
      renderer.drawHeadCamera({0, 0, w, h});
      std::vector<unsigned char> rgb(3 * static_cast<std::size_t>(w * h));
      renderer.readPixels({0, 0, w, h}, rgb.data());  // bottom row first
      const Blob blob = redBlob(rgb, w, 0, 0, w, h);
      ASSERT_GT(blob.count, 30) << p.y << " " << p.z;
      const double focal = 0.5 * h / std::tan(0.5 * sim.robot().getCameraVerticalFov());
      EXPECT_NEAR(blob.x, 0.5 * w - 0.5 - focal * p.y / p.x, 1.5) << p.y << " " << p.z;
      EXPECT_NEAR(blob.y, 0.5 * h - 0.5 + focal * p.z / p.x, 1.5) << p.y << " " << p.z;
    }
  }
}

/// A dark box with light text in it: the legend's or the caption's, from the top left.
void expectTextBox(const std::vector<unsigned char>& rgb, int width, int x0, int y0, int w, int h,
                   const std::string& what) {
  int dark = 0;
  int light = 0;
  for (int y = y0; y < y0 + h; ++y) {
    for (int x = x0; x < x0 + w; ++x) {
      const Rgb p = pixel(rgb, width, x, y);
      dark += p.r + p.g + p.b < 3 * 90 ? 1 : 0;
      light += p.r > 200 && p.g > 200 && p.b > 200 ? 1 : 0;
    }
  }
  EXPECT_GT(dark, w * h / 2) << what;
  EXPECT_GT(light, w * h / 50) << what;
}

TEST(Snapshot, ShowsTheRobotItsTargetTheLegendAndTheCaption) {
  ScenarioRun run(scenarioFor("ball", 6.0), trackedKinematicConfig());
  if (!drawingProblem().empty()) {
    EXPECT_THAT([&] { KR::Sim::SnapshotRenderer snapshots(run); },
                testing::ThrowsMessage<KR::KRError>(HasSubstr("xvfb-run -a")));
    return;
  }
  KR::Sim::SnapshotRenderer snapshots(run);
  run.runToEnd();
  const KR::Sim::Picture picture = snapshots.render();
  ASSERT_EQ(picture.width, 1280);
  ASSERT_EQ(picture.height, 720);
  int yellow = 0;
  for (int y = 0; y < 720; ++y) {
    for (int x = 0; x < 1280; ++x)
      yellow += isYellow(pixel(picture.rgb, 1280, x, y)) ? 1 : 0;
  }
  EXPECT_GT(yellow, 100);                                             // line of sight, legend
  EXPECT_GT(redBlob(picture.rgb, 1280, 0, 0, 1280, 720).count, 100);  // ball, legend
  expectTextBox(picture.rgb, 1280, 20, 20, 300, 100, "legend");
  expectTextBox(picture.rgb, 1280, 20, 600, 300, 100, "caption");

  const std::string path = scratchPath("krtracker_snapshot_test") + ".png";
  snapshots.write(path);
  EXPECT_EQ(readFile(path).substr(0, 8), "\x89PNG\r\n\x1a\n");
  std::remove(path.c_str());
  EXPECT_THAT([&] { snapshots.write("/nonexistent/dir/x.png"); },
              testing::ThrowsMessage<KR::KRError>(HasSubstr("/nonexistent/dir/x.png")));
}

/// A CSV of the run, its columns by name.
struct Csv {
  std::map<std::string, std::size_t> column;
  std::vector<std::vector<std::string>> rows;

  explicit Csv(const std::string& path) {
    for (const std::string& line : linesOf(readFile(path))) {
      rows.emplace_back();
      std::stringstream in(line);
      for (std::string cell; std::getline(in, cell, ',');)
        rows.back().push_back(cell);
    }
    for (std::size_t i = 0; i < rows.at(0).size(); ++i)
      column[rows[0][i]] = i;
    rows.erase(rows.begin());
  }
  double number(std::size_t row, const std::string& name) const {
    return std::stod(rows[row].at(column.at(name)));
  }
};

std::string withoutCpu(const std::string& json) {
  std::string kept;
  for (const std::string& line : linesOf(json)) {
    if (line.find("cpu_s") == std::string::npos)
      kept += line + "\n";
  }
  return kept;
}

TEST(Video, FilmsTheRunFrameByFrameAndChangesNoneOfItsFigures) {
  const std::string dir = scratchPath("krtracker_video_test");
  std::system(("rm -rf '" + dir + "' && mkdir -p '" + dir + "'").c_str());
  const std::vector<std::string> common = {"--quiet", "--duration", "10"};
  auto withOutputs = [&](const std::string& name, bool video) {
    std::vector<std::string> args = common;
    for (const std::string& a : std::vector<std::string>{"--csv", dir + "/" + name + ".csv",
                                                         "--json", dir + "/" + name + ".json"})
      args.push_back(a);
    if (video) {
      args.push_back("--video");
      args.push_back(dir + "/run.mp4");
    }
    return args;
  };
  const CommandResult filmed = runCli(withOutputs("filmed", true), &KR::Sim::createTrackerModules);
  if (!drawingProblem().empty()) {
    EXPECT_EQ(filmed.code, 2);
    EXPECT_THAT(filmed.err, HasSubstr("--video: cannot draw off-screen"));
    return;
  }
  ASSERT_EQ(filmed.code, 0) << filmed.err;
  EXPECT_THAT(filmed.out, HasSubstr("(300 frames;"));
  const CommandResult plain = runCli(withOutputs("plain", false), &KR::Sim::createTrackerModules);
  ASSERT_EQ(plain.code, 0) << plain.err;
  EXPECT_EQ(readFile(dir + "/filmed.csv"), readFile(dir + "/plain.csv"));
  EXPECT_EQ(withoutCpu(readFile(dir + "/filmed.json")), withoutCpu(readFile(dir + "/plain.json")));

  const VideoInfo info = probeVideo(dir + "/run.mp4");
  EXPECT_EQ(info.codec, "h264");
  EXPECT_EQ(info.width, 1280);
  EXPECT_EQ(info.height, 720);
  EXPECT_EQ(info.frames, 300);
  EXPECT_NEAR(info.durationS, 10.0, 1.0 / 30.0);

  // The inset, as RunFrame lays it out, and the head camera's focal length in its pixels.
  const auto robot = KR::Sim::RobotDescription::load("kibo");
  const double hfov = robot->robot->getCameraHorizontalFov();
  const double vfov = robot->robot->getCameraVerticalFov();
  const KR::Sim::PixelRect inset =
      KR::Sim::RunFrame::insetRect(std::tan(0.5 * hfov) / std::tan(0.5 * vfov), {0, 0, 1280, 720});
  const int insetTop = 720 - inset.y - inset.height;
  const double focal = 0.5 * inset.height / std::tan(0.5 * vfov);

  const Csv csv(dir + "/filmed.csv");
  std::size_t row = 0;
  int blank = 0, followed = 0, followedFar = 0, seen = 0, misplaced = 0;
  const long frames = forEachFrame(dir + "/run.mp4", 1280, 720, [&](long k, const auto& rgb) {
    // Frame k shows the first step that ends after k/30 s.
    while (row + 1 < csv.rows.size() && csv.number(row, "time") <= k / 30.0 + 1e-9)
      ++row;
    double sum = 0.0, squares = 0.0;
    for (std::size_t i = 0; i < rgb.size(); i += 97) {
      sum += rgb[i];
      squares += rgb[i] * rgb[i];
    }
    const double n = static_cast<double>(rgb.size() / 97);
    blank += std::sqrt(squares / n - (sum / n) * (sum / n)) < 10.0 ? 1 : 0;

    const double los = csv.number(row, "line_of_sight_deg");
    if (csv.number(row, "perceived") == 0 || los > 15.0)
      return;  // the ball hidden, or near the inset's edge
    const Blob ball = redBlob(rgb, 1280, inset.x, insetTop, inset.width, inset.height);
    const double dx = ball.x - inset.x - 0.5 * inset.width;
    const double dy = ball.y - insetTop - 0.5 * inset.height;
    ++seen;
    misplaced += std::fabs(std::atan(std::hypot(dx, dy) / focal) * kRadToDeg - los) > 0.75;
    if (csv.number(row, "tracked") == 1 && los < 3.0) {
      ++followed;
      followedFar += std::hypot(dx, dy) > 0.05 * inset.width ? 1 : 0;
    }
  });
  std::printf(
      "frames %ld, blank %d; ball in view %d, of which misplaced %d; tracked under 3 deg "
      "%d, of which more than 5 %% of the inset off centre %d\n",
      frames, blank, seen, misplaced, followed, followedFar);
  EXPECT_EQ(frames, 300);
  EXPECT_EQ(blank, 0);
  EXPECT_GT(seen, 100);
  EXPECT_EQ(misplaced, 0) << "of " << seen;
  EXPECT_GT(followed, 100);
  EXPECT_EQ(followedFar, 0) << "of " << followed;
  std::system(("rm -rf '" + dir + "'").c_str());
}

long fileSize(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? static_cast<long>(st.st_size) : 0;
}

// A disk that fills during the run (a file size limit of 4 kB, below the first 32 kB that the
// muxer writes at once): the video stops at its last frame written, the run goes on to its
// end, and finishing the video says why it stopped.
TEST(Video, AFullDiskStopsTheVideoNotTheRun) {
  ScenarioRun run(scenarioFor("ball", 8.0), trackedKinematicConfig());
  const std::string path = scratchPath("krtracker_full_disk") + ".mp4";
  if (!drawingProblem().empty()) {
    EXPECT_THAT([&] { KR::Sim::RunVideo video(run, path); },
                testing::ThrowsMessage<KR::KRError>(HasSubstr("xvfb-run -a")));
    return;
  }
  KR::Sim::RunVideo video(run, path);
  rlimit before{};
  ::getrlimit(RLIMIT_FSIZE, &before);
  rlimit small = before;
  small.rlim_cur = 4096;
  const auto signal = std::signal(SIGXFSZ, SIG_IGN);
  ::setrlimit(RLIMIT_FSIZE, &small);
  run.runToEnd();
  ::setrlimit(RLIMIT_FSIZE, &before);
  std::signal(SIGXFSZ, signal);
  EXPECT_NEAR(run.simulatedSeconds(), 8.0, 1e-6);
  EXPECT_GT(video.frames(), 0);
  EXPECT_LT(video.frames(), 240);
  EXPECT_THAT([&] { video.finish(); },
              testing::ThrowsMessage<KR::KRError>(
                  AllOf(HasSubstr("cannot write the video '" + path + "'"), HasSubstr("large"))));
  std::remove(path.c_str());
}

// Ctrl-C in the middle of a filmed run: the program ends as for any stop (exit 130, what ran
// measured) and the video holds what ran, complete and playable.
TEST(Video, AnInterruptedRunLeavesAPlayableVideoOfWhatRan) {
  const std::string dir = scratchPath("krtracker_video_interrupted");
  std::system(("rm -rf '" + dir + "' && mkdir -p '" + dir + "'").c_str());
  const std::string video = dir + "/run.mp4";
  ChildProgram program({"--quiet", "--duration", "30", "--csv", dir + "/run.csv", "--json",
                        dir + "/run.json", "--video", video},
                       dir + "/out.txt", dir + "/err.txt");
  ASSERT_TRUE(program.started());
  if (!drawingProblem().empty()) {
    EXPECT_EQ(program.wait(), 2);
    EXPECT_FALSE(std::ifstream(video).good());
    return;
  }
  // Once frames have reached the file (the encoder holds a few back), stop it.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(3);
  while (fileSize(video) < 100000 && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  program.signal(SIGINT);
  EXPECT_EQ(program.wait(), 128 + SIGINT) << readFile(dir + "/err.txt");
  const std::string out = readFile(dir + "/out.txt");
  EXPECT_THAT(out, HasSubstr("Stopped by signal 2 after"));
  EXPECT_THAT(out, HasSubstr("Video: "));
  const double simulated = nlohmann::json::parse(readFile(dir + "/run.json"))["simulated_s"];
  ASSERT_GT(simulated, 0.5);
  ASSERT_LT(simulated, 29.0);
  const VideoInfo info = probeVideo(video);
  EXPECT_EQ(info.frames, static_cast<long>(std::ceil(30.0 * simulated - 1e-6)));
  EXPECT_NEAR(info.durationS, simulated, 1.0 / 30.0);
  std::system(("rm -rf '" + dir + "'").c_str());
}

}  // namespace
