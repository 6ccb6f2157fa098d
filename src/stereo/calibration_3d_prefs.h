#pragma once
// The calibration store: the rig calibration kept in "Calibration3D.plist"
// (an XML property list) in the data folder, read afresh by every stereo
// request and written by the calibration tool.
//
// The file's root dictionary holds "hcalibDatas", a dictionary whose
// "hCameraModelData" is the bytes of a serialized camera setup model. Other
// top-level keys are kept by writeData (a top-level merge with what was last
// read or written, not with the file).
#include <memory>
#include <string>
#include <vector>

#include "archive/archive.h"

namespace velmora {

inline constexpr char kCalibrationFileName[] = "Calibration3D.plist";
inline constexpr char kCalibDatasKey[] = "hcalibDatas";
inline constexpr char kCameraModelDataKey[] = "hCameraModelData";

// The store never changes a dictionary it handed out: each write makes a new one.
using DictionaryPtr = std::shared_ptr<archive::Dictionary>;

class Calibration_3D_Prefs {
 public:
  // The live instance; one is created on first use and kept to process end.
  static Calibration_3D_Prefs* defaultObject();

  // A new instance becomes the live one; its destruction clears that.
  Calibration_3D_Prefs();
  ~Calibration_3D_Prefs();
  Calibration_3D_Prefs(const Calibration_3D_Prefs&) = delete;
  Calibration_3D_Prefs& operator=(const Calibration_3D_Prefs&) = delete;

  // Loads the whole file. False (and calibrationInfo unchanged) when it is
  // missing, unreadable, not a property list or its root is not a dictionary.
  bool readData();

  // Merges `dictionary` into calibrationInfo at the top level and writes the
  // result atomically; with nullptr deletes the file instead. calibrationInfo
  // becomes the merged content (empty after a deletion) whether or not the
  // file operation succeeded, which is the result.
  bool writeData(const DictionaryPtr& dictionary);

  // The last content read or written; nullptr before either.
  const DictionaryPtr& calibrationInfo() const { return calibrationInfo_; }

  // <data folder>/Calibration3D.plist; empty when there is no data folder.
  static std::string filePath();

 private:
  DictionaryPtr calibrationInfo_;
};

// An XML or binary property list file whose root is a dictionary, or nullptr.
DictionaryPtr ReadPropertyListFile(const std::string& path);
// Writes an XML property list atomically (temporary file, then rename).
bool WritePropertyListFile(const std::string& path, const DictionaryPtr& dictionary);

// calibrationInfo["hcalibDatas"]["hCameraModelData"], or nullptr.
std::shared_ptr<archive::Data> CameraModelData(const DictionaryPtr& info);
// {"hcalibDatas": {"hCameraModelData": bytes}}, what the calibration tool writes.
std::shared_ptr<archive::Dictionary> CalibrationDictionary(std::vector<uint8_t> camera_model_bytes);

}  // namespace velmora
