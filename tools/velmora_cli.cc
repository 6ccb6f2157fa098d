// velmora: the add-in's command-line client. Sends one request over the
// add-in's request port and prints the reply as JSON.
#include <getopt.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "archive/archive.h"
#include "image_input.h"
#include "messaging/port_client.h"
#include "messaging/protocol.h"
#include "reply_json.h"

namespace {

using namespace velmora;
using Bytes = std::vector<uint8_t>;

// Exit codes.
constexpr int kExitRead = 0;       // the add-in answered and something was read
constexpr int kExitFailure = 1;    // an error, or no reply
constexpr int kExitNoAddin = 2;    // the add-in is not running
constexpr int kExitNothing = 3;    // the add-in answered, but read nothing
constexpr int kExitUsage = 64;     // the command line is wrong (EX_USAGE)

const char kUsage[] = R"(usage: velmora [global options] <command> [options]

commands:
  status        is the vision library installed (request 1)
  fonts         the OCR font families the add-in offers (request 102)
  ocr           read the text of an image (request 101)
  preview       the binarized text region the OCR sees, as TIFF (request 103)
  decode        read a 2D code or bar code (request 111)
  quit          end the add-in (request 9999)
  stereo-start  start a stereo reconstruction in a window ('3DM1')
  stereo-stop   end it and close its window ('3DM2')
  send          send a file's bytes as one raw message
  help [CMD]    this text, or the help of one command

global options (accepted anywhere on the line):
  --timeout S   seconds to wait for the answer (default 30; more than 0)
  --port NAME   talk to another port (default jp.co.velmora.Addin71R.message)
  --compact     print JSON on one line (default: indented)
  -h, --help    help (of the command, when one is given)

Exit codes: 0 the add-in answered and something was read (or done),
3 it answered but nothing was read, 1 an error or no reply, 2 the add-in is
not running, 64 a usage error. `velmora help CMD` explains each command.
)";

const char kAttributeHelp[] = R"(
attribute options (without any, no attribute dictionary is sent and the
add-in applies its defaults: Industrial, procedure 0, reading by format):
  --font NAME         font family: Industrial, Document, DotPrint, OCRA, OCRB
                      (`velmora fonts`). When another attribute option is given
                      without --font, "Industrial" is sent (and said on stderr),
                      since an attribute dictionary without a font reads nothing.
  --proc 0|1          recognition procedure. 0: one candidate per character,
                      --match gives the expected length, --reverse allowed.
                      1: ten candidates per character, --letters gives the
                      expected length, --by-format chooses whether the format
                      string is applied.
  --format S          one format character per character position:
                        $  a digit (digits classifier)
                        ?  a letter (letters classifier, letters only)
                        @  a letter or special (letters classifier)
                        +  a special character such as - + : (letters
                           classifier, non-alphanumeric candidates only)
                        #  any character (full classifier)
                      any other character is taken literally at that position
                      (for example "$$-$$" puts "-" in the middle).
  --match S           the expected text; with --proc 0 and --by-number only its
                      length is used, as the expected number of characters.
  --by-number         enforce the expected number of characters: a line that
                      segments into another count is cut into equal columns.
  --by-format         with --proc 1: apply the format string (procedure 0
                      always applies it).
  --letters N         the expected number of characters; only read with
                      --proc 1 --by-number, so it requires both.
  --reverse           with --proc 0: also read the image turned by 180 degrees.
  --stretch-width F   horizontal stretch before reading (more than 0; 1 = none).
  --stretch-height F  vertical stretch (preview only; more than 0).
  --black-level N     moves the text threshold by 10 grey levels per unit:
                      dark print below 80 + 10 x N is text. -8 to 17.
  --text-window       find the text line in the whole image and read only a
                      window around it (boxes stay in the image's coordinates);
                      for a small marking in a whole camera frame.
)";

