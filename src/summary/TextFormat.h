#pragma once

#include <cstdint>
#include <string>

namespace vellum {

// A speed in megabytes per second with one decimal: "23.4 MB/s".
std::string speedText(double mbps);

// How long a run took, as "Under a second" below one second, then in
// abbreviated units rounded to the smallest one shown: minutes and seconds
// below an hour ("45s", "2m 30s", "1m"), hours and minutes from an hour on
// ("1h 5m", "2h"). Zero units are left out; the text is never empty.
std::string durationText(double seconds);

// A byte count in decimal units with at most one decimal: "268.4 MB".
std::string sizeText(std::uint64_t bytes);

}  // namespace vellum
