// velmora-3d synth DIR: the synthetic rig's eight views, its rig description
// and its true surface, for tests and benchmarks.
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include <opencv2/imgcodecs.hpp>

#include "command.h"
#include "stereo/rig_description.h"
#include "stereo/synthetic_rig.h"

namespace velmora3d {
namespace {

int RunSynth(const Args& args) {
  ParsedArgs a;
  std::string error;
  if (!ParseArgs(args, {"--seed", "--variant"}, {}, &a, &error)) return Fail("synth: " + error, kExitUsage);
  if (a.positional.size() != 1) return Fail("synth: expected one output folder", kExitUsage);
  long long seed = 1, variant = 0;
  if (a.Has("--seed") && (!ParseInt(a.Value("--seed"), &seed) || seed < 0 || seed > 0xffffffffLL))
    return Fail("synth: --seed takes a whole number from 0 to 4294967295", kExitUsage);
  if (a.Has("--variant") &&
      (!ParseInt(a.Value("--variant"), &variant) || variant < 0 || variant >= velmora::synth::kVariantCount))
    return Fail("synth: --variant takes 0 to " + std::to_string(velmora::synth::kVariantCount - 1), kExitUsage);

  const std::filesystem::path dir = a.positional[0];
  std::error_code ec;
  std::filesystem::create_directories(dir, ec);
  if (ec) return Fail("synth: cannot create " + dir.string() + ": " + ec.message());

  const auto start = std::chrono::steady_clock::now();
  const velmora::synth::Rig rig = velmora::synth::MakeRig(static_cast<int>(variant), static_cast<uint32_t>(seed));
  const std::vector<cv::Mat> views = velmora::synth::RenderViews(rig);
  for (size_t i = 0; i < views.size(); ++i) {
    char name[32];
    std::snprintf(name, sizeof name, "sideImage_%02zu.png", i);
    const std::string path = (dir / name).string();
    if (!cv::imwrite(path, views[i], {cv::IMWRITE_PNG_COMPRESSION, 1})) return Fail("synth: cannot write " + path);
  }
  velmora::RigDescription desc;
  for (const auto& cam : rig.cameras) desc.cameras.push_back({cam.ParamTuple(), cam.PoseTuple()});
  std::ofstream json(dir / "rig.json", std::ios::trunc);
  json << velmora::RigJson(desc);
  if (!json) return Fail("synth: cannot write " + (dir / "rig.json").string());
  if (!velmora::synth::WriteSurface(rig.surface, (dir / "surface.npy").string(), (dir / "surface.json").string(),
                                    &error))
    return Fail("synth: " + error);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::printf("synth: variant %lld, seed %lld: 8 views, rig.json, surface.npy (%d x %d) in %s (%.2f s)\n", variant,
              seed, rig.surface.rows, rig.surface.cols, dir.string().c_str(), seconds);
  return 0;
}

const Registration kSynth({"synth", "DIR [--seed N] [--variant K]",
                           "render the synthetic rig: sideImage_00..07.png, rig.json, surface.npy + surface.json",
                           RunSynth});

}  // namespace
}  // namespace velmora3d
