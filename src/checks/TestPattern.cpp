#include "checks/TestPattern.h"

#include <bit>
#include <cstring>

#include "bytes/Checked.h"

namespace vellum {

namespace {

constexpr std::uint64_t kGamma = 0x9E3779B97F4A7C15;
constexpr std::uint64_t kSeedMix = 0xD1B54A32D192ED03;
constexpr std::uint8_t kMagic[8] = {'V', 'L', 'V', 'C', 'H', 'K', '0', '1'};
constexpr std::size_t kHeaderBytes = 32;
constexpr std::size_t kFillWords = (TestPattern::blockSize - kHeaderBytes) / 8;
static_assert(kFillWords == 508 && kFillWords % 4 == 0);

inline std::uint64_t toLittle(std::uint64_t value) {
  if constexpr (std::endian::native == std::endian::big) return __builtin_bswap64(value);
  return value;
}

inline void storeWord(std::uint8_t* at, std::uint64_t value) {
  value = toLittle(value);
  std::memcpy(at, &value, sizeof value);
}

inline std::uint64_t loadWord(const std::uint8_t* at) {
  std::uint64_t value = 0;
  std::memcpy(&value, at, sizeof value);
  return toLittle(value);
}

// The SplitMix64 output function.
inline std::uint64_t mix(std::uint64_t z) {
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EB;
  return z ^ (z >> 31);
}

inline std::uint64_t seedFor(std::uint64_t nonce, std::uint64_t index) {
  return (index * kGamma) ^ nonce ^ kSeedMix;
}

// Word k of a block's fill mixes seed + (k + 1) * gamma, so four successive
// words are four independent chains the CPU can run side by side.
void writeFill(std::uint64_t seed, std::uint8_t* out) {
  std::uint64_t z = seed + kGamma;
  for (std::size_t k = 0; k < kFillWords; k += 4, z += 4 * kGamma) {
    const std::uint64_t a = mix(z);
    const std::uint64_t b = mix(z + kGamma);
    const std::uint64_t c = mix(z + 2 * kGamma);
    const std::uint64_t d = mix(z + 3 * kGamma);
    std::uint8_t* at = out + 8 * k;
    storeWord(at, a);
    storeWord(at + 8, b);
    storeWord(at + 16, c);
    storeWord(at + 24, d);
  }
}

// Compares while generating; stops at the first group of four words that
// differs.
bool fillMatches(std::uint64_t seed, const std::uint8_t* in) {
  std::uint64_t z = seed + kGamma;
  for (std::size_t k = 0; k < kFillWords; k += 4, z += 4 * kGamma) {
    const std::uint8_t* at = in + 8 * k;
    const std::uint64_t diff = (mix(z) ^ loadWord(at)) | (mix(z + kGamma) ^ loadWord(at + 8)) |
                               (mix(z + 2 * kGamma) ^ loadWord(at + 16)) |
                               (mix(z + 3 * kGamma) ^ loadWord(at + 24));
    if (diff != 0) return false;
  }
  return true;
}

// The last index of count blocks starting at first must not pass 2^64 - 1.
void requireIndices(std::uint64_t first, std::uint64_t count) {
  if (count > 0) checkedAdd(first, count - 1);
}

}  // namespace

Bytes TestPattern::blocks(std::uint64_t first, std::int64_t count) const {
  const std::uint64_t n = toUnsigned(count);
  requireIndices(first, n);
  const std::uint64_t bytes = checkedMul(n, blockSize);
  VL_PRECONDITION(bytes <= SIZE_MAX);
  Bytes out(static_cast<std::size_t>(bytes));
  fill(first, out);
  return out;
}

void TestPattern::fill(std::uint64_t first, std::span<std::uint8_t> out) const {
  VL_PRECONDITION(out.size() % blockSize == 0);
  const std::size_t count = out.size() / blockSize;
  requireIndices(first, count);
  std::uint8_t* block = out.data();
  for (std::size_t i = 0; i < count; ++i, block += blockSize) {
    const std::uint64_t index = first + i;
    std::memcpy(block, kMagic, sizeof kMagic);
    storeWord(block + 8, nonce_);
    storeWord(block + 16, index);
    storeWord(block + 24, 0);
    writeFill(seedFor(nonce_, index), block + kHeaderBytes);
  }
}

TestPattern::Verdict TestPattern::verify(std::span<const std::uint8_t> block,
                                         std::uint64_t expectedIndex) const {
  if (block.size() != blockSize) return Corrupt{};
  if (std::memcmp(block.data(), kMagic, sizeof kMagic) != 0) return Corrupt{};
  if (loadWord(block.data() + 8) != nonce_) return Corrupt{};
  // Regenerate from the stored index, so a whole block at the wrong address
  // is still recognised as one of ours. Bytes 24-31 are never checked.
  const std::uint64_t stored = loadWord(block.data() + 16);
  if (!fillMatches(seedFor(nonce_, stored), block.data() + kHeaderBytes)) return Corrupt{};
  if (stored == expectedIndex) return Intact{};
  return Aliased{stored};
}

}  // namespace vellum