const std::map<std::string, std::string> kCommandHelp = {
    {"status", R"(usage: velmora status
Asks whether the add-in found its vision library (request 1) and prints
{"isHalconExist": true|false}. Exit 0 when it answered.
)"},
    {"fonts", R"(usage: velmora fonts
Lists the OCR font families the add-in offers (request 102). Exit 0 when the
list is not empty, 3 when it is.
)"},
    {"ocr", std::string(R"(usage: velmora ocr <image> [attribute options] [--draw out.png]
Reads one line of text (request 101) and prints the text records: "ocr_text",
"ocr_rect" (top, left, bottom, right per character), "ocr_confidences" (up to
5 candidates per character, best first, rounded to 4 decimals), "ocr_angle".
The image (PNG, JPEG, BMP or TIFF of any layout: grey, 16-bit, palette,
planar, with or without alpha) is sent as an 8-bit RGBA bitmap.
  --draw out.png      also draw the character boxes and text onto a copy.
Exit 0 when text was read, 3 when nothing was.
)") + kAttributeHelp},
    {"preview", std::string(R"(usage: velmora preview <image> -o out.tif [attribute options]
Writes the binarized text region the OCR sees (request 103) to out.tif.
Exit 0 when a preview came back, 3 when the add-in had none to give (it then
answers without a reply block).
)") + kAttributeHelp},
    {"decode", R"(usage: velmora decode <image> [--kind KIND]
Reads one 2D code or bar code (request 111) and prints {"decode_text": ...}.
  --kind KIND   barcode or auto (0, the default: bar codes, Code 39 and other
                linear codes), datamatrix (1), qr (2), microqr (3), or any:
                try Data Matrix, QR, Micro QR and bar codes in turn, stopping
                at the first that reads, and add "kind" to the output.
Exit 0 when a code was read, 3 when none was.
)"},
    {"quit", R"(usage: velmora quit
Asks the add-in to end (request 9999); it answers {} first.
)"},
    {"stereo-start", R"(usage: velmora stereo-start --frame x,y,w,h
Asks the add-in to start a stereo reconstruction ('3DM1') in a window at x,y
of size w x h (w and h more than 0). The add-in acknowledges every start with
{"Stereo_Reconstruct_ErrorResult": -100}, whether or not the job could start;
the result is shown in its window only.
)"},
    {"stereo-stop", R"(usage: velmora stereo-stop
Asks the add-in to end the current stereo reconstruction and close its window
('3DM2'). The add-in sends no reply to this message.
)"},
    {"send", R"(usage: velmora send <msgid> <file> [--envelope]
Sends the file's bytes as one message and prints {"envelope": bool,
"reply": ...}, decoding the reply's envelope and archive when it has them.
  msgid        a four-character code (data, 3DM1, 3DM2) or a number
  --envelope   put the 8-byte 'ocr_' envelope before the bytes
Exit 0 when a reply came, 1 when none did.
)"},
    {"help", R"(usage: velmora help [command]
)"},
};

struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

[[noreturn]] void Usage(const std::string& what) { throw UsageError(what); }

// ---- the command line ----------------------------------------------------------

struct CommandLine {
  std::string command;
  std::vector<std::string> positional;
  std::string port = kRequestPortName;
  double timeout = kLongReceiveTimeoutSeconds;
  bool compact = false;
  bool help = false;
  std::shared_ptr<archive::Dictionary> attribute;  // null unless an attribute option is given
  std::set<std::string> given;                     // options given, by name
  std::string draw, output, kind, frame;
  bool envelope = false;

  archive::Dictionary& Attr() {
    if (!attribute) attribute = archive::MakeDictionary();
    return *attribute;
  }
};

double ParseReal(const std::string& text, const std::string& what) {
  char* end = nullptr;
  errno = 0;
  const double v = std::strtod(text.c_str(), &end);
  if (errno || end == text.c_str() || *end || !std::isfinite(v))
    Usage(what + " needs a number, not \"" + text + "\"");
  return v;
}

double ParsePositive(const std::string& text, const std::string& what) {
  const double v = ParseReal(text, what);
  if (!(v > 0)) Usage(what + " must be more than 0, not " + text);
  return v;
}

int64_t ParseInt(const std::string& text, const std::string& what, int64_t lo, int64_t hi) {
  char* end = nullptr;
  errno = 0;
  const long long v = std::strtoll(text.c_str(), &end, 10);
  if (errno || end == text.c_str() || *end) Usage(what + " needs a whole number, not \"" + text + "\"");
  if (v < lo || v > hi)
    Usage(what + " must be between " + std::to_string(lo) + " and " + std::to_string(hi) + ", not " + text);
  return v;
}

// A four-character code (any four characters but four digits, so '3DM1'
// works) or a decimal number.
int32_t ParseMessageId(const std::string& text) {
  bool digits = !text.empty();
  for (const char ch : text) digits &= ch >= '0' && ch <= '9';
  if (text.size() == 4 && !digits) {
    const char code[5] = {text[0], text[1], text[2], text[3], 0};
    return FourCharCode(code);
  }
  if (text.size() > 1 && text[0] == '-' ) return static_cast<int32_t>(ParseInt(text, "the message id", INT32_MIN, INT32_MAX));
  if (!digits) Usage("the message id must be a four-character code such as data or 3DM1, or a number, not \"" + text + "\"");
  return static_cast<int32_t>(ParseInt(text, "the message id", 0, UINT32_MAX));
}

CommandLine Parse(int argc, char** argv) {
  enum {
    kTimeout = 256, kPort, kCompact, kFont, kProc, kFormat, kMatch, kByNumber, kByFormat, kLetters,
    kReverse, kStretchW, kStretchH, kBlack, kDraw, kKind, kFrame, kEnvelope, kTextWindow,
  };
  static const option longs[] = {
      {"timeout", required_argument, nullptr, kTimeout},
      {"port", required_argument, nullptr, kPort},
      {"compact", no_argument, nullptr, kCompact},
      {"help", no_argument, nullptr, 'h'},
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
  CommandLine cl;
  optind = 1;
  opterr = 0;
  int c, index = -1;
  // "-" keeps positional arguments in place, so options may come anywhere.
  while ((c = getopt_long(argc, argv, "-:ho:", longs, &index)) != -1) {
    if (c >= kFont) cl.given.insert(longs[index].name);
    if (c == 'o') cl.given.insert("o");
    switch (c) {
      case 1:
        if (cl.command.empty()) cl.command = optarg;
        else cl.positional.emplace_back(optarg);
        break;
      case 'h': cl.help = true; break;
      case 'o': cl.output = optarg; break;
      case kTimeout: cl.timeout = ParsePositive(optarg, "--timeout"); break;
      case kPort: cl.port = optarg; break;
      case kCompact: cl.compact = true; break;
      case kFont: cl.Attr().Set("fontName", archive::MakeString(optarg)); break;
      case kProc: cl.Attr().Set("ocr_proc", archive::MakeInt64(ParseInt(optarg, "--proc", 0, 1))); break;
      case kFormat: cl.Attr().Set("format_string", archive::MakeString(optarg)); break;
      case kMatch: cl.Attr().Set("match_string", archive::MakeString(optarg)); break;
      case kByNumber: cl.Attr().Set("recognize_by_number", archive::MakeBool(true)); break;
      case kByFormat: cl.Attr().Set("recognize_by_format", archive::MakeBool(true)); break;
      case kLetters:
        cl.Attr().Set("number_of_letters", archive::MakeInt64(ParseInt(optarg, "--letters", 0, 255)));
        break;
      case kReverse: cl.Attr().Set("check_reverse", archive::MakeBool(true)); break;
      case kStretchW:
        cl.Attr().Set("stretch_width_level",
                      archive::MakeFloat(static_cast<float>(ParsePositive(optarg, "--stretch-width"))));
        break;
      case kStretchH:
        cl.Attr().Set("stretch_height_level",
                      archive::MakeFloat(static_cast<float>(ParsePositive(optarg, "--stretch-height"))));
        break;
      case kBlack: cl.Attr().Set("black_level", archive::MakeInt64(ParseInt(optarg, "--black-level", -8, 17))); break;
      case kDraw: cl.draw = optarg; break;
      case kKind: cl.kind = optarg; break;
      case kFrame: cl.frame = optarg; break;
      case kEnvelope: cl.envelope = true; break;
      case kTextWindow: cl.Attr().Set("text_window", archive::MakeBool(true)); break;
      case ':':
        Usage(std::string("option ") + argv[optind - 1] + " needs a value");
      default: {
        const std::string arg = argv[optind - 1];
        if (optopt && optopt < 256 && optopt != '?') Usage(std::string("unknown option -") + char(optopt));
        Usage("unknown option " + arg + " (or it needs a value)");
      }
    }
  }
  return cl;
}

// The options each command takes, besides the global ones.
const std::set<std::string> kAttributeOptions = {"font", "proc", "format", "match", "by-number", "by-format",
                                                  "letters", "reverse", "stretch-width", "stretch-height",
                                                  "black-level", "text-window"};

void CheckOptions(const CommandLine& cl) {
  std::set<std::string> allowed;
  if (cl.command == "ocr" || cl.command == "preview") allowed = kAttributeOptions;
  if (cl.command == "ocr") allowed.insert("draw");
  if (cl.command == "preview") allowed.insert("o");
  if (cl.command == "decode") allowed = {"kind"};
  if (cl.command == "stereo-start") allowed = {"frame"};
  if (cl.command == "send") allowed = {"envelope"};
  for (const std::string& name : cl.given) {
    if (!allowed.count(name))
      Usage(cl.command + " does not take " + (name.size() == 1 ? "-" : "--") + name);
  }
  if (cl.given.count("letters") && !(cl.attribute && archive::ReadInt(cl.attribute, "ocr_proc") == 1 &&
                                     cl.given.count("by-number")))
    Usage("--letters is only read with --proc 1 --by-number; give both");
}

void Need(const CommandLine& cl, size_t n, const char* what) {
  if (cl.positional.size() < n) Usage(cl.command + ": missing " + what);
  if (cl.positional.size() > n) Usage(cl.command + ": unexpected argument \"" + cl.positional[n] + "\"");
}

// ---- exchanges -------------------------------------------------------------------

struct Exchange {
  int status = 0;
  PortReply reply;
};

Exchange Send(const CommandLine& cl, int32_t msgid, const Bytes& data) {
  PortSendOptions options;
  options.receive_timeout = cl.timeout;
  Exchange e;
  e.status = SendPortRequest(cl.port, msgid, data.data(), data.size(), options, &e.reply);
  return e;
}

int ReportFailure(const CommandLine& cl, int status) {
  switch (status) {
    case kPortSendTimeout:
      std::fprintf(stderr, "velmora: the add-in is not running (no port \"%s\")\n", cl.port.c_str());
      return kExitNoAddin;
    case kPortReceiveTimeout:
      std::fprintf(stderr, "velmora: no answer within %g s (--timeout)\n", cl.timeout);
      return kExitFailure;
    case kPortBecameInvalid:
      std::fprintf(stderr, "velmora: the add-in closed the exchange without answering\n");
      return kExitFailure;
    default:
      std::fprintf(stderr, "velmora: the exchange with the add-in failed (status %d)\n", status);
      return kExitFailure;
  }
}

Bytes DataRequest(uint64_t number, archive::ObjectPtr image = nullptr, archive::ObjectPtr attribute = nullptr) {
  auto request = archive::MakeDictionary();
  request->Set("messageId", archive::MakeInt64(static_cast<int64_t>(number)));
  if (image) request->Set("image", std::move(image));
  if (attribute) request->Set("attribute", std::move(attribute));
  return Envelope(archive::Archive(request));
}

void PrintJson(const CommandLine& cl, const archive::ObjectPtr& object) {
  std::printf("%s\n", ToJson(object, cl.compact).c_str());
}

// The archive inside an enveloped reply; says what is wrong and gives nullopt
// on anything else.
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
  try {
    return archive::Unarchive(*body);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "velmora: the reply could not be decoded: %s\n", e.what());
    return std::nullopt;
  }
}

