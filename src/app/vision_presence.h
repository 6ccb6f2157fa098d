#pragma once
// Presence and version of the vision library's installation folder (the
// stand-in for the library's framework bundle): a folder holding Info.plist
// whose CFBundleShortVersionString names the version, "12.0" for the operator
// set this add-in is built for.
#include <cstdint>
#include <string>

namespace velmora {

// The installation folder: $VELMORA_VISION_DIR when set and not empty,
// otherwise the folder chosen at configure time.
std::string HalconFramework_FilePath();

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
