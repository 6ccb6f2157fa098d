// velmora-3d rig import|show: the calibration file from and to the rig's JSON.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "command.h"
#include "imaging/halcon_utility.h"
#include "stereo/calibration_3d_prefs.h"
#include "stereo/rig_description.h"
#include "vision/core/exception.h"

namespace velmora3d {
namespace {

bool ReadText(const std::string& path, std::string* text, std::string* error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    *error = "cannot read " + path + ": " + std::strerror(errno);
    return false;
  }
  std::ostringstream s;
  s << in.rdbuf();
  *text = s.str();
  return true;
}

int Import(const ParsedArgs& a) {
  if (a.positional.size() != 2) return Fail("rig import: expected RIG.json", kExitUsage);
  const std::string json_path = a.positional[1];
  std::string text, error;
  if (!ReadText(json_path, &text, &error)) return Fail("rig import: " + error);
  const auto rig = velmora::ParseRigJson(text, &error);
  if (!rig) return Fail("rig import: " + json_path + ": " + error);
  std::vector<uint8_t> model;
  try {
    model = velmora::SerializeRigModel(*rig);
  } catch (const vision::HException& e) {
    return Fail("rig import: " + json_path + ": " + e.what());
  }

  if (a.Has("-o")) {
    const std::string out = a.Value("-o");
    if (!velmora::WritePropertyListFile(out, velmora::CalibrationDictionary(std::move(model))))
      return Fail("rig import: cannot write " + out);
    std::printf("wrote %s (%zu cameras)\n", out.c_str(), rig->cameras.size());
    return 0;
  }
  // The data folder: other top-level keys of an existing file are kept.
  const std::string folder = velmora::pathOfVelmora_AOI();
  if (folder.empty()) return Fail("rig import: no data folder (set HOME or XDG_DATA_HOME)");
  std::error_code ec;
  std::filesystem::create_directories(folder, ec);
  if (ec) return Fail("rig import: cannot create " + folder + ": " + ec.message());
  velmora::Calibration_3D_Prefs prefs;
  prefs.readData();
  if (!prefs.writeData(velmora::CalibrationDictionary(std::move(model))))
    return Fail("rig import: cannot write " + velmora::Calibration_3D_Prefs::filePath());
  std::printf("wrote %s (%zu cameras)\n", velmora::Calibration_3D_Prefs::filePath().c_str(), rig->cameras.size());
  return 0;
}

int Show(const ParsedArgs& a) {
  if (a.positional.size() > 2) return Fail("rig show: expected at most one file", kExitUsage);
  const std::string path = a.positional.size() == 2 ? a.positional[1] : velmora::Calibration_3D_Prefs::filePath();
  if (path.empty()) return Fail("rig show: no data folder (set HOME or XDG_DATA_HOME)");
  if (!std::filesystem::exists(path)) return Fail("rig show: no calibration file at " + path);
  const velmora::DictionaryPtr info = velmora::ReadPropertyListFile(path);
  if (!info) return Fail("rig show: " + path + " is not a property list dictionary");
  const auto data = velmora::CameraModelData(info);
  if (!data) return Fail("rig show: " + path + " has no hcalibDatas/hCameraModelData");
  try {
    std::fputs(velmora::RigJson(velmora::DeserializeRigModel(data->bytes)).c_str(), stdout);
  } catch (const vision::HException& e) {
    return Fail("rig show: " + path + ": damaged camera model: " + e.what());
  }
  return 0;
}

int RunRig(const Args& args) {
  ParsedArgs a;
  std::string error;
  if (!ParseArgs(args, {"-o"}, {}, &a, &error)) return Fail("rig: " + error, kExitUsage);
  const std::string sub = a.positional.empty() ? "" : a.positional[0];
  if (sub == "import") return Import(a);
  if (a.Has("-o")) return Fail("rig: -o belongs to rig import", kExitUsage);
  if (sub == "show") return Show(a);
  return Fail("rig: expected \"import RIG.json [-o FILE]\" or \"show [FILE]\"", kExitUsage);
}

const Registration kRig({"rig", "import RIG.json [-o FILE] | show [FILE]",
                         "write the calibration file (default: the data folder) from a rig's JSON, or print it back",
                         RunRig});

}  // namespace
}  // namespace velmora3d