archive::ObjectPtr LoadImage(const std::string& path) { return archive::MakeImage(LoadRgbaBitmap(path)); }

void DrawResult(const std::string& input, const archive::ObjectPtr& result, const std::string& output) {
  const archive::RawBitmap rgba = LoadRgbaBitmap(input);
  cv::Mat canvas;
  cv::cvtColor(cv::Mat(rgba.height, rgba.width, CV_8UC4, const_cast<uint8_t*>(rgba.data.data())), canvas,
               cv::COLOR_RGBA2BGR);
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
  bool written = false;
  try {
    written = cv::imwrite(output, canvas);
  } catch (const cv::Exception&) {
  }
  if (!written) throw std::runtime_error("cannot write " + output + " (the name must end in .png, .jpg, .tif or .bmp, in a folder that exists)");
}

bool AnyText(const archive::ObjectPtr& result) {
  const auto records = archive::AsArray(result);
  for (size_t i = 0; records && i < records->items.size(); ++i)
    if (!archive::ReadString(records->items[i], "ocr_text").value_or("").empty()) return true;
  return false;
}

// ---- commands --------------------------------------------------------------------

int SimpleRequest(const CommandLine& cl) {
  Need(cl, 0, "");
  const uint64_t number = cl.command == "status" ? RequestLibraryStatus
                          : cl.command == "fonts" ? RequestInstalledFonts
                                                  : RequestTerminate;
  const Exchange e = Send(cl, MessageIdData, DataRequest(number));
  if (e.status != kPortSuccess) return ReportFailure(cl, e.status);
  const auto result = EnvelopedArchive(e.reply);
  if (!result) return kExitFailure;
  PrintJson(cl, *result);
  if (cl.command == "fonts") {
    const auto list = archive::AsArray(*result);
    return list && !list->items.empty() ? kExitRead : kExitNothing;
  }
  if (cl.command == "quit") std::fprintf(stderr, "velmora: the add-in is ending\n");
  return kExitRead;
}

