#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string_view>

#include "bytes/ByteSource.h"
#include "bytes/MemorySource.h"

namespace vellum::testing {

// Small valid files of each format, built in code, and helpers to lay them
// out in an image.

void append(Bytes& out, std::initializer_list<std::uint8_t> bytes);
void append(Bytes& out, std::string_view text);
void append(Bytes& out, const Bytes& bytes);
void appendBe16(Bytes& out, std::uint16_t value);
void appendBe32(Bytes& out, std::uint32_t value);
void appendBe64(Bytes& out, std::uint64_t value);
void appendLe16(Bytes& out, std::uint16_t value);
void appendLe32(Bytes& out, std::uint32_t value);
void putLe32(Bytes& out, std::size_t at, std::uint32_t value);
void putBe32(Bytes& out, std::size_t at, std::uint32_t value);

// A chunk: length, type, data, CRC (zero: CRCs are not checked).
void appendPngChunk(Bytes& out, std::string_view type, const Bytes& data);
// Signature, IHDR, one IDAT of idatBytes, IEND.
Bytes samplePng(std::size_t idatBytes = 100);

// SOI, APP0, optional APP1 holding a complete thumbnail JPEG, DQT, SOS, then
// scanBytes of entropy-coded data (no FF in it), then EOI unless withEnd is
// false.
Bytes sampleJpeg(std::size_t scanBytes = 200, bool withThumbnail = false, bool withEnd = true);

// "GIF89a", a 2-entry global table, a graphic control extension, one image
// with a local table and two data sub-blocks, trailer.
Bytes sampleGif();

// A 24-bit BMP with a 40-byte header and width x height pixels.
Bytes sampleBmp(std::uint32_t width = 4, std::uint32_t height = 4);

// A box: 32-bit size, type, payload.
void appendBox(Bytes& out, std::string_view type, const Bytes& payload);
// "ftyp" of the given brand, then the listed boxes with payloads of the given sizes.
Bytes sampleIsoBmff(std::string_view brand,
                    std::initializer_list<std::pair<std::string_view, std::size_t>> boxes);

// "RIFF"/"FORM" container: magic, size (of form type plus body), form type, body.
Bytes sampleRiff(std::string_view magic, std::string_view form, std::size_t bodyBytes);

// size bytes of filler that holds no signature of any format.
Bytes filler(std::size_t size, std::uint8_t value = 0x00);

// Places data at offset in image (which grows as needed).
void place(Bytes& image, std::size_t offset, const Bytes& data);

// A memory source whose reads can be failed or counted by a test.
class ScriptedSource final : public ByteSource {
 public:
  explicit ScriptedSource(Bytes data) : inner_(std::move(data)) {}

  // Runs before each read; may throw.
  std::function<void(std::uint64_t offset, std::size_t count)> beforeRead;
  int reads = 0;

  std::uint64_t size() const override { return inner_.size(); }
  std::int64_t badReads() const override { return 0; }
  std::string descriptionForReport() const override { return "scripted"; }
  std::size_t readInto(std::uint64_t offset, std::span<std::uint8_t> out) override {
    ++reads;
    if (beforeRead) beforeRead(offset, out.size());
    return inner_.readInto(offset, out);
  }

 private:
  MemorySource inner_;
};

}  // namespace vellum::testing
