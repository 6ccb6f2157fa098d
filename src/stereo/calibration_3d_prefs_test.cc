#include "stereo/calibration_3d_prefs.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "archive/property_list.h"

namespace velmora {
namespace {

namespace fs = std::filesystem;
using archive::AsData;
using archive::AsDictionary;
using archive::MakeDictionary;
using archive::MakeInt64;
using archive::MakeString;

// Each test gets its own data folder through XDG_DATA_HOME.
class CalibrationStore : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = fs::temp_directory_path() / ("calib_store_" + std::to_string(::getpid()) + "_" +
                                         ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(root_);
    fs::create_directories(root_ / "velmora_AOI");
    ::setenv("XDG_DATA_HOME", root_.c_str(), 1);
  }
  void TearDown() override { fs::remove_all(root_); }

  fs::path file() const { return root_ / "velmora_AOI" / "Calibration3D.plist"; }
  void WriteFile(const std::string& bytes) {
    std::ofstream(file(), std::ios::binary) << bytes;
  }
  void WriteFile(const archive::ObjectPtr& root, archive::PlistFormat format) {
    const auto bytes = archive::EncodePropertyList(root, format);
    WriteFile(std::string(bytes.begin(), bytes.end()));
  }

  fs::path root_;
};

std::shared_ptr<archive::Dictionary> Dict(std::initializer_list<std::pair<const char*, archive::ObjectPtr>> items) {
  auto d = MakeDictionary();
  for (const auto& [k, v] : items) d->Set(k, v);
  return d;
}

TEST_F(CalibrationStore, FileIsFoundInTheDataFolder) {
  EXPECT_EQ(Calibration_3D_Prefs::filePath(), file().string());
}

TEST_F(CalibrationStore, UnreadableFilesLeaveTheContentAsItWas) {
  Calibration_3D_Prefs prefs;
  WriteFile(Dict({{"kept", MakeInt64(7)}}), archive::PlistFormat::kXml);
  ASSERT_TRUE(prefs.readData());
  const DictionaryPtr before = prefs.calibrationInfo();
  const std::string xml_array =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><array><integer>1</integer></array></plist>";
  struct Case {
    const char* what;
    std::optional<std::string> bytes;  // nullopt: no file
  };
  const Case cases[] = {
      {"missing file", std::nullopt},
      {"empty file", std::string()},
      {"root is an array", xml_array},
      {"root is a string", "<plist version=\"1.0\"><string>x</string></plist>"},
      {"truncated XML", xml_array.substr(0, 60)},
      {"not a property list", std::string("\x00\x01garbage\xff", 11)},
      {"damaged binary list", std::string("bplist00\xd1\x01\x02", 11)},
  };
  for (const Case& c : cases) {
    fs::remove(file());
    if (c.bytes) WriteFile(*c.bytes);
    EXPECT_FALSE(prefs.readData()) << c.what;
    EXPECT_EQ(prefs.calibrationInfo(), before) << c.what;
  }
}

TEST_F(CalibrationStore, ReadsXmlAndBinaryListsWithRawBytes) {
  std::vector<uint8_t> bytes(70000);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 131 + (i >> 8));
  for (auto format : {archive::PlistFormat::kXml, archive::PlistFormat::kBinary}) {
    WriteFile(CalibrationDictionary(bytes), format);
    Calibration_3D_Prefs prefs;
    EXPECT_EQ(prefs.calibrationInfo(), nullptr);
    ASSERT_TRUE(prefs.readData());
    const auto data = CameraModelData(prefs.calibrationInfo());
    ASSERT_TRUE(data);
    EXPECT_EQ(data->bytes, bytes);
  }
}

