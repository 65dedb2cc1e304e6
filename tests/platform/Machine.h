#pragma once

#include <cstdlib>
#include <optional>
#include <string>

#include "FakeSystem.h"
#include "support/ErrorText.h"

namespace vellum::testing {

// A laptop with a system NVMe drive, an internal SATA disk, a built-in SD slot
// with a card, an eMMC with boot partitions, a two-slot USB card reader (one
// slot empty), a USB stick, a USB SSD, a loop device and a zram swap.
void buildLaptop(FakeSystem& fake);

// Sets (or, with no value, unsets) an environment variable for one scope.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, std::optional<std::string> value);
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  std::string name_;
  std::optional<std::string> previous_;
};

}  // namespace vellum::testing
