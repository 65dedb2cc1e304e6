#pragma once

#include <exception>
#include <string>

namespace vellum::testing {

// What action throws as E, as the user reads it, or "" when it throws
// nothing: for tables that mix refusals with cases that pass. A single
// expected failure reads better as EXPECT_THAT(action, ThrowsMessage<E>(...)).
template <typename E = std::exception, typename F>
std::string errorText(F&& action) {
  try {
    action();
  } catch (const E& error) {
    return error.what();
  }
  return "";
}

}  // namespace vellum::testing
