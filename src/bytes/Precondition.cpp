#include "bytes/Precondition.h"

#include <cstdio>
#include <cstdlib>

namespace vellum::detail {

void preconditionFailed(const char* condition, const char* file, int line) noexcept {
  std::fprintf(stderr, "%s:%d: precondition failed: %s\n", file, line, condition);
  std::abort();
}

}  // namespace vellum::detail
