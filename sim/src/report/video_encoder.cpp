#include <krsim/report/video_encoder.h>

#include <cstdarg>
#include <mutex>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/error.h>
#include <libavutil/log.h>
#include <libavutil/opt.h>
#include <libswscale/swscale.h>
}

#include <ko/log.h>
#include <kr/error.h>

namespace KR {
namespace Sim {

namespace {

[[noreturn]] void fail(const std::string& what) {
  throw KRError("krsim", "video", what);
}

std::string errorText(int code) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(code, text, sizeof text);
  return text;
}

// FFmpeg's warnings and errors go to our log; its progress and statistics (libx264 prints
// them at the "info" level) are dropped, so that the terminal shows the run's own lines.
void routeFfmpegLog() {
  static std::once_flag once;
  std::call_once(once, [] {
    av_log_set_callback([](void* object, int level, const char* format, va_list args) {
      if (level > AV_LOG_WARNING)
        return;
      char line[512];
      int prefix = 1;
      av_log_format_line2(object, level, format, args, line, sizeof line, &prefix);
      ko::log::warning("krsim.video", "FFmpeg", line);
    });
  });
}

struct OutputDeleter {
  void operator()(AVFormatContext* f) const {
    if (f->pb != nullptr)
      avio_closep(&f->pb);
    avformat_free_context(f);
  }
};
struct CodecDeleter {
  void operator()(AVCodecContext* c) const { avcodec_free_context(&c); }
};
struct FrameDeleter {
  void operator()(AVFrame* f) const { av_frame_free(&f); }
};
struct PacketDeleter {
  void operator()(AVPacket* p) const { av_packet_free(&p); }
};
struct ScaleDeleter {
  void operator()(SwsContext* s) const { sws_freeContext(s); }
};

void checkSettings(const VideoEncoder::Settings& s) {
  auto even = [](int v) { return v >= 16 && v <= 4096 && v % 2 == 0; };
  if (!even(s.width) || !even(s.height)) {
    fail("a video is 16x16 to 4096x4096 pixels, even sizes, not " + std::to_string(s.width) + "x" +
         std::to_string(s.height));
  }
  if (s.fps < 1 || s.fps > 240)
    fail("a video has 1 to 240 frames per second, not " + std::to_string(s.fps));
  if (s.crf < 0 || s.crf > 51)
    fail("the quality (crf) is 0 to 51, not " + std::to_string(s.crf));
}

}  // namespace

struct VideoEncoder::Impl {
  Settings settings;
  std::string path;
  std::unique_ptr<AVFormatContext, OutputDeleter> output;
  std::unique_ptr<AVCodecContext, CodecDeleter> codec;
  std::unique_ptr<AVFrame, FrameDeleter> frame;
  std::unique_ptr<AVPacket, PacketDeleter> packet;
  std::unique_ptr<SwsContext, ScaleDeleter> scale;  // RGB to YUV 4:2:0
  AVStream* stream = nullptr;
  int frames = 0;
  bool finished = false;

