#include "carve/CarverRegistry.h"

#include <algorithm>

#include "carve/formats/Carvers.h"

namespace vellum {

const std::vector<const FormatCarver*>& CarverRegistry::all() {
  static const std::vector<const FormatCarver*> carvers = {
      &pngCarver(),  &jpegCarver(), &gifCarver(), &bmpCarver(),  &isoBmffCarver(), &riffCarver(),
      &tiffCarver(), &pdfCarver(),  &zipCarver(), &ole2Carver(), &mp3Carver(),
  };
  return carvers;
}

std::vector<const FormatCarver*> CarverRegistry::carvers(const FormatCategorySet& categories) {
  std::vector<const FormatCarver*> chosen;
  for (const FormatCarver* carver : all()) {
    const FormatCategorySet own = carver->categories();
    if (std::ranges::any_of(own, [&](FormatCategory c) { return categories.contains(c); }))
      chosen.push_back(carver);
  }
  return chosen;
}

}  // namespace vellum
