#pragma once
// A video read back as a user's tools read it: ffprobe for what the file holds, ffmpeg for its
// frames as RGB (both from Debian's ffmpeg package), each run as a child process.

#include <cstdio>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

namespace krtest {

struct VideoInfo {
  std::string codec;
  int width = 0;
  int height = 0;
  long frames = -1;       // decoded and counted
  double durationS = -1;  // of the container
};

/// What ffprobe reads in `path`; frames -1 when it cannot read the file.
inline VideoInfo probeVideo(const std::string& path) {
  const std::string command =
      "ffprobe -v error -count_frames -select_streams v:0 -show_entries "
      "stream=codec_name,width,height,nb_read_frames:format=duration -of default=nw=1 '" +
      path + "' 2>/dev/null";
  VideoInfo info;
  FILE* pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr)
    return info;
  char line[256];
  while (std::fgets(line, sizeof line, pipe) != nullptr) {
    std::string text(line);
    const auto equals = text.find('=');
    if (equals == std::string::npos)
      continue;
    const std::string key = text.substr(0, equals);
    std::istringstream value(text.substr(equals + 1));
    if (key == "codec_name")
      value >> info.codec;
    else if (key == "width")
      value >> info.width;
    else if (key == "height")
      value >> info.height;
    else if (key == "nb_read_frames")
      value >> info.frames;
    else if (key == "duration")
      value >> info.durationS;
  }
  ::pclose(pipe);
  return info;
}

/// Calls `frame` with each frame of `path` in order (RGB, rows top-down, width x height);
/// returns how many there were.
inline long forEachFrame(
    const std::string& path, int width, int height,
    const std::function<void(long index, const std::vector<unsigned char>&)>& frame) {
  const std::string command = "ffmpeg -v error -i '" + path + "' -f rawvideo -pix_fmt rgb24 -";
  FILE* pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr)
    return 0;
  std::vector<unsigned char> rgb(3 * static_cast<std::size_t>(width) *
                                 static_cast<std::size_t>(height));
  long n = 0;
  while (std::fread(rgb.data(), 1, rgb.size(), pipe) == rgb.size())
    frame(n++, rgb);
  ::pclose(pipe);
  return n;
}

}  // namespace krtest
