// The add-in under an integrator's worst cases, against the real process:
//  1. eight connections that each announce a 512 MiB request and send 1 MB:
//     the add-in's peak memory, and the latency of status requests meanwhile;
//  2. an OCR request of an 8000 x 8000 image (whole image, and with the text
//     window): service time and the add-in's
//     peak memory, against the size of the decoded image.
#include <algorithm>
#include <atomic>
#include <thread>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <opencv2/imgproc.hpp>
#include <random>
#include <unistd.h>
#include <vector>

#include "addin_process.h"
#include "integ/hostile.h"
#include "ocr/centred_marking.h"
#include "markings.h"

using namespace velmora;
using testing::AddinProcess;
using Clock = std::chrono::steady_clock;
using Bytes = std::vector<uint8_t>;

namespace {

double Ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

// Processor time (user + system) the process has used so far, in ms: on a
// shared machine the wall time of a request says more about the others.
double CpuMs(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const size_t close = stat.rfind(')');
  if (close == std::string::npos) return 0;
  std::istringstream fields(stat.substr(close + 2));
  std::string f;
  double utime = 0, stime = 0;
  for (int i = 3; i <= 15 && fields >> f; ++i) {
    if (i == 14) utime = std::stod(f);
    if (i == 15) stime = std::stod(f);
  }
  return (utime + stime) * 1000.0 / double(sysconf(_SC_CLK_TCK));
}

void HostileHeaders() {
  AddinProcess addin;
  const long base = testing::ProcStatusKb(addin.pid(), "VmHWM");
  std::vector<int> fds;
  const auto start = Clock::now();
  for (int i = 0; i < 8; ++i) fds.push_back(testing::HostileConnection(addin.socket_path(), 512u << 20, 1000000));
  const double send_ms = Ms(Clock::now() - start);
  // Status requests while the eight wait for their deadline (5 s).
  std::vector<double> latency;
  for (int i = 0; i < 20; ++i) {
    const auto t0 = Clock::now();
    auto reply = addin.Request(RequestLibraryStatus);
    latency.push_back(Ms(Clock::now() - t0));
    if (!reply) std::printf("status request unanswered\n");
    usleep(50000);
  }
  std::sort(latency.begin(), latency.end());
  const long peak = testing::ProcStatusKb(addin.pid(), "VmHWM");
  std::printf("hostile headers: 8 connections announcing 512 MiB, sending 1 MB each (sent in %.1f ms)\n", send_ms);
  std::printf("  add-in peak memory: %.1f MB (%.1f MB before)\n", peak / 1024.0, base / 1024.0);
  std::printf("  status latency meanwhile (20 requests): median %.2f ms, max %.2f ms\n", latency[latency.size() / 2],
              latency.back());
  for (int fd : fds) ::close(fd);
}

void LargeOcr(int side, bool text_window) {
  AddinProcess addin;
  // A marking in the middle of a light canvas of side x side pixels.
  const auto image = ocrgen::CentredMarkingImage(side);
  auto attr = archive::MakeDictionary();
  attr->Set("fontName", archive::MakeString("Industrial"));
  if (text_window) attr->Set("text_window", archive::MakeBool(true));
  const long base = testing::ProcStatusKb(addin.pid(), "VmHWM");
  const double cpu0 = CpuMs(addin.pid());
  // The add-in's resident memory over the request, sampled every 50 ms.
  std::atomic<bool> done{false};
  std::vector<std::pair<double, long>> samples;
  const auto t0 = Clock::now();
  std::thread sampler([&] {
    while (!done) {
      samples.push_back({Ms(Clock::now() - t0), testing::ProcStatusKb(addin.pid(), "VmRSS")});
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  });
  auto request = archive::MakeDictionary();
  request->Set("messageId", archive::MakeInt64(RequestOcrImage));
  request->Set("image", image);
  request->Set("attribute", attr);
  PortReply raw;
  const int32_t status = addin.Send(MessageIdData, Envelope(archive::Archive(request)), &raw, 600);
  const double ms = Ms(Clock::now() - t0);
  const double cpu = CpuMs(addin.pid()) - cpu0;
  done = true;
  sampler.join();
  std::optional<archive::ObjectPtr> reply;
  if (status != kPortSuccess) std::printf("OCR request failed: status %d\n", status);
  else if (raw.present) reply = archive::Unarchive(*AddinProcess::CheckedEnvelopeBody(raw.data));
  const long peak = testing::ProcStatusKb(addin.pid(), "VmHWM");
  std::string text = "(none)";
  if (reply) {
    const auto records = archive::AsArray(*reply);
    if (records && !records->items.empty()) text = archive::ReadString(records->items[0], "ocr_text").value_or("");
  }
  const double decoded_mb = double(side) * side * 4 / 1e6;
  std::printf("OCR request of a %d x %d RGBA image%s (decoded %.0f MB, request %.0f MB): %.0f ms (add-in processor "
              "time %.0f ms), read \"%s\"\n",
              side, side, text_window ? ", text window" : ", whole image", decoded_mb, image->bytes().size() / 1e6, ms,
              cpu, text.c_str());
  std::printf("  add-in peak memory: %.0f MB (%.0f MB before), %.2fx the decoded image\n", peak / 1024.0,
              base / 1024.0, (peak - base) / 1024.0 / (decoded_mb / 1.048576));
  // Where in the request the memory is held: resident memory at tenths of the time.
  std::printf("  resident memory over the request (MB):");
  for (int k = 0; k <= 10 && !samples.empty(); ++k) {
    const auto& sample = samples[std::min(samples.size() - 1, samples.size() * size_t(k) / 10)];
    std::printf(" %.0f ms: %.0f%s", sample.first, sample.second / 1024.0, k < 10 ? "," : "\n");
  }
}

}  // namespace

int main(int argc, char** argv) {
  setvbuf(stdout, nullptr, _IOLBF, 0);
  const int side = argc > 1 ? std::atoi(argv[1]) : 8000;
  HostileHeaders();
  LargeOcr(side, false);
  LargeOcr(side, true);
  std::ifstream loadavg("/proc/loadavg");
  std::string one, five, fifteen;
  loadavg >> one >> five >> fifteen;
  std::printf("load average at the end: %s %s %s\n", one.c_str(), five.c_str(), fifteen.c_str());
  return 0;
}
