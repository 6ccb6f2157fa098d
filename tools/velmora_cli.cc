// velmora: the add-in's command-line client. Sends one request over the
// add-in's request port and prints the reply as JSON.
#include <getopt.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "archive/archive.h"
#include "messaging/port_client.h"
#include "messaging/protocol.h"
#include "reply_json.h"

namespace {

using namespace velmora;
using Bytes = std::vector<uint8_t>;

constexpr int kExitFailure = 1;
constexpr int kExitNoAddin = 2;

const char kUsage[] = R"(usage: velmora [--timeout S] [--port NAME] <command> [options]

commands:
  status                         is the vision library installed (request 1)
  fonts                          the installed OCR font families (request 102)
  ocr <image> [attributes] [--draw out.png]
                                 read the text of an image (request 101)
  preview <image> -o out.tif [attributes]
                                 the binarized text region the OCR sees (request 103)
  decode <image> [--kind datamatrix|qr|microqr|barcode|N]
                                 read a 2D code or bar code (request 111)
  quit                           end the add-in (request 9999)
  stereo-start --frame x,y,w,h   start a stereo reconstruction ('3DM1')
  stereo-stop                    end it ('3DM2')
  send <msgid> <file> [--envelope]
                                 send a file's bytes as one message; msgid is a
                                 number or a four-character code such as data

attributes (without any, the add-in uses its defaults):
  --font NAME --proc N --format S --match S --by-number --by-format
  --letters N --reverse --stretch-width F --stretch-height F --black-level N
  --text-window (read only a window around the text line found in the image)

Images may be PNG, JPEG, TIFF or BMP. --timeout is the receive timeout in
seconds (default 30). Exit codes: 0 done, 1 failed or no reply, 2 add-in not running.
)";

struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct Settings {
  std::string port = kRequestPortName;
  double timeout = kLongReceiveTimeoutSeconds;
};

// Sends and reports transport failures; nullopt after a failure was printed.
struct Exchange {
  int status = 0;
  PortReply reply;
};

Exchange Send(const Settings& s, int32_t msgid, const Bytes& data) {
  PortSendOptions options;
  options.receive_timeout = s.timeout;
  Exchange e;
  e.status = SendPortRequest(s.port, msgid, data.data(), data.size(), options, &e.reply);
  return e;
}

int ReportFailure(const Settings& s, int status) {
  switch (status) {
    case kPortSendTimeout:
      std::fprintf(stderr, "velmora: the add-in is not running (no port \"%s\")\n", s.port.c_str());
      return kExitNoAddin;
    case kPortReceiveTimeout:
      std::fprintf(stderr, "velmora: no answer within %.1f s\n", s.timeout);
      return kExitFailure;
    default:
      std::fprintf(stderr, "velmora: the exchange with the add-in failed (status %d)\n", status);
      return kExitFailure;
  }
}

archive::ObjectPtr LoadImage(const std::string& path) {
  Bytes bytes = archive::ReadFileBytes(path);
  if (archive::IsTiff(bytes.data(), bytes.size())) return archive::MakeImageFromTiff(std::move(bytes));
  return archive::MakeImage(archive::DecodeImageFile(bytes));
}

Bytes DataRequest(uint64_t number, archive::ObjectPtr image = nullptr, archive::ObjectPtr attribute = nullptr) {
  auto request = archive::MakeDictionary();
  request->Set("messageId", archive::MakeInt64(static_cast<int64_t>(number)));
  if (image) request->Set("image", std::move(image));
  if (attribute) request->Set("attribute", std::move(attribute));
  return Envelope(archive::Archive(request));
}

double ParseNumber(const char* text, const char* what) {
  char* end = nullptr;
  errno = 0;
  const double v = std::strtod(text, &end);
  if (errno || end == text || *end) throw UsageError(std::string("bad number for ") + what + ": " + text);
  return v;
}

int64_t ParseInt(const char* text, const char* what) {
  char* end = nullptr;
  errno = 0;
  const long long v = std::strtoll(text, &end, 0);
  if (errno || end == text || *end) throw UsageError(std::string("bad integer for ") + what + ": " + text);
  return v;
}

