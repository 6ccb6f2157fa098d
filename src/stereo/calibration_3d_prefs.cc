#include "stereo/calibration_3d_prefs.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <vector>

#include "archive/property_list.h"
#include "imaging/halcon_utility.h"

namespace velmora {

namespace {

Calibration_3D_Prefs* gDefaultObject = nullptr;

// A calibration file is a few kilobytes; anything past this is not one.
constexpr std::streamsize kMaxFileSize = 256 << 20;

std::shared_ptr<archive::Dictionary> CopyDictionary(const archive::Dictionary& source) {
  auto copy = std::make_shared<archive::Dictionary>();
  for (const auto& [key, value] : source.entries()) copy->Append(key, value);
  return copy;
}

// Writes to a temporary file beside `path` and renames it over, so a reader
// sees the old file or the new one, never a half-written one.
bool WriteAtomically(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::string tmp = path + ".XXXXXX";
  const int fd = ::mkstemp(tmp.data());
  if (fd < 0) return false;
  bool ok = true;
  for (size_t done = 0; ok && done < bytes.size();) {
    const ssize_t w = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (w < 0 && errno == EINTR) continue;
    ok = w > 0;
    if (ok) done += static_cast<size_t>(w);
  }
  ok = ok && ::fchmod(fd, 0644) == 0 && ::fsync(fd) == 0;
  ok = ::close(fd) == 0 && ok;
  if (ok && ::rename(tmp.c_str(), path.c_str()) == 0) return true;
  ::unlink(tmp.c_str());
  return false;
}

}  // namespace

Calibration_3D_Prefs* Calibration_3D_Prefs::defaultObject() {
  if (!gDefaultObject) {
    // Instances made here live to process end, as the store's users expect.
    static std::vector<std::unique_ptr<Calibration_3D_Prefs>> kept;
    kept.push_back(std::make_unique<Calibration_3D_Prefs>());
  }
  return gDefaultObject;
}

Calibration_3D_Prefs::Calibration_3D_Prefs() { gDefaultObject = this; }

Calibration_3D_Prefs::~Calibration_3D_Prefs() {
  if (gDefaultObject == this) gDefaultObject = nullptr;
}

std::string Calibration_3D_Prefs::filePath() {
  const std::string folder = pathOfVelmora_AOI();
  return folder.empty() ? std::string() : folder + "/" + kCalibrationFileName;
}

DictionaryPtr ReadPropertyListFile(const std::string& path) {
  if (path.empty()) return nullptr;
  std::ifstream in(path, std::ios::binary);
  if (!in) return nullptr;
  std::vector<uint8_t> bytes;
  char buffer[1 << 16];
  while (in.read(buffer, sizeof buffer) || in.gcount() > 0) {
    bytes.insert(bytes.end(), buffer, buffer + in.gcount());
    if (static_cast<std::streamsize>(bytes.size()) > kMaxFileSize) return nullptr;
  }
  return archive::AsDictionary(archive::DecodePropertyList(bytes.data(), bytes.size()));
}

bool WritePropertyListFile(const std::string& path, const DictionaryPtr& dictionary) {
  if (path.empty() || !dictionary) return false;
  try {
    return WriteAtomically(path, archive::EncodePropertyList(dictionary, archive::PlistFormat::kXml));
  } catch (const archive::ArchiveError&) {
    return false;
  }
}

bool Calibration_3D_Prefs::readData() {
  DictionaryPtr dict = ReadPropertyListFile(filePath());
  if (!dict) return false;
  calibrationInfo_ = std::move(dict);
  return true;
}

bool Calibration_3D_Prefs::writeData(const DictionaryPtr& dictionary) {
  const std::string path = filePath();
  std::shared_ptr<archive::Dictionary> merged;
  bool ok = false;
  if (dictionary) {
    merged = calibrationInfo_ ? CopyDictionary(*calibrationInfo_) : std::make_shared<archive::Dictionary>();
    for (const auto& [key, value] : dictionary->entries()) {
      const auto k = archive::AsString(key);
      if (k) merged->Set(k->text, value);
      else merged->Append(key, value);  // not representable in a file: the write below fails
    }
    ok = WritePropertyListFile(path, merged);
  } else {
    merged = std::make_shared<archive::Dictionary>();
    ok = !path.empty() && ::unlink(path.c_str()) == 0;
  }
  calibrationInfo_ = merged;
  return ok;
}

std::shared_ptr<archive::Data> CameraModelData(const DictionaryPtr& info) {
  if (!info) return nullptr;
  return archive::AsData(archive::ReadObject(info->Get(kCalibDatasKey), kCameraModelDataKey));
}

std::shared_ptr<archive::Dictionary> CalibrationDictionary(std::vector<uint8_t> camera_model_bytes) {
  auto datas = archive::MakeDictionary();
  datas->Set(kCameraModelDataKey, archive::MakeData(std::move(camera_model_bytes)));
  auto root = archive::MakeDictionary();
  root->Set(kCalibDatasKey, datas);
  return root;
}

}  // namespace velmora
