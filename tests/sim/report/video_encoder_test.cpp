// VideoEncoder: settings it refuses, what a player reads back (duration, frame count, the
// colours where they were put, in both row orders), and a file left complete when the encoder
// is dropped without finish().

#include <cstdio>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include <kr/error.h>
#include <krsim/report/video_encoder.h>

#include "sim/report/video_probe.h"

namespace {

using KR::Sim::VideoEncoder;
using testing::HasSubstr;

std::string scratch(const std::string& name) {
  return testing::TempDir() + "krtracker_encoder_" + name + ".mp4";
}

/// width x height pixels, the top half red and the bottom half blue, rows in `order`.
std::vector<unsigned char> redOverBlue(int width, int height, VideoEncoder::Rows order) {
  std::vector<unsigned char> rgb(3 * static_cast<std::size_t>(width * height));
  for (int row = 0; row < height; ++row) {
    const int fromTop = order == VideoEncoder::Rows::TopDown ? row : height - 1 - row;
    const bool top = fromTop < height / 2;
    for (int x = 0; x < width; ++x) {
      unsigned char* p = &rgb[3 * static_cast<std::size_t>(row * width + x)];
      p[0] = top ? 220 : 20;
      p[2] = top ? 20 : 220;
    }
  }
  return rgb;
}

TEST(VideoEncoder, RefusesSettingsAndFilesItCannotWrite) {
  struct Case {
    VideoEncoder::Settings settings;
    std::string path;
    std::string message;
  };
  auto with = [](int w, int h, int fps, int crf) {
    VideoEncoder::Settings s;
    s.width = w;
    s.height = h;
    s.fps = fps;
    s.crf = crf;
    return s;
  };
  const std::vector<Case> cases = {
      {with(641, 480, 30, 23), scratch("odd"), "even sizes, not 641x480"},
      {with(640, 8, 30, 23), scratch("small"), "16x16 to 4096x4096"},
      {with(640, 480, 0, 23), scratch("still"), "1 to 240 frames per second, not 0"},
      {with(640, 480, 30, 52), scratch("crf"), "0 to 51, not 52"},
      {with(640, 480, 30, 23), "/nonexistent/krtracker/x.mp4",
       "cannot write the video '/nonexistent/krtracker/x.mp4'"},
  };
  for (const Case& c : cases) {
    EXPECT_THAT([&] { VideoEncoder(c.path, c.settings); },
                testing::ThrowsMessage<KR::KRError>(HasSubstr(c.message)))
        << c.message;
    std::remove(c.path.c_str());
  }
}

TEST(VideoEncoder, WritesFramesAPlayerReadsBackInBothRowOrders) {
  for (const auto order : {VideoEncoder::Rows::TopDown, VideoEncoder::Rows::BottomUp}) {
    const bool topDown = order == VideoEncoder::Rows::TopDown;
    const std::string path = scratch(topDown ? "top_down" : "bottom_up");
    VideoEncoder::Settings settings;
    settings.width = 64;
    settings.height = 48;
    settings.fps = 10;
    {
      VideoEncoder encoder(path, settings);
      const std::vector<unsigned char> frame = redOverBlue(64, 48, order);
      for (int i = 0; i < 25; ++i)
        encoder.addFrame(frame.data(), order);
      encoder.finish();
      EXPECT_EQ(encoder.frames(), 25);
      EXPECT_THAT([&] { encoder.addFrame(frame.data(), order); },
                  testing::ThrowsMessage<KR::KRError>(HasSubstr("finished")));
    }
    const krtest::VideoInfo info = krtest::probeVideo(path);
    EXPECT_EQ(info.codec, "h264");
    EXPECT_EQ(info.width, 64);
    EXPECT_EQ(info.height, 48);
    EXPECT_EQ(info.frames, 25);
    EXPECT_NEAR(info.durationS, 2.5, 0.1 / 2);  // within half a frame
    long checked = 0;
    krtest::forEachFrame(path, 64, 48, [&](long, const std::vector<unsigned char>& rgb) {
      // Top rows red, bottom rows blue, whichever order the rows were handed in.
      const unsigned char* top = &rgb[3 * (5 * 64 + 32)];
      const unsigned char* bottom = &rgb[3 * (42 * 64 + 32)];
      EXPECT_GT(top[0], 180);
      EXPECT_LT(top[2], 60);
      EXPECT_LT(bottom[0], 60);
      EXPECT_GT(bottom[2], 180);
      ++checked;
    });
    EXPECT_EQ(checked, 25);
    std::remove(path.c_str());
  }
}

TEST(VideoEncoder, LeavesAPlayableFileWhenDroppedWithoutFinishing) {
  const std::string path = scratch("dropped");
  VideoEncoder::Settings settings;
  settings.width = 32;
  settings.height = 32;
  settings.fps = 30;
  {
    VideoEncoder encoder(path, settings);
    const std::vector<unsigned char> frame = redOverBlue(32, 32, VideoEncoder::Rows::TopDown);
    for (int i = 0; i < 45; ++i)
      encoder.addFrame(frame.data(), VideoEncoder::Rows::TopDown);
  }
  const krtest::VideoInfo info = krtest::probeVideo(path);
  EXPECT_EQ(info.frames, 45);
  EXPECT_NEAR(info.durationS, 1.5, 1.0 / 60);
  std::remove(path.c_str());
}

}  // namespace
