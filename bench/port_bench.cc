// Request port benchmarks against a running add-in (started here):
//  1. request 1 round trips, sequential, one client: latency percentiles and
//     requests per second (targets: median <= 150 us, >= 5,000 requests/s);
//  2. a 100 MB 'data' request (unknown request number, so no service runs):
//     exchange time and the add-in's peak resident memory (VmHWM) growth
//     (target: under 3x the request size), and the same bytes under an
//     unhandled message id to separate the transport from the archive codec.
//
//   bench_port [round trips, default 20000]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "addin_process.h"

namespace {

using namespace velmora;
using Clock = std::chrono::steady_clock;

double Micros(Clock::duration d) { return std::chrono::duration<double, std::micro>(d).count(); }

double Percentile(std::vector<double> v, double p) {
  std::sort(v.begin(), v.end());
  const size_t i = static_cast<size_t>(p * static_cast<double>(v.size() - 1) + 0.5);
  return v[std::min(i, v.size() - 1)];
}

// Peak resident set of a process in bytes, from /proc/<pid>/status.
long long PeakRss(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("VmHWM:", 0) == 0) return std::atoll(line.c_str() + 6) * 1024;
  }
  return -1;
}

std::vector<uint8_t> DataBlock(const archive::ObjectPtr& request) { return Envelope(archive::Archive(request)); }

}  // namespace

int main(int argc, char** argv) {
  const int count = argc > 1 ? std::max(100, std::atoi(argv[1])) : 20000;
  testing::AddinProcess addin;

  auto status_request = archive::MakeDictionary();
  status_request->Set("messageId", archive::MakeInt32(1));
  const std::vector<uint8_t> block = DataBlock(status_request);

  // 1. Round trips.
  PortReply reply;
  for (int i = 0; i < 500; ++i) addin.Send(MessageIdData, block, &reply);  // warm-up
  std::vector<double> us;
  us.reserve(static_cast<size_t>(count));
  int failures = 0;
  const auto all_start = Clock::now();
  for (int i = 0; i < count; ++i) {
    const auto t0 = Clock::now();
    const int32_t status = addin.Send(MessageIdData, block, &reply);
    us.push_back(Micros(Clock::now() - t0));
    if (status != kPortSuccess || !reply.present) ++failures;
  }
  const double total_s = std::chrono::duration<double>(Clock::now() - all_start).count();
  std::printf("bench_port: request 1 round trip, %d sequential requests from one client (%zu-byte request, %zu-byte reply)\n",
              count, block.size(), reply.data.size());
  std::printf("  median %.1f us  p10 %.1f us  p90 %.1f us  p99 %.1f us  count %d  failures %d\n",
              Percentile(us, 0.5), Percentile(us, 0.1), Percentile(us, 0.9), Percentile(us, 0.99), count, failures);
  std::printf("  throughput %.0f requests/s  (targets: median <= 150 us, >= 5000 requests/s)\n", count / total_s);

  // 2. A 100 MB request.
  constexpr size_t kPayload = 100u * 1024u * 1024u;
  auto big_request = archive::MakeDictionary();
  big_request->Set("messageId", archive::MakeInt32(4242));  // no such request: no reply, no service
  big_request->Set("payload", archive::MakeData(std::vector<uint8_t>(kPayload, 0x5a)));
  const std::vector<uint8_t> big = DataBlock(big_request);
  big_request.reset();

  const long long before = PeakRss(addin.pid());
  std::vector<double> ms;
  constexpr int kBigRuns = 5;
  for (int i = 0; i < kBigRuns; ++i) {
    const auto t0 = Clock::now();
    const int32_t status = addin.Send(MessageIdData, big, &reply, 60);
    ms.push_back(Micros(Clock::now() - t0) / 1000.0);
    if (status != kPortSuccess) std::printf("  run %d: status %d\n", i, status);
  }
  const long long after = PeakRss(addin.pid());
  const double mb = 1024.0 * 1024.0;
  std::printf("bench_port: %zu-byte 'data' request (%.0f MB payload, unknown request number), %d runs\n", big.size(),
              kPayload / mb, kBigRuns);
  std::printf("  exchange median %.1f ms  min %.1f ms  max %.1f ms  (%.0f MB/s at the median)\n", Percentile(ms, 0.5),
              *std::min_element(ms.begin(), ms.end()), *std::max_element(ms.begin(), ms.end()),
              big.size() / mb / (Percentile(ms, 0.5) / 1000.0));
  std::printf("  add-in VmHWM before %.1f MB, after %.1f MB: growth %.1f MB = %.2fx the request (target < 3x)\n",
              before / mb, after / mb, (after - before) / mb, static_cast<double>(after - before) / big.size());
  // The transport alone: the same bytes under a message id nobody handles.
  std::vector<double> raw_ms;
  for (int i = 0; i < kBigRuns; ++i) {
    const auto t0 = Clock::now();
    addin.Send(FourCharCode("none"), big, &reply, 60);
    raw_ms.push_back(Micros(Clock::now() - t0) / 1000.0);
  }
  std::printf("  transport only (same bytes, unhandled message id): median %.1f ms (%.0f MB/s)\n",
              Percentile(raw_ms, 0.5), big.size() / mb / (Percentile(raw_ms, 0.5) / 1000.0));
  // Still serving afterwards.
  const bool ok = addin.Send(MessageIdData, block, &reply) == kPortSuccess && reply.present;
  std::printf("  request 1 after the large requests: %s\n", ok ? "answered" : "FAILED");
  return ok && failures == 0 ? 0 : 1;
}
