#pragma once
// Presence and version of the vision library's installation folder (the
// stand-in for the library's framework bundle): a folder holding Info.plist
// whose CFBundleShortVersionString names the version, "12.0" for the operator
// set this add-in is built for.
#include <cstdint>
#include <string>
#include <vector>

namespace velmora {

// Where the installation folder was looked for, and what was found there.
struct VisionFolderSearch {
  struct Candidate {
    std::string folder;
    std::string source;   // "VELMORA_VISION_DIR", "configured", "beside the executable"
    std::string finding;  // "present, version 12.0", or why not
    bool present = false;
  };
  std::vector<Candidate> tried;
  std::string folder;  // the one the add-in uses
};

// $VELMORA_VISION_DIR when set and not empty (an explicit choice, used even
// when it does not hold the library). Otherwise the folder chosen at configure
// time when it holds the library, else the same layout relative to the running
// executable (an installation moved elsewhere, or the build tree), else the
// configured folder.
VisionFolderSearch LocateVisionFolder();
// What a folder holds: "present, version 12.0", "no such folder", ...
std::string DescribeVisionFolder(const std::string& folder, bool* present = nullptr);
// The folder LocateVisionFolder() chooses.
std::string HalconFramework_FilePath();
// Resolves the folder once for this process and, when it was found beside the
// executable, exports it as VELMORA_VISION_DIR so that every part of the
// library (the OCR font lookup too) reads the same one. Call before threads
// start. Returns the search for the launch log.
VisionFolderSearch SettleVisionFolder();
// One log line: where the folder was looked for and what was found.
std::string VisionFolderLogLine(const VisionFolderSearch& search);

// Reads the version of the folder's Info.plist into major, minor, revision
// (all set to 0 first). Returns 1 when at least one number was read, 0 when
// there is no readable version, -1 when the folder cannot be opened.
int32_t HalconFrameworkVersion(int32_t* major, int32_t* minor, int32_t* revision);
int32_t HalconFrameworkVersionAt(const std::string& folder, int32_t* major, int32_t* minor,
                                 int32_t* revision);

// The uncached presence test: `folder` is a folder and its version has major
// number 12 (minor and revision are not looked at).
bool VisionLibraryPresentAt(const std::string& folder);

// The platform's leading-integer parse (`intValue`): leading white space
// skipped, an optional sign, digits up to the first non-digit; 0 when there
// are none.
int32_t LeadingInteger(const std::string& text);

}  // namespace velmora
