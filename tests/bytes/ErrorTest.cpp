#include <gtest/gtest.h>

#include "bytes/DeviceError.h"

namespace vellum {
namespace {

TEST(Error, CasesAndPayloadsAreInspectable) {
  const DeviceError error = DeviceError::readFailed(512, 5);
  ASSERT_TRUE(error.is<DeviceError::ReadFailed>());
  EXPECT_EQ(error.as<DeviceError::ReadFailed>()->offset, 512u);
  EXPECT_EQ(error.as<DeviceError::CannotOpen>(), nullptr);
  EXPECT_STREQ(error.what(), error.description().c_str());
  try {
    throw error;
  } catch (const Error& base) {
    EXPECT_EQ(base.description(), "Read failed at offset 512: Input/output error");
  }
}

}  // namespace
}  // namespace vellum
