#include <gtest/gtest.h>

#include <numeric>

#include "CarveSamples.h"
#include "bytes/DeviceError.h"
#include "carve/ReadContext.h"

namespace vellum {
namespace {

using testing::ScriptedSource;

Bytes counting(std::size_t size) {
  Bytes data(size);
  std::iota(data.begin(), data.end(), std::uint8_t{0});
  return data;
}

Bytes pattern(std::string_view text) {
  return Bytes(text.begin(), text.end());
}

TEST(ReadContextTest, ReadsAreClampedAtTheEnd) {
  ScriptedSource source(counting(100));
  ReadContext context(source);
  EXPECT_EQ(context.bytes(98, 10), (Bytes{98, 99}));
  EXPECT_TRUE(context.bytes(100, 1).empty());
  EXPECT_TRUE(context.bytes(0, 0).empty());
  EXPECT_TRUE(context.bytes(0, -5).empty());
  EXPECT_EQ(context.byte(99), 99);
  EXPECT_EQ(context.byte(100), std::nullopt);
  EXPECT_EQ(context.u32(97, true), std::nullopt);  // only 3 bytes left
  EXPECT_EQ(context.u32(96, true), 0x60616263U);
  EXPECT_EQ(context.u32(96, false), 0x63626160U);
  EXPECT_EQ(context.u16(1, true), 0x0102);
  EXPECT_EQ(context.u16(1, false), 0x0201);
  EXPECT_EQ(context.u64(0, true), 0x0001020304050607ULL);
  EXPECT_EQ(context.u64(93, false), std::nullopt);
}

TEST(ReadContextTest, WindowServesOnlyRangesWhollyInsideIt) {
  ScriptedSource source(counting(100));
  ReadContext context(source);
  Bytes window(20, 0xEE);  // differs from the source, so we can tell who answered
  context.setWindow(40, window);

  source.reads = 0;
  EXPECT_EQ(context.bytes(40, 20), Bytes(20, 0xEE));
  EXPECT_EQ(context.u32(56, true), 0xEEEEEEEEU);
  EXPECT_EQ(source.reads, 0);

  // Begins inside the window, ends past it: all from the source.
  const Bytes straddling = context.bytes(55, 10);
  EXPECT_EQ(straddling, (Bytes{55, 56, 57, 58, 59, 60, 61, 62, 63, 64}));
  EXPECT_EQ(context.bytes(39, 2), (Bytes{39, 40}));
  EXPECT_EQ(source.reads, 2);
}

TEST(ReadContextTest, SourceErrorsPropagate) {
  ScriptedSource source(counting(100));
  source.beforeRead = [](std::uint64_t, std::size_t) { throw DeviceError::readFailed(7, 5); };
  ReadContext context(source);
  EXPECT_THROW(context.bytes(0, 4), DeviceError);
  EXPECT_THROW(context.u16(0, true), DeviceError);
  EXPECT_THROW(context.find(pattern("x"), 0, 10, 4), DeviceError);
}

TEST(ReadContextTest, FindWalksInOverlappingSteps) {
  Bytes data(100, '.');
  const auto put = [&](std::size_t at, std::string_view text) {
    std::copy(text.begin(), text.end(), data.begin() + static_cast<std::ptrdiff_t>(at));
  };
  put(14, "ABCD");  // straddles the step boundary at 16
  put(60, "ABCD");
  put(97, "XYZ");  // ends exactly at the source's end
  ScriptedSource source(data);
  ReadContext context(source);

  struct Case {
    std::string_view pattern;
    std::uint64_t from, limit, chunk;
    std::optional<std::uint64_t> expected;
  };
  const Case cases[] = {
      {"ABCD", 0, 100, 16, 14},          {"ABCD", 15, 100, 16, 60},
      {"ABCD", 0, 14, 16, std::nullopt},  // the hit begins at the end of the range
      {"ABCD", 0, 15, 16, 14},            // begins inside, ends outside the range
      {"ABCD", 0, 1000, 7, 14},           // limit past the source
      {"XYZ", 0, 100, 16, 97},           {"XYZ", 90, 100, 1, 97},
      {"", 0, 100, 16, std::nullopt},    {"ABCD", 100, 100, 16, std::nullopt},
      {"QQ", 0, 100, 16, std::nullopt},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(context.find(pattern(c.pattern), c.from, c.limit, c.chunk), c.expected)
        << c.pattern << " from " << c.from << " limit " << c.limit << " chunk " << c.chunk;
  }
}

TEST(ReadContextTest, FindLastWithAndWithoutSlack) {
  // Hits of "%%EOF" at 10, 30, one straddling the first 1 MiB block boundary
  // and one near the end.
  Bytes data(2'100'000, '.');
  const auto put = [&](std::size_t at) {
    std::copy_n("%%EOF", 5, data.begin() + static_cast<std::ptrdiff_t>(at));
  };
  put(10);
  put(30);
  put(1'048'578);
  put(2'098'000);
  ScriptedSource source(data);
  ReadContext context(source);
  const Bytes eof = pattern("%%EOF");

  EXPECT_EQ(context.findLast(eof, 0, UINT64_MAX), 2'098'000U);
  EXPECT_EQ(context.findLast(eof, 0, 2'098'000), 1'048'578U);  // must begin before the end
  EXPECT_EQ(context.findLast(eof, 0, 1'048'580), 1'048'578U);
  EXPECT_EQ(context.findLast(eof, 11, 100), 30U);
  EXPECT_EQ(context.findLast(eof, 31, 1000), std::nullopt);
  EXPECT_EQ(context.findLast(eof, 0, 10), std::nullopt);

  // With slack the walk goes on only while the next hit is near the last one.
  EXPECT_EQ(context.findLast(eof, 0, UINT64_MAX, 100), 30U);
  EXPECT_EQ(context.findLast(eof, 0, UINT64_MAX, 1'048'578 - 35 - 1), 30U);
  EXPECT_EQ(context.findLast(eof, 0, UINT64_MAX, 1'048'578 - 35), 1'048'578U);
  EXPECT_EQ(context.findLast(eof, 0, UINT64_MAX, 2'098'000 - 1'048'583 - 1), 1'048'578U);
  EXPECT_EQ(context.findLast(eof, 0, UINT64_MAX, 2'098'000 - 1'048'583), 2'098'000U);
  EXPECT_EQ(context.findLast(eof, 0, 20, 1000), 10U);  // the range still bounds it
  EXPECT_EQ(context.findLast(eof, 2'098'001, UINT64_MAX, 10), std::nullopt);
}

}  // namespace
}  // namespace vellum