// The attribute dictionary to send: none without attribute options; with
// some but no font, "Industrial", as the add-in's own default.
archive::ObjectPtr AttributeToSend(const CommandLine& cl) {
  if (cl.attribute && !cl.attribute->Get("fontName")) {
    cl.attribute->Set("fontName", archive::MakeString("Industrial"));
    std::fprintf(stderr, "velmora: no --font given; sending \"Industrial\"\n");
  }
  return cl.attribute;
}

int Ocr(const CommandLine& cl) {
  Need(cl, 1, "the image file");
  const archive::ObjectPtr image = LoadImage(cl.positional[0]);
  const Exchange e = Send(cl, MessageIdData, DataRequest(RequestOcrImage, image, AttributeToSend(cl)));
  if (e.status != kPortSuccess) return ReportFailure(cl, e.status);
  const auto result = EnvelopedArchive(e.reply);
  if (!result) return kExitFailure;
  PrintJson(cl, *result);
  if (!cl.draw.empty()) DrawResult(cl.positional[0], *result, cl.draw);
  return AnyText(*result) ? kExitRead : kExitNothing;
}

int Preview(const CommandLine& cl) {
  Need(cl, 1, "the image file");
  if (cl.output.empty()) Usage("preview needs -o out.tif");
  const archive::ObjectPtr image = LoadImage(cl.positional[0]);
  const Exchange e = Send(cl, MessageIdData, DataRequest(RequestOcrFilteredImage, image, AttributeToSend(cl)));
  if (e.status != kPortSuccess) return ReportFailure(cl, e.status);
  if (!e.reply.present) {
    std::fprintf(stderr, "velmora: the add-in found no text region to show\n");
    return kExitNothing;
  }
  const std::optional<Bytes> tiff = EnvelopeBody(e.reply.data);
  if (!tiff) {
    std::fprintf(stderr, "velmora: the reply has no envelope\n");
    return kExitFailure;
  }
  std::ofstream out(cl.output, std::ios::binary);
  out.write(reinterpret_cast<const char*>(tiff->data()), static_cast<std::streamsize>(tiff->size()));
  if (!out) throw std::runtime_error("cannot write " + cl.output + ": " + std::strerror(errno));
  auto summary = archive::MakeDictionary();
  summary->Set("preview", archive::MakeString(cl.output));
  summary->Set("bytes", archive::MakeInt64(static_cast<int64_t>(tiff->size())));
  PrintJson(cl, summary);
  return kExitRead;
}

