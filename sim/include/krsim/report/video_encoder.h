#pragma once
// VideoEncoder: pictures into an H.264 video in an MP4 file, one frame at a time, with
// FFmpeg's libraries (libx264 through libavcodec, the MP4 muxer of libavformat, the RGB to
// YUV 4:2:0 conversion of libswscale). A frame is converted and handed to the encoder as it
// comes; the encoder's own look-ahead is all that is held, so memory does not grow with the
// length of the video.
//
// The file is complete (playable, its index written) after finish(), and also when the
// encoder is destroyed without it, e.g. while an exception leaves a run: the destructor
// finishes the file and logs what failed instead of throwing.

#include <memory>
#include <string>

namespace KR {
namespace Sim {

class VideoEncoder {
 public:
  /// The order of the rows handed to addFrame(), of 3 bytes (R, G, B) a pixel.
  enum class Rows {
    TopDown,   // first row at the top (as a PNG)
    BottomUp,  // first row at the bottom (as OpenGL reads them)
  };

  struct Settings {
    int width = 1280;  // even, 16 to 4096 [pixels]
    int height = 720;  // even, 16 to 4096 [pixels]
    int fps = 30;      // frames per second of the video, 1 to 240
    int crf = 23;      // libx264 constant rate factor: 0 (lossless) to 51, lower is better
    std::string preset = "veryfast";  // libx264's speed against size trade-off
  };

  /// Opens `path` for writing and the encoder. KRError("krsim", "video", ...) for settings out
  /// of range, a file that cannot be created, or an FFmpeg without libx264.
  VideoEncoder(const std::string& path, const Settings& settings);
  ~VideoEncoder();
  VideoEncoder(const VideoEncoder&) = delete;
  VideoEncoder& operator=(const VideoEncoder&) = delete;

  /// Encodes the next frame, shown for 1/fps seconds after the previous one. `rgb` holds
  /// width x height pixels, rows without padding in the order `rows`.
  void addFrame(const unsigned char* rgb, Rows rows);
  /// Drains the encoder and writes the MP4 index; nothing may be added afterwards. KRError
  /// when the file cannot be completed. Called again, does nothing.
  void finish();

  int frames() const;
  const Settings& settings() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> fImpl;
};

}  // namespace Sim
}  // namespace KR
