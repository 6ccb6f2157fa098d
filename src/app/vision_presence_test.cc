// Presence and version of the vision library's folder.
#include "app/vision_presence.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <tuple>

#include "app/app_delegate.h"

namespace velmora {
namespace {

namespace fs = std::filesystem;

class PresenceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/presence_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    root_ = tmpl;
  }
  void TearDown() override { fs::remove_all(root_); }

  // A library folder whose Info.plist has this version (none: no key at all).
  std::string Folder(const std::string& name, std::optional<std::string> version) {
    const fs::path dir = root_ / name;
    fs::create_directories(dir);
    std::ofstream plist(dir / "Info.plist");
    plist << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
          << "<key>CFBundleName</key><string>VelmoraVision</string>\n";
    if (version) plist << "<key>CFBundleShortVersionString</key><string>" << *version << "</string>\n";
    plist << "</dict>\n</plist>\n";
    return dir.string();
  }

  fs::path root_;
};

TEST_F(PresenceTest, VersionParseTable) {
  struct Case {
    std::optional<std::string> version;
    int32_t status, major, minor, revision;
    bool present;
  };
  const Case cases[] = {
      {"12.0", 1, 12, 0, 0, true},
      {" 12.1", 1, 12, 1, 0, true},
      {"13.1", 1, 13, 1, 0, false},
      {"12", 1, 12, 0, 0, true},
      {"12.0.2", 1, 12, 0, 2, true},
      {"12.3.4.5", 1, 12, 3, 4, true},   // components after the third are ignored
      {"12b.x7.3rc", 1, 12, 0, 3, true}, // digits up to the first non-digit
      {"11.99", 1, 11, 99, 0, false},
      {"v12", 1, 0, 0, 0, false},
      {std::nullopt, 0, 0, 0, 0, false},
  };
  int n = 0;
  for (const Case& c : cases) {
    const std::string dir = Folder("lib" + std::to_string(n++), c.version);
    SCOPED_TRACE(c.version.value_or("<no key>"));
    int32_t major = -7, minor = -7, revision = -7;
    EXPECT_EQ(HalconFrameworkVersionAt(dir, &major, &minor, &revision), c.status);
    EXPECT_EQ(std::tuple(major, minor, revision), std::tuple(c.major, c.minor, c.revision));
    EXPECT_EQ(VisionLibraryPresentAt(dir), c.present);
  }
}

TEST_F(PresenceTest, MissingOrUnreadableInstallations) {
  int32_t major = 5, minor = 5, revision = 5;
  // A file where the folder should be cannot be opened as one.
  const fs::path file = root_ / "file";
  std::ofstream(file) << "12.0";
  EXPECT_EQ(HalconFrameworkVersionAt(file.string(), &major, &minor, &revision), -1);
  EXPECT_EQ(major, 0);
  EXPECT_FALSE(VisionLibraryPresentAt(file.string()));
  EXPECT_EQ(HalconFrameworkVersionAt((root_ / "absent").string(), &major, &minor, &revision), -1);
  // A folder without Info.plist, or with garbage in it, has no readable version.
  fs::create_directories(root_ / "empty");
  EXPECT_EQ(HalconFrameworkVersionAt((root_ / "empty").string(), &major, &minor, &revision), 0);
  fs::create_directories(root_ / "garbage");
  std::ofstream(root_ / "garbage" / "Info.plist") << "not a property list";
  EXPECT_EQ(HalconFrameworkVersionAt((root_ / "garbage").string(), &major, &minor, &revision), 0);
  EXPECT_FALSE(VisionLibraryPresentAt((root_ / "garbage").string()));
}

TEST_F(PresenceTest, DelegateAnswersOncePerProcess) {
  const std::string dir = Folder("installed", "12.0");
  setenv("VELMORA_VISION_DIR", dir.c_str(), 1);
  AppDelegate delegate;
  EXPECT_TRUE(delegate.isHalconFrameworkExist());
  fs::remove_all(dir);
  EXPECT_TRUE(delegate.isHalconFrameworkExist());  // removing it later changes nothing

  AppDelegate fresh;  // a new process would look again
  EXPECT_FALSE(fresh.isHalconFrameworkExist());
  unsetenv("VELMORA_VISION_DIR");
}

TEST(LeadingIntegerTest, ParsesLikeThePlatform) {
  struct Case {
    const char* text;
    int32_t value;
  } cases[] = {{"", 0}, {"  7x", 7}, {"-3", -3}, {"+4", 4}, {"x1", 0}, {"99999999999", 2147483647}};
  for (const Case& c : cases) EXPECT_EQ(LeadingInteger(c.text), c.value) << c.text;
}

}  // namespace
}  // namespace velmora