int Decode(const CommandLine& cl) {
  Need(cl, 1, "the image file");
  static const std::map<std::string, int64_t> kKinds = {
      {"barcode", 0}, {"auto", 0}, {"datamatrix", 1}, {"qr", 2}, {"microqr", 3},
      {"0", 0}, {"1", 1}, {"2", 2}, {"3", 3}};
  static const char* kKindNames[] = {"barcode", "datamatrix", "qr", "microqr"};
  std::vector<int64_t> kinds;
  if (cl.kind.empty()) {
    kinds = {0};
  } else if (cl.kind == "any") {
    kinds = {1, 2, 3, 0};
  } else {
    const auto it = kKinds.find(cl.kind);
    if (it == kKinds.end())
      Usage("--kind must be barcode, auto, datamatrix, qr, microqr, any or 0 to 3, not \"" + cl.kind + "\"");
    kinds = {it->second};
  }
  const archive::ObjectPtr image = LoadImage(cl.positional[0]);
  archive::ObjectPtr last;
  for (const int64_t kind : kinds) {
    archive::ObjectPtr attribute;
    if (!cl.kind.empty()) {
      auto dict = archive::MakeDictionary();
      dict->Set("decode", archive::MakeInt64(kind));
      attribute = dict;
    }
    const Exchange e = Send(cl, MessageIdData, DataRequest(RequestDecodeImage, image, attribute));
    if (e.status != kPortSuccess) return ReportFailure(cl, e.status);
    const auto result = EnvelopedArchive(e.reply);
    if (!result) return kExitFailure;
    last = *result;
    if (archive::ReadString(last, "decode_text")) {
      if (cl.kind == "any") {
        auto shown = archive::MakeDictionary();
        shown->Set("decode_text", archive::ReadObject(last, "decode_text"));
        shown->Set("kind", archive::MakeString(kKindNames[kind]));
        last = shown;
      }
      PrintJson(cl, last);
      return kExitRead;
    }
  }
  PrintJson(cl, last ? last : archive::MakeDictionary());
  return kExitNothing;
}