int32_t ParseMessageId(const std::string& text) {
  if (text.size() == 4 && !std::isdigit(static_cast<unsigned char>(text[0]))) {
    const char code[5] = {text[0], text[1], text[2], text[3], 0};
    return FourCharCode(code);
  }
  return static_cast<int32_t>(ParseInt(text.c_str(), "message id"));
}

// Options of one subcommand; the attribute dictionary stays null unless an
// attribute option is given, so that the add-in applies its own defaults.
struct Options {
  std::vector<std::string> positional;
  std::shared_ptr<archive::Dictionary> attribute;
  std::string draw, output, kind, frame;
  bool envelope = false;

  archive::Dictionary& Attr() {
    if (!attribute) attribute = archive::MakeDictionary();
    return *attribute;
  }
};

Options ParseOptions(int argc, char** argv) {
  enum {
    kFont = 256, kProc, kFormat, kMatch, kByNumber, kByFormat, kLetters, kReverse, kStretchW,
    kStretchH, kBlack, kDraw, kKind, kFrame, kEnvelope, kTextWindow,
  };
  static const option longs[] = {
      {"font", required_argument, nullptr, kFont},
      {"proc", required_argument, nullptr, kProc},
      {"format", required_argument, nullptr, kFormat},
      {"match", required_argument, nullptr, kMatch},
      {"by-number", no_argument, nullptr, kByNumber},
      {"by-format", no_argument, nullptr, kByFormat},
      {"letters", required_argument, nullptr, kLetters},
      {"reverse", no_argument, nullptr, kReverse},
      {"stretch-width", required_argument, nullptr, kStretchW},
      {"stretch-height", required_argument, nullptr, kStretchH},
      {"black-level", required_argument, nullptr, kBlack},
      {"draw", required_argument, nullptr, kDraw},
      {"kind", required_argument, nullptr, kKind},
      {"frame", required_argument, nullptr, kFrame},
      {"envelope", no_argument, nullptr, kEnvelope},
      {"text-window", no_argument, nullptr, kTextWindow},
      {nullptr, 0, nullptr, 0},
  };
  Options o;
  optind = 1;
  opterr = 0;
  int c;
  while ((c = getopt_long(argc, argv, "-o:", longs, nullptr)) != -1) {
    switch (c) {
      case 1: o.positional.emplace_back(optarg); break;
      case 'o': o.output = optarg; break;
      case kFont: o.Attr().Set("fontName", archive::MakeString(optarg)); break;
      case kProc: o.Attr().Set("ocr_proc", archive::MakeInt64(ParseInt(optarg, "--proc"))); break;
      case kFormat: o.Attr().Set("format_string", archive::MakeString(optarg)); break;
      case kMatch: o.Attr().Set("match_string", archive::MakeString(optarg)); break;
      case kByNumber: o.Attr().Set("recognize_by_number", archive::MakeBool(true)); break;
      case kByFormat: o.Attr().Set("recognize_by_format", archive::MakeBool(true)); break;
      case kLetters: o.Attr().Set("number_of_letters", archive::MakeInt64(ParseInt(optarg, "--letters"))); break;
      case kReverse: o.Attr().Set("check_reverse", archive::MakeBool(true)); break;
      case kStretchW:
        o.Attr().Set("stretch_width_level", archive::MakeFloat(static_cast<float>(ParseNumber(optarg, "--stretch-width"))));
        break;
      case kStretchH:
        o.Attr().Set("stretch_height_level", archive::MakeFloat(static_cast<float>(ParseNumber(optarg, "--stretch-height"))));
        break;
      case kBlack: o.Attr().Set("black_level", archive::MakeInt64(ParseInt(optarg, "--black-level"))); break;
      case kDraw: o.draw = optarg; break;
      case kKind: o.kind = optarg; break;
      case kFrame: o.frame = optarg; break;
      case kEnvelope: o.envelope = true; break;
      case kTextWindow: o.Attr().Set("text_window", archive::MakeBool(true)); break;
      default: throw UsageError(std::string("unknown or incomplete option ") + argv[optind - 1]);
    }
  }
  return o;
}

void PrintJson(const archive::ObjectPtr& object) { std::printf("%s\n", ToJson(object).c_str()); }

