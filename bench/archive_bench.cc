// Throughput of the archive codec on an OCR request holding a 5-megapixel
// ARGB image (about 20 MB of TIFF inside the image object), and of the TIFF
// codec on that image alone. Each benchmark runs in repetitions; the median
// and the spread (stddev, cv) are printed with the work size in MB.
#include <benchmark/benchmark.h>

#include "archive/archive.h"

namespace {

using namespace velmora::archive;

constexpr int kWidth = 2592;  // 2592 x 1944 = 5.04 megapixels
constexpr int kHeight = 1944;

// The bitmap the system makes: 8-bit ARGB, rows padded to a multiple of 16.
const RawBitmap& SystemBitmap() {
  static const RawBitmap bitmap = [] {
    RawBitmap b;
    b.width = kWidth;
    b.height = kHeight;
    b.samples_per_pixel = 4;
    b.bits_per_sample = 8;
    b.has_alpha = true;
    b.alpha_first = true;
    b.bytes_per_row = (4 * kWidth + 16) / 16 * 16;
    b.data.resize(b.bytes_per_row * kHeight);
    for (std::size_t k = 0; k < b.data.size(); ++k) b.data[k] = static_cast<uint8_t>((k * 131) >> 3);
    return b;
  }();
  return bitmap;
}

const std::vector<uint8_t>& Tiff() {
  static const std::vector<uint8_t> tiff = EncodeTiff(SystemBitmap());
  return tiff;
}

ObjectPtr Request() {
  auto attribute = MakeDictionary();
  attribute->Set("font", MakeString("OCR-B"));
  attribute->Set("rotate", MakeBool(true));
  auto request = MakeDictionary();
  request->Set("messageId", MakeInt32(101));
  request->Set("image", MakeImageFromTiff(Tiff()));
  request->Set("attribute", attribute);
  return request;
}

void Report(benchmark::State& state, std::size_t bytes) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(bytes));
  state.counters["MB"] = static_cast<double>(bytes) / 1e6;
}

void BM_ArchiveRequest(benchmark::State& state) {
  const ObjectPtr request = Request();
  std::size_t size = 0;
  for (auto _ : state) {
    std::vector<uint8_t> bytes = Archive(request);
    size = bytes.size();
    benchmark::DoNotOptimize(bytes.data());
  }
  Report(state, size);
}

void BM_UnarchiveRequest(benchmark::State& state) {
  const std::vector<uint8_t> bytes = Archive(Request());
  for (auto _ : state) {
    ObjectPtr object = Unarchive(bytes);
    benchmark::DoNotOptimize(object.get());
  }
  Report(state, bytes.size());
}

void BM_EncodeTiff(benchmark::State& state) {
  const RawBitmap& bitmap = SystemBitmap();
  std::size_t size = 0;
  for (auto _ : state) {
    std::vector<uint8_t> tiff = EncodeTiff(bitmap);
    size = tiff.size();
    benchmark::DoNotOptimize(tiff.data());
  }
  Report(state, size);
}

void BM_DecodeTiff(benchmark::State& state) {
  const std::vector<uint8_t>& tiff = Tiff();
  for (auto _ : state) {
    RawBitmap bitmap = DecodeTiff(tiff);
    benchmark::DoNotOptimize(bitmap.data.data());
  }
  Report(state, tiff.size());
}

#define ARCHIVE_BENCH(fn) \
  BENCHMARK(fn)->Unit(benchmark::kMillisecond)->UseRealTime()->Repetitions(15)->ReportAggregatesOnly(true)

ARCHIVE_BENCH(BM_ArchiveRequest);
ARCHIVE_BENCH(BM_UnarchiveRequest);
ARCHIVE_BENCH(BM_EncodeTiff);
ARCHIVE_BENCH(BM_DecodeTiff);

}  // namespace

BENCHMARK_MAIN();