int StereoStart(const CommandLine& cl) {
  Need(cl, 0, "");
  if (cl.frame.empty()) Usage("stereo-start needs --frame x,y,w,h");
  std::vector<double> f;
  size_t start = 0;
  for (;;) {
    const size_t comma = cl.frame.find(',', start);
    f.push_back(ParseReal(cl.frame.substr(start, comma == std::string::npos ? comma : comma - start), "--frame"));
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  if (f.size() != 4) Usage("--frame needs four numbers x,y,w,h, not \"" + cl.frame + "\"");
  if (!(f[2] > 0 && f[3] > 0)) Usage("--frame: width and height must be more than 0");
  auto parameters = archive::MakeDictionary();
  parameters->Set(Stereo_Reconstruct_WindowFrame, archive::MakeRect(f[0], f[1], f[2], f[3]));
  const Exchange e = Send(cl, MessageIdStereoStart, archive::Archive(parameters));
  if (e.status != kPortSuccess) return ReportFailure(cl, e.status);
  if (!e.reply.present) {
    std::fprintf(stderr, "velmora: the add-in gave no reply\n");
    return kExitFailure;
  }
  PrintJson(cl, archive::Unarchive(e.reply.data));
  std::fprintf(stderr,
               "velmora: asked the add-in to start a stereo reconstruction in a window at %g,%g of %g x %g; "
               "it acknowledges every start with -100 and shows the result in that window\n",
               f[0], f[1], f[2], f[3]);
  return kExitRead;
}

int StereoStop(const CommandLine& cl) {
  Need(cl, 0, "");
  const Exchange e = Send(cl, MessageIdStereoClose, {});
  if (e.status != kPortSuccess) return ReportFailure(cl, e.status);
  std::fprintf(stderr, "velmora: asked the add-in to end the stereo reconstruction and close its window\n");
  return kExitRead;
}

int SendRaw(const CommandLine& cl) {
  Need(cl, 2, cl.positional.empty() ? "the message id and the file" : "the file");
  const int32_t msgid = ParseMessageId(cl.positional[0]);
  Bytes data;
  try {
    data = archive::ReadFileBytes(cl.positional[1]);
  } catch (const std::exception&) {
    throw std::runtime_error("cannot read " + cl.positional[1] + ": " + std::strerror(errno ? errno : EIO));
  }
  if (cl.envelope) data = Envelope(data);
  const Exchange e = Send(cl, msgid, data);
  if (e.status != kPortSuccess) return ReportFailure(cl, e.status);
  if (!e.reply.present) {
    std::fprintf(stderr, "velmora: the add-in gave no reply\n");
    return kExitFailure;
  }
  // Decode what can be decoded: an envelope, then an archive; else raw base64.
  Bytes body = e.reply.data;
  bool enveloped = false;
  if (auto inner = EnvelopeBody(body)) {
    body = std::move(*inner);
    enveloped = true;
  }
  archive::ObjectPtr reply;
  try {
    reply = archive::Unarchive(body);
  } catch (const std::exception&) {
    auto raw = archive::MakeDictionary();
    raw->Set("bytes", archive::MakeString(Base64(body.data(), body.size())));
    reply = raw;
  }
  auto shown = archive::MakeDictionary();
  shown->Set("envelope", archive::MakeBool(enveloped));
  shown->Set("reply", reply);
  PrintJson(cl, shown);
  return kExitRead;
}

int Help(const std::string& command) {
  if (command.empty()) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  const auto it = kCommandHelp.find(command);
  if (it == kCommandHelp.end()) Usage("no command \"" + command + "\"");
  std::fputs(it->second.c_str(), stdout);
  return 0;
}

int Run(int argc, char** argv) {
  CommandLine cl = Parse(argc, argv);
  if (cl.command == "help") return Help(cl.positional.empty() ? "" : cl.positional[0]);
  if (cl.help) return Help(cl.command);
  if (cl.command.empty()) Usage("missing command");
  if (!kCommandHelp.count(cl.command)) Usage("unknown command \"" + cl.command + "\"");
  CheckOptions(cl);
  if (cl.command == "status" || cl.command == "fonts" || cl.command == "quit") return SimpleRequest(cl);
  if (cl.command == "ocr") return Ocr(cl);
  if (cl.command == "preview") return Preview(cl);
  if (cl.command == "decode") return Decode(cl);
  if (cl.command == "stereo-start") return StereoStart(cl);
  if (cl.command == "stereo-stop") return StereoStop(cl);
  return SendRaw(cl);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const UsageError& e) {
    std::fprintf(stderr, "velmora: %s\n(velmora help explains the commands and options)\n", e.what());
    return kExitUsage;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "velmora: %s\n", e.what());
    return kExitFailure;
  }
}