// The archive inside an enveloped reply; prints and fails on anything else.
std::optional<archive::ObjectPtr> EnvelopedArchive(const PortReply& reply) {
  if (!reply.present) {
    std::fprintf(stderr, "velmora: the add-in gave no reply\n");
    return std::nullopt;
  }
  const std::optional<Bytes> body = EnvelopeBody(reply.data);
  if (!body) {
    std::fprintf(stderr, "velmora: the reply has no envelope\n");
    return std::nullopt;
  }
  if (body->empty()) return archive::ObjectPtr{};  // header only: the service returned nothing
  return archive::Unarchive(*body);
}

void DrawResult(const std::string& input, const archive::ObjectPtr& result, const std::string& output) {
  cv::Mat canvas = cv::imread(input, cv::IMREAD_COLOR);
  if (canvas.empty()) throw std::runtime_error("cannot read " + input + " for drawing");
  const auto records = archive::AsArray(result);
  const cv::Scalar colours[] = {{0, 0, 255}, {255, 128, 0}};
  for (size_t r = 0; records && r < records->items.size(); ++r) {
    const auto rects = archive::AsArray(archive::ReadObject(records->items[r], "ocr_rect"));
    const std::string text = archive::ReadString(records->items[r], "ocr_text").value_or("");
    const cv::Scalar colour = colours[r % 2];
    for (size_t i = 0; rects && i < rects->items.size(); ++i) {
      const auto data = archive::AsData(rects->items[i]);
      if (!data || data->bytes.size() != 8) continue;
      int16_t v[4];
      for (int k = 0; k < 4; ++k) v[k] = static_cast<int16_t>(data->bytes[2 * k] | (data->bytes[2 * k + 1] << 8));
      // top, left, bottom, right, with bottom and right inclusive
      cv::rectangle(canvas, cv::Point(v[1], v[0]), cv::Point(v[3], v[2]), colour, 1);
      if (i < text.size()) {
        cv::putText(canvas, std::string(1, text[i]), cv::Point(v[1], std::max(12, v[0] - 4)),
                    cv::FONT_HERSHEY_SIMPLEX, 0.6, colour, 2);
      }
    }
  }
  if (!cv::imwrite(output, canvas)) throw std::runtime_error("cannot write " + output);
}

