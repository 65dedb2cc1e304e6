#include "bytes/Error.h"

#include <system_error>

namespace vellum {

std::string errnoText(int errnum) {
  return std::generic_category().message(errnum);
}

}  // namespace vellum
