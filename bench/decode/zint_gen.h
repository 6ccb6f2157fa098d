#pragma once
// Bar code modules from an independent encoder, Debian's `zint` program
// (its --dump output), so that the evaluation does not only read what the
// project's own writer (zxing-cpp) produced.
#include <string>

#include <opencv2/core.hpp>

#include "decode/symbol_gen.h"

namespace velmora::symgen {

// True when the zint program can be run.
bool ZintAvailable();

// Modules of a linear symbol as zint encodes it (one row, 0 = bar, 255 =
// space, no quiet zone), or an empty matrix when zint refuses the text or is
// missing. Supported kinds: Code 39 (no check character), Code 128, Code 93,
// ITF, Codabar, EAN-13.
cv::Mat ZintModules(Kind kind, const std::string& text);

}  // namespace velmora::symgen
