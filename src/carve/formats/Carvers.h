#pragma once

#include "carve/FormatCarver.h"

namespace vellum {

// One constant instance per format, each defined in its own file under
// formats/ and listed once in CarverRegistry.cpp.
const FormatCarver& pngCarver();
const FormatCarver& jpegCarver();
const FormatCarver& gifCarver();
const FormatCarver& bmpCarver();
const FormatCarver& isoBmffCarver();
const FormatCarver& riffCarver();
const FormatCarver& tiffCarver();
const FormatCarver& pdfCarver();
const FormatCarver& zipCarver();
const FormatCarver& ole2Carver();
const FormatCarver& mp3Carver();

}  // namespace vellum
