#pragma once

#include <cstdint>
#include <string>

#include "bytes/Error.h"

namespace vellum {

namespace write_error {
struct Unaligned {
  std::uint64_t offset;
  std::int64_t count;
  std::int64_t blockSize;
  bool operator==(const Unaligned&) const = default;
};
struct OutOfRange {
  std::uint64_t offset;
  std::int64_t count;
  std::uint64_t size;
  bool operator==(const OutOfRange&) const = default;
};
struct WriteFailed {
  std::uint64_t offset;
  int errnum;
  bool operator==(const WriteFailed&) const = default;
};
struct CannotOpen {
  std::string path;
  int errnum;
  bool operator==(const CannotOpen&) const = default;
};
struct AuthorizationDenied {
  std::string path;
  bool operator==(const AuthorizationDenied&) const = default;
};
struct Refused {
  std::string message;
  bool operator==(const Refused&) const = default;
};
struct Removed {
  std::string path;
  bool operator==(const Removed&) const = default;
};
// A disk over 4 TB that no Quick Check has yet proven fake: erasing it is
// refused, a Quick Check is not.
struct NeedsQuickCheck {
  std::string name;
  bool operator==(const NeedsQuickCheck&) const = default;
};
}  // namespace write_error

// Every failure on the write side: bad requests, failed writes, and refusals
// (complete user-facing sentences from the guard, the opener and the formatter).
class WriteError final
    : public ErrorOf<write_error::Unaligned, write_error::OutOfRange, write_error::WriteFailed,
                     write_error::CannotOpen, write_error::AuthorizationDenied,
                     write_error::Refused, write_error::Removed, write_error::NeedsQuickCheck> {
 public:
  using Unaligned = write_error::Unaligned;
  using OutOfRange = write_error::OutOfRange;
  using WriteFailed = write_error::WriteFailed;
  using CannotOpen = write_error::CannotOpen;
  using AuthorizationDenied = write_error::AuthorizationDenied;
  using Refused = write_error::Refused;
  using Removed = write_error::Removed;
  using NeedsQuickCheck = write_error::NeedsQuickCheck;

  explicit WriteError(Case errorCase);

  static WriteError unaligned(std::uint64_t offset, std::int64_t count, std::int64_t blockSize) {
    return WriteError(Unaligned{offset, count, blockSize});
  }
  static WriteError outOfRange(std::uint64_t offset, std::int64_t count, std::uint64_t size) {
    return WriteError(OutOfRange{offset, count, size});
  }
  static WriteError writeFailed(std::uint64_t offset, int errnum) {
    return WriteError(WriteFailed{offset, errnum});
  }
  static WriteError cannotOpen(std::string path, int errnum) {
    return WriteError(CannotOpen{std::move(path), errnum});
  }
  static WriteError authorizationDenied(std::string path) {
    return WriteError(AuthorizationDenied{std::move(path)});
  }
  static WriteError refused(std::string message) { return WriteError(Refused{std::move(message)}); }
  // The device went away (unplugged, card pulled out) while it was in use.
  static WriteError removed(std::string path) { return WriteError(Removed{std::move(path)}); }
  static WriteError needsQuickCheck(std::string name) {
    return WriteError(NeedsQuickCheck{std::move(name)});
  }
};

}  // namespace vellum