int Run(int argc, char** argv) {
  Settings s;
  int i = 1;
  for (; i < argc && argv[i][0] == '-'; ++i) {
    const std::string flag = argv[i];
    if (flag == "-h" || flag == "--help") {
      std::fputs(kUsage, stdout);
      return 0;
    }
    if (i + 1 >= argc) throw UsageError("missing value for " + flag);
    if (flag == "--timeout") s.timeout = ParseNumber(argv[++i], "--timeout");
    else if (flag == "--port") s.port = argv[++i];
    else throw UsageError("unknown option " + flag);
  }
  if (i >= argc) throw UsageError("missing command");
  const std::string command = argv[i];
  Options o = ParseOptions(argc - i, argv + i);
  auto need = [&](size_t n) {
    if (o.positional.size() != n) throw UsageError(command + ": wrong number of arguments");
  };

  if (command == "status" || command == "fonts" || command == "quit") {
    need(0);
    const uint64_t number = command == "status" ? RequestLibraryStatus
                            : command == "fonts" ? RequestInstalledFonts
                                                 : RequestTerminate;
    const Exchange e = Send(s, MessageIdData, DataRequest(number));
    if (e.status != kPortSuccess) return ReportFailure(s, e.status);
    const auto result = EnvelopedArchive(e.reply);
    if (!result) return kExitFailure;
    PrintJson(*result);
    return 0;
  }
  if (command == "ocr" || command == "decode") {
    need(1);
    archive::ObjectPtr attribute = o.attribute;
    uint64_t number = RequestOcrImage;
    if (command == "decode") {
      number = RequestDecodeImage;
      if (!o.kind.empty()) {
        static const std::map<std::string, int64_t> kinds = {
            {"barcode", 0}, {"datamatrix", 1}, {"qr", 2}, {"microqr", 3}};
        const auto it = kinds.find(o.kind);
        auto dict = archive::MakeDictionary();
        dict->Set("decode", archive::MakeInt64(it != kinds.end() ? it->second : ParseInt(o.kind.c_str(), "--kind")));
        attribute = dict;
      }
    }
    const Exchange e = Send(s, MessageIdData, DataRequest(number, LoadImage(o.positional[0]), attribute));
    if (e.status != kPortSuccess) return ReportFailure(s, e.status);
    const auto result = EnvelopedArchive(e.reply);
    if (!result) return kExitFailure;
    PrintJson(*result);
    if (!o.draw.empty()) DrawResult(o.positional[0], *result, o.draw);
    return 0;
  }
  if (command == "preview") {
    need(1);
    if (o.output.empty()) throw UsageError("preview: -o out.tif is required");
    const Exchange e = Send(s, MessageIdData, DataRequest(RequestOcrFilteredImage, LoadImage(o.positional[0]), o.attribute));
    if (e.status != kPortSuccess) return ReportFailure(s, e.status);
    if (!e.reply.present) {
      std::fprintf(stderr, "velmora: the add-in gave no preview\n");
      return kExitFailure;
    }
    const std::optional<Bytes> tiff = EnvelopeBody(e.reply.data);
    if (!tiff) {
      std::fprintf(stderr, "velmora: the reply has no envelope\n");
      return kExitFailure;
    }
    std::ofstream out(o.output, std::ios::binary);
    out.write(reinterpret_cast<const char*>(tiff->data()), static_cast<std::streamsize>(tiff->size()));
    if (!out) throw std::runtime_error("cannot write " + o.output);
    std::printf("{\"preview\": \"%s\", \"bytes\": %zu}\n", o.output.c_str(), tiff->size());
    return 0;
  }
  if (command == "stereo-start") {
    need(0);
    double f[4];
    if (std::sscanf(o.frame.c_str(), "%lf,%lf,%lf,%lf", &f[0], &f[1], &f[2], &f[3]) != 4)
      throw UsageError("stereo-start: --frame x,y,w,h is required");
    auto parameters = archive::MakeDictionary();
    parameters->Set(Stereo_Reconstruct_WindowFrame, archive::MakeRect(f[0], f[1], f[2], f[3]));
    const Exchange e = Send(s, MessageIdStereoStart, archive::Archive(parameters));
    if (e.status != kPortSuccess) return ReportFailure(s, e.status);
    if (!e.reply.present) {
      std::fprintf(stderr, "velmora: the add-in gave no reply\n");
      return kExitFailure;
    }
    PrintJson(archive::Unarchive(e.reply.data));
    return 0;
  }
  if (command == "stereo-stop") {
    need(0);
    const Exchange e = Send(s, MessageIdStereoClose, {});
    if (e.status != kPortSuccess) return ReportFailure(s, e.status);
    return 0;
  }
  if (command == "send") {
    need(2);
    const int32_t msgid = ParseMessageId(o.positional[0]);
    Bytes data = archive::ReadFileBytes(o.positional[1]);
    if (o.envelope) data = Envelope(data);
    const Exchange e = Send(s, msgid, data);
    if (e.status != kPortSuccess) return ReportFailure(s, e.status);
    if (!e.reply.present) {
      std::fprintf(stderr, "velmora: no reply\n");
      return kExitFailure;
    }
    // Decode what can be decoded: an envelope, then an archive; else raw base64.
    Bytes body = e.reply.data;
    bool enveloped = false;
    if (auto inner = EnvelopeBody(body)) {
      body = std::move(*inner);
      enveloped = true;
    }
    std::string json;
    try {
      json = ToJson(archive::Unarchive(body));
    } catch (const archive::ArchiveError&) {
      json = "{\"bytes\": \"" + Base64(body.data(), body.size()) + "\"}";
    }
    std::printf("{\"envelope\": %s, \"reply\": %s}\n", enveloped ? "true" : "false", json.c_str());
    return 0;
  }
  throw UsageError("unknown command " + command);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const UsageError& e) {
    std::fprintf(stderr, "velmora: %s\n%s", e.what(), kUsage);
    return kExitFailure;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "velmora: %s\n", e.what());
    return kExitFailure;
  }
}
