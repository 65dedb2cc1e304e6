#pragma once

#include <cstdint>
#include <span>
#include <variant>
#include <vector>

#include "bytes/ByteSource.h"

namespace vellum {

// The self-describing 4096-byte test block: magic "VLVCHK01", nonce, block
// index, a reserved zero word, then 508 SplitMix64 words seeded from nonce and
// index. Reading a block back tells intact, aliased (a whole block of this run
// that belongs to another index) and corrupt apart.
class TestPattern {
 public:
  static constexpr std::size_t blockSize = 4096;

  struct Intact {
    bool operator==(const Intact&) const = default;
  };
  struct Aliased {
    std::uint64_t index;  // the index found inside the block
    bool operator==(const Aliased&) const = default;
  };
  struct Corrupt {
    bool operator==(const Corrupt&) const = default;
  };
  using Verdict = std::variant<Intact, Aliased, Corrupt>;

  explicit TestPattern(std::uint64_t nonce) : nonce_(nonce) {}
  std::uint64_t nonce() const noexcept { return nonce_; }

  // count blocks first, first+1, ... back to back (count * 4096 bytes).
  Bytes blocks(std::uint64_t first, std::int64_t count) const;
  // Fills out (a whole number of blocks) with blocks first, first+1, ...
  // without allocating.
  void fill(std::uint64_t first, std::span<std::uint8_t> out) const;

  Verdict verify(std::span<const std::uint8_t> block, std::uint64_t expectedIndex) const;

 private:
  std::uint64_t nonce_;
};

inline bool isIntact(const TestPattern::Verdict& v) {
  return std::holds_alternative<TestPattern::Intact>(v);
}
inline bool isAliased(const TestPattern::Verdict& v) {
  return std::holds_alternative<TestPattern::Aliased>(v);
}

}  // namespace vellum