TEST_F(CalibrationStore, WriteMergesTopLevelKeysWithWhatWasRead) {
  WriteFile(Dict({{"hcalibDatas", Dict({{"hCameraModelData", archive::MakeData({1, 2, 3})}, {"note", MakeString("a")}})},
                  {"other", MakeString("kept")}}),
            archive::PlistFormat::kXml);
  Calibration_3D_Prefs prefs;
  ASSERT_TRUE(prefs.readData());
  ASSERT_TRUE(prefs.writeData(CalibrationDictionary({9, 9})));

  // In memory and on disk: "hcalibDatas" replaced whole (its "note" is gone), "other" kept.
  Calibration_3D_Prefs fresh;
  ASSERT_TRUE(fresh.readData());
  for (const DictionaryPtr& info : {prefs.calibrationInfo(), fresh.calibrationInfo()}) {
    ASSERT_TRUE(info);
    EXPECT_EQ(archive::ReadString(info, "other"), "kept");
    const auto datas = AsDictionary(info->Get("hcalibDatas"));
    ASSERT_TRUE(datas);
    EXPECT_EQ(datas->size(), 1u);
    EXPECT_EQ(AsData(datas->Get("hCameraModelData"))->bytes, (std::vector<uint8_t>{9, 9}));
  }
}

TEST_F(CalibrationStore, WriteBeforeAnyReadWritesOnlyTheGivenKeys) {
  WriteFile(Dict({{"other", MakeString("on disk")}}), archive::PlistFormat::kXml);
  Calibration_3D_Prefs prefs;
  ASSERT_TRUE(prefs.writeData(Dict({{"new", MakeInt64(-5)}})));
  ASSERT_TRUE(prefs.readData());
  EXPECT_EQ(prefs.calibrationInfo()->size(), 1u);
  EXPECT_EQ(archive::ReadInt(prefs.calibrationInfo(), "new"), -5);
  EXPECT_FALSE(prefs.calibrationInfo()->Get("other"));
}

TEST_F(CalibrationStore, WritingNothingDeletesTheFile) {
  WriteFile(CalibrationDictionary({1}), archive::PlistFormat::kXml);
  Calibration_3D_Prefs prefs;
  ASSERT_TRUE(prefs.readData());
  EXPECT_TRUE(prefs.writeData(nullptr));
  EXPECT_FALSE(fs::exists(file()));
  ASSERT_TRUE(prefs.calibrationInfo());
  EXPECT_EQ(prefs.calibrationInfo()->size(), 0u);
  EXPECT_FALSE(prefs.readData());
  EXPECT_EQ(prefs.calibrationInfo()->size(), 0u);
  // Deleting a file that is not there fails, and the content is still emptied.
  ASSERT_TRUE(prefs.writeData(Dict({{"a", MakeInt64(1)}})));
  fs::remove(file());
  EXPECT_FALSE(prefs.writeData(nullptr));
  EXPECT_EQ(prefs.calibrationInfo()->size(), 0u);
}

TEST_F(CalibrationStore, FailedWriteStillHoldsTheMergedContent) {
  Calibration_3D_Prefs prefs;
  // A folder where the file should be: the rename over it fails.
  fs::create_directories(file());
  EXPECT_FALSE(prefs.writeData(Dict({{"a", MakeInt64(1)}})));
  EXPECT_EQ(archive::ReadInt(prefs.calibrationInfo(), "a"), 1);
  // A value no property list can hold: the write fails, nothing is left behind.
  fs::remove(file());
  EXPECT_FALSE(prefs.writeData(Dict({{"rect", archive::MakeRect(0, 0, 1, 1)}})));
  EXPECT_FALSE(fs::exists(file()));
  EXPECT_EQ(archive::ReadInt(prefs.calibrationInfo(), "a"), 1);
  EXPECT_TRUE(prefs.calibrationInfo()->Get("rect"));
  size_t leftovers = 0;
  for (const auto& e : fs::directory_iterator(root_ / "velmora_AOI")) leftovers += e.path() != file();
  EXPECT_EQ(leftovers, 0u);
}

TEST_F(CalibrationStore, DefaultObjectIsTheLiveInstance) {
  Calibration_3D_Prefs* shared = Calibration_3D_Prefs::defaultObject();
  ASSERT_TRUE(shared);
  EXPECT_EQ(Calibration_3D_Prefs::defaultObject(), shared);
  {
    Calibration_3D_Prefs local;
    EXPECT_EQ(Calibration_3D_Prefs::defaultObject(), &local);
  }
  // The local one is gone: a new live instance is made on demand.
  Calibration_3D_Prefs* again = Calibration_3D_Prefs::defaultObject();
  ASSERT_TRUE(again);
  EXPECT_EQ(Calibration_3D_Prefs::defaultObject(), again);
}

}  // namespace
}  // namespace velmora
