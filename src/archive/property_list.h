// Property lists (XML and binary) of the archive's objects: dictionaries,
// arrays, strings, numbers, data and dates, as Foundation writes them for
// files and for the binary form some messages carry.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "archive/archive.h"

namespace velmora::archive {

enum class PlistFormat { kXml, kBinary };

// Encodes `root` (a dictionary or array, or any single property-list value).
// Booleans are numbers of type 'c' or 'B'. Throws ArchiveError for objects a
// property list cannot hold (images, boxed geometry, non-string keys, other
// classes) or a null root.
std::vector<uint8_t> EncodePropertyList(const ObjectPtr& root, PlistFormat format);

// Decodes an XML or binary property list; nullptr when the bytes are not one.
// Integers come back as numbers of type 'q', booleans of type 'c', reals 'd'.
ObjectPtr DecodePropertyList(const uint8_t* bytes, std::size_t size);

// A date (NSDate): seconds since 2001-01-01 00:00:00 UTC.
ObjectPtr MakeDate(double seconds_since_2001);
std::optional<double> DateValue(const ObjectPtr& object);

}  // namespace velmora::archive