  void openCodec();
  void openFile();
  /// Sends `f` (null: end of stream) and writes every packet the encoder has ready.
  void encode(const AVFrame* f);
};

void VideoEncoder::Impl::openCodec() {
  const AVCodec* x264 = avcodec_find_encoder_by_name("libx264");
  if (x264 == nullptr)
    fail("this FFmpeg has no libx264 encoder (Debian's libavcodec59 has it)");
  codec.reset(avcodec_alloc_context3(x264));
  frame.reset(av_frame_alloc());
  packet.reset(av_packet_alloc());
  if (!codec || !frame || !packet)
    fail("out of memory opening the encoder");
  AVCodecContext& c = *codec;
  c.width = settings.width;
  c.height = settings.height;
  c.time_base = AVRational{1, settings.fps};
  c.framerate = AVRational{settings.fps, 1};
  c.pix_fmt = AV_PIX_FMT_YUV420P;
  c.gop_size = 2 * settings.fps;  // a key frame every 2 s, to seek in a player
  // Rec. 709, limited range: what players assume for HD video and what the converter writes.
  c.colorspace = AVCOL_SPC_BT709;
  c.color_primaries = AVCOL_PRI_BT709;
  c.color_trc = AVCOL_TRC_BT709;
  c.color_range = AVCOL_RANGE_MPEG;
  if (output->oformat->flags & AVFMT_GLOBALHEADER)
    c.flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  av_opt_set(c.priv_data, "preset", settings.preset.c_str(), 0);
  av_opt_set_int(c.priv_data, "crf", settings.crf, 0);
  int rc = avcodec_open2(&c, x264, nullptr);
  if (rc < 0)
    fail("cannot open the H.264 encoder: " + errorText(rc));

  frame->format = c.pix_fmt;
  frame->width = c.width;
  frame->height = c.height;
  rc = av_frame_get_buffer(frame.get(), 0);
  if (rc < 0)
    fail("cannot allocate a frame: " + errorText(rc));
  scale.reset(sws_getContext(c.width, c.height, AV_PIX_FMT_RGB24, c.width, c.height,
                             AV_PIX_FMT_YUV420P, SWS_BILINEAR, nullptr, nullptr, nullptr));
  if (!scale)
    fail("cannot convert RGB to YUV");
  // Full-range RGB in, Rec. 709 limited range out, as the codec's colour tags say.
  sws_setColorspaceDetails(scale.get(), sws_getCoefficients(SWS_CS_DEFAULT), 1,
                           sws_getCoefficients(SWS_CS_ITU709), 0, 0, 1 << 16, 1 << 16);
}

void VideoEncoder::Impl::openFile() {
  stream = avformat_new_stream(output.get(), nullptr);
  if (stream == nullptr)
    fail("cannot add a stream to the video '" + path + "'");
  stream->time_base = codec->time_base;
  int rc = avcodec_parameters_from_context(stream->codecpar, codec.get());
  if (rc < 0)
    fail("cannot describe the stream: " + errorText(rc));
  rc = avio_open(&output->pb, path.c_str(), AVIO_FLAG_WRITE);
  if (rc < 0)
    fail("cannot write the video '" + path + "': " + errorText(rc));
  rc = avformat_write_header(output.get(), nullptr);
  if (rc < 0)
    fail("cannot write the video '" + path + "': " + errorText(rc));
}

void VideoEncoder::Impl::encode(const AVFrame* f) {
  int rc = avcodec_send_frame(codec.get(), f);
  if (rc < 0)
    fail("cannot encode a frame of the video '" + path + "': " + errorText(rc));
  while ((rc = avcodec_receive_packet(codec.get(), packet.get())) >= 0) {
    if (packet->duration == 0)
      packet->duration = 1;  // one frame, in the codec's time base
    av_packet_rescale_ts(packet.get(), codec->time_base, stream->time_base);
    packet->stream_index = stream->index;
    rc = av_interleaved_write_frame(output.get(), packet.get());
    if (rc < 0)
      fail("cannot write the video '" + path + "': " + errorText(rc));
  }
  if (rc != AVERROR(EAGAIN) && rc != AVERROR_EOF)
    fail("cannot encode a frame of the video '" + path + "': " + errorText(rc));
}

VideoEncoder::VideoEncoder(const std::string& path, const Settings& settings)
    : fImpl(std::make_unique<Impl>()) {
  checkSettings(settings);
  routeFfmpegLog();
  Impl& v = *fImpl;
  v.settings = settings;
  v.path = path;
  AVFormatContext* output = nullptr;
  const int rc = avformat_alloc_output_context2(&output, nullptr, "mp4", path.c_str());
  if (rc < 0 || output == nullptr)
    fail("cannot open an MP4 file: " + errorText(rc));
  v.output.reset(output);
  v.openCodec();
  v.openFile();
}

VideoEncoder::~VideoEncoder() {
  if (fImpl->finished || !fImpl->output || fImpl->output->pb == nullptr)
    return;
  try {
    finish();
  } catch (const std::exception& e) {
    ko::log::error("krsim.video", "VideoEncoder", e.what());
  }
}

void VideoEncoder::addFrame(const unsigned char* rgb, Rows rows) {
  Impl& v = *fImpl;
  if (v.finished)
    fail("the video '" + v.path + "' is finished, no frame can be added");
  const int rc = av_frame_make_writable(v.frame.get());
  if (rc < 0)
    fail("cannot write into a frame: " + errorText(rc));
  const int stride = 3 * v.settings.width;
  const uint8_t* first[1] = {rgb};
  int strides[1] = {stride};
  if (rows == Rows::BottomUp) {
    // The top row is the last one: walk up from it.
    first[0] = rgb + static_cast<std::ptrdiff_t>(stride) * (v.settings.height - 1);
    strides[0] = -stride;
  }
  sws_scale(v.scale.get(), first, strides, 0, v.settings.height, v.frame->data, v.frame->linesize);
  v.frame->pts = v.frames++;
  v.encode(v.frame.get());
}

void VideoEncoder::finish() {
  Impl& v = *fImpl;
  if (v.finished)
    return;
  v.finished = true;  // whatever happens below, the file is not written again
  v.encode(nullptr);
  const int rc = av_write_trailer(v.output.get());
  const int closed = avio_closep(&v.output->pb);
  if (rc < 0 || closed < 0)
    fail("cannot complete the video '" + v.path + "': " + errorText(rc < 0 ? rc : closed));
}

int VideoEncoder::frames() const {
  return fImpl->frames;
}

const VideoEncoder::Settings& VideoEncoder::settings() const {
  return fImpl->settings;
}

}  // namespace Sim
}  // namespace KR
