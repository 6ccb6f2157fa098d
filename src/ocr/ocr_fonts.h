#pragma once
// The OCR font catalogue: the families the host is offered, and the three
// classifiers (full font, digits, letters and specials) of a family.
#include <optional>
#include <string>

#include "archive/archive.h"
#include "vision/core/tuple.h"

namespace velmora {

// The four families announced to the host, with their "has0-9" and "hasA-Z"
// flags; "OCRB" is loadable but not announced.
archive::ObjectPtr installedFonts();

// Reads the three classifier files of the family named exactly `name` into
// slots 0, 1 and 2; an unknown name or nil reads nothing. A missing or
// damaged file raises vision::HException (slots read before keep their
// handles).
void readOCRFont(const std::optional<std::string>& name, vision::HTuple classifiers[3]);

// Development aid: reads the image file at `path` with the default settings
// for as long as `run` is set.
void ocrAtPath(const std::string& path, const bool& run, bool visionPresent);

}  // namespace velmora
