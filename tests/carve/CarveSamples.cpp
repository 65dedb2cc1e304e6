#include "CarveSamples.h"

#include <algorithm>

namespace vellum::testing {

// Byte by byte: GCC 12 at -O3 warns falsely about range inserts into an empty vector.
void append(Bytes& out, std::initializer_list<std::uint8_t> bytes) {
  for (std::uint8_t b : bytes)
    out.push_back(b);
}
void append(Bytes& out, std::string_view text) {
  for (char c : text)
    out.push_back(static_cast<std::uint8_t>(c));
}
void append(Bytes& out, const Bytes& bytes) {
  out.reserve(out.size() + bytes.size());
  for (std::uint8_t b : bytes)
    out.push_back(b);
}

void appendBe16(Bytes& out, std::uint16_t value) {
  out.push_back(static_cast<std::uint8_t>(value >> 8));
  out.push_back(static_cast<std::uint8_t>(value));
}
void appendBe32(Bytes& out, std::uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8)
    out.push_back(static_cast<std::uint8_t>(value >> shift));
}
void appendBe64(Bytes& out, std::uint64_t value) {
  for (int shift = 56; shift >= 0; shift -= 8)
    out.push_back(static_cast<std::uint8_t>(value >> shift));
}
void appendLe16(Bytes& out, std::uint16_t value) {
  out.push_back(static_cast<std::uint8_t>(value));
  out.push_back(static_cast<std::uint8_t>(value >> 8));
}
void appendLe32(Bytes& out, std::uint32_t value) {
  for (int shift = 0; shift < 32; shift += 8)
    out.push_back(static_cast<std::uint8_t>(value >> shift));
}
void putLe32(Bytes& out, std::size_t at, std::uint32_t value) {
  for (std::size_t i = 0; i < 4; ++i)
    out[at + i] = static_cast<std::uint8_t>(value >> (8 * i));
}
void putBe32(Bytes& out, std::size_t at, std::uint32_t value) {
  for (std::size_t i = 0; i < 4; ++i)
    out[at + i] = static_cast<std::uint8_t>(value >> (24 - 8 * i));
}

void appendPngChunk(Bytes& out, std::string_view type, const Bytes& data) {
  appendBe32(out, static_cast<std::uint32_t>(data.size()));
  append(out, type);
  append(out, data);
  appendBe32(out, 0);
}

Bytes samplePng(std::size_t idatBytes) {
  Bytes png;
  append(png, {0x89, 0x50, 0x4E, 0x47, 0x0D, 0x0A, 0x1A, 0x0A});
  Bytes ihdr;
  appendBe32(ihdr, 16);
  appendBe32(ihdr, 16);
  append(ihdr, {8, 2, 0, 0, 0});
  appendPngChunk(png, "IHDR", ihdr);
  appendPngChunk(png, "IDAT", Bytes(idatBytes, 0x5A));
  appendPngChunk(png, "IEND", {});
  return png;
}

namespace {
void appendSegment(Bytes& out, std::uint8_t marker, const Bytes& payload) {
  append(out, {0xFF, marker});
  appendBe16(out, static_cast<std::uint16_t>(payload.size() + 2));
  append(out, payload);
}
}  // namespace

Bytes sampleJpeg(std::size_t scanBytes, bool withThumbnail, bool withEnd) {
  Bytes jpeg;
  append(jpeg, {0xFF, 0xD8});
  Bytes app0;
  append(app0, std::string_view("JFIF\0\1\1\0\0\1\0\1\0\0", 14));
  appendSegment(jpeg, 0xE0, app0);
  if (withThumbnail) {
    Bytes exif;
    append(exif, std::string_view("Exif\0\0", 6));
    append(exif, sampleJpeg(40));
    appendSegment(jpeg, 0xE1, exif);
  }
  appendSegment(jpeg, 0xDB, Bytes(65, 0x01));
  appendSegment(jpeg, 0xDA, Bytes(10, 0x02));
  for (std::size_t i = 0; i < scanBytes; ++i)
    jpeg.push_back(static_cast<std::uint8_t>(0x10 + i % 0x60));
  if (withEnd) append(jpeg, {0xFF, 0xD9});
  return jpeg;
}

Bytes sampleGif() {
  Bytes gif;
  append(gif, "GIF89a");
  appendLe16(gif, 2);
  appendLe16(gif, 2);
  append(gif, {0x80, 0, 0});                          // global table of 2 entries
  append(gif, {0, 0, 0, 255, 255, 255});              // the table
  append(gif, {0x21, 0xF9, 4, 0, 0, 0, 0, 0});        // graphic control extension
  append(gif, {0x2C, 0, 0, 0, 0, 2, 0, 2, 0, 0x80});  // descriptor with a local table
  append(gif, {1, 2, 3, 4, 5, 6});                    // the local table
  append(gif, {2});                                   // minimum code size
  append(gif, {2, 0x44, 0x01, 1, 0x3B, 0});           // two sub-blocks (one holds 3B), terminator
  append(gif, {0x3B});
  return gif;
}

Bytes sampleBmp(std::uint32_t width, std::uint32_t height) {
  const std::uint32_t rowBytes = (width * 3 + 3) / 4 * 4;
  const std::uint32_t size = 54 + rowBytes * height;
  Bytes bmp;
  append(bmp, "BM");
  appendLe32(bmp, size);
  appendLe32(bmp, 0);
  appendLe32(bmp, 54);
  appendLe32(bmp, 40);
  appendLe32(bmp, width);
  appendLe32(bmp, height);
  appendLe16(bmp, 1);
  appendLe16(bmp, 24);
  for (int i = 0; i < 6; ++i)
    appendLe32(bmp, 0);
  bmp.resize(size, 0x7F);
  return bmp;
}

void appendBox(Bytes& out, std::string_view type, const Bytes& payload) {
  appendBe32(out, static_cast<std::uint32_t>(payload.size() + 8));
  append(out, type);
  append(out, payload);
}

Bytes sampleIsoBmff(std::string_view brand,
                    std::initializer_list<std::pair<std::string_view, std::size_t>> boxes) {
  Bytes file;
  Bytes ftyp;
  append(ftyp, brand);
  appendBe32(ftyp, 0);
  append(ftyp, brand);
  append(ftyp, "isom");
  appendBox(file, "ftyp", ftyp);
  for (const auto& [type, payload] : boxes)
    appendBox(file, type, Bytes(payload, 0x33));
  return file;
}

Bytes sampleRiff(std::string_view magic, std::string_view form, std::size_t bodyBytes) {
  Bytes file;
  append(file, magic);
  const auto size = static_cast<std::uint32_t>(bodyBytes + 4);
  if (magic == "RIFF")
    appendLe32(file, size);
  else
    appendBe32(file, size);
  append(file, form);
  file.resize(file.size() + bodyBytes, 0x21);
  if (bodyBytes % 2 != 0) file.push_back(0);
  return file;
}

Bytes filler(std::size_t size, std::uint8_t value) {
  return Bytes(size, value);
}

void place(Bytes& image, std::size_t offset, const Bytes& data) {
  if (image.size() < offset + data.size()) image.resize(offset + data.size(), 0);
  std::copy(data.begin(), data.end(), image.begin() + static_cast<std::ptrdiff_t>(offset));
}

}  // namespace vellum::testing
