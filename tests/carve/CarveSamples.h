#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "bytes/ByteSource.h"
#include "bytes/MemorySource.h"
#include "devices/SimulatedDevice.h"
#include "support/FaultyDevice.h"

namespace vellum::testing {

// Small valid files of each format, built in code, and helpers to lay them
// out in an image. Sizes and layouts are as the comments say; tests rely on them.

void append(Bytes& out, std::initializer_list<std::uint8_t> bytes);
void append(Bytes& out, std::string_view text);
void append(Bytes& out, const Bytes& bytes);
// Values of width bytes each, big- or little-endian.
void be(Bytes& out, int width, std::initializer_list<std::uint64_t> values);
void le(Bytes& out, int width, std::initializer_list<std::uint64_t> values);
void putLe32(Bytes& out, std::size_t at, std::uint32_t value);

// Signature, IHDR, one IDAT of idatBytes, IEND.
Bytes samplePng(std::size_t idatBytes = 100);

// SOI, APP0, optional APP1 holding a complete thumbnail JPEG, DQT, SOS, then
// scanBytes of entropy-coded data (no FF in it), then EOI unless withEnd is
// false.
Bytes sampleJpeg(std::size_t scanBytes = 200, bool withThumbnail = false, bool withEnd = true);

// "GIF89a", a 2-entry global table, a graphic control extension, one image
// with a local table and two data sub-blocks, trailer.
Bytes sampleGif();

// "ftyp" of the given brand, then the listed boxes with payloads of the given sizes.
Bytes sampleIsoBmff(std::string_view brand,
                    std::initializer_list<std::pair<std::string_view, std::size_t>> boxes);

// "RIFF"/"FORM" container: magic, size (of form type plus body), form type, body.
Bytes sampleRiff(std::string_view magic, std::string_view form, std::size_t bodyBytes);

Bytes filler(std::size_t size, std::uint8_t value = 0x00);

// Places data at offset in image (which grows as needed).
void place(Bytes& image, std::size_t offset, const Bytes& data);

inline Bytes text(std::string_view s) {
  return Bytes(s.begin(), s.end());
}
inline Bytes withTail(Bytes file, std::size_t tail, std::uint8_t value = 0) {
  file.resize(file.size() + tail, value);
  return file;
}
// Zeros up to the next multiple of 512.
inline void padToSector(Bytes& out) {
  out.resize((out.size() + 511) / 512 * 512, 0);
}

// TIFF in either byte order: blocks and IFDs in the order added, values
// longer than 4 bytes right after their IFD. Fields are (tag, type 2/3/4,
// values); ASCII fields (type 2) carry their text in `text`.
struct TiffField {
  std::uint16_t tag;
  std::uint16_t type;
  std::vector<std::uint32_t> values;
  std::string text = {};
  static TiffField of(std::uint16_t type, std::uint16_t tag, std::vector<std::uint32_t> values) {
    return {tag, type, std::move(values)};
  }
};
class TiffBuilder {
 public:
  explicit TiffBuilder(bool bigEndian) : big_(bigEndian) {
    append(out, bigEndian ? "MM" : "II");
    put(out, 42, 2);
    put(out, 0, 4);
  }
  std::uint32_t data(const Bytes& bytes) {
    const auto at = static_cast<std::uint32_t>(out.size());
    append(out, bytes);
    return at;
  }
  std::uint32_t ifd(std::vector<TiffField> fields, std::uint32_t next = 0);
  void setFirstIfd(std::uint32_t offset) { patch(4, offset); }
  void patch(std::size_t at, std::uint32_t value, int width = 4) {
    Bytes raw;
    put(raw, value, width);
    std::copy(raw.begin(), raw.end(), out.begin() + static_cast<std::ptrdiff_t>(at));
  }
  void put(Bytes& to, std::uint32_t value, int width) const {
    (big_ ? be : le)(to, width, {value});
  }
  Bytes out;

 private:
  bool big_;
};
// The 8 baseline fields of a small greyscale image in the given strips
// (StripOffsets is the sixth).
std::vector<TiffField> tiffImageFields(std::vector<std::uint32_t> strips,
                                       std::vector<std::uint32_t> lengths);
// Strips of 300 and 200 bytes, then IFD0 at 508 (as libtiff lays files out).
TiffBuilder stripTiff(bool bigEndian);

// ZIP archives: local headers, optional signed data descriptors (sizes
// left out of the header), central directory, optional ZIP64 end record and
// locator, end record with comment.
struct ZipEntry {
  std::string name;
  Bytes data = Bytes(100, 0x5A);
  std::uint16_t method = 8;
  bool descriptor = false;
};
struct ZipArchive {
  Bytes bytes;
  std::size_t directoryAt = 0;
  std::vector<std::size_t> dataAt;
};
ZipArchive sampleZip(const std::vector<ZipEntry>& entries, std::string_view comment = "test",
                     bool zip64End = false);

// An OLE2 compound file header (sector shift, allocation-table sector
// count), padded to 512 bytes, then body.
Bytes sampleOle2(std::uint16_t shift, std::uint32_t fatSectors, const Bytes& body = {});
Bytes utf16(std::string_view s);

// An ID3v2.4 tag of tagSize bytes, then frames of 417 bytes (MPEG-1 Layer
// III, 128 kbit/s, 44.1 kHz).
Bytes sampleMp3(std::size_t frames, std::uint32_t tagSize = 300);

// A small PDF up to, not including, its end marker.
Bytes pdfBody(std::string_view version = "1.7");
// An appended update: new objects, a new xref and trailer, no end marker.
Bytes pdfUpdate(std::size_t padding);

namespace detail {
struct HeldCard {
  SimulatedDevice card;
};
}  // namespace detail

// Bytes whose reads a test can fail or count: a simulated card holding them
// (block size 1), behind the shared FaultyDevice and its hooks.
class ScriptedSource final : private detail::HeldCard, public FaultyDevice {
 public:
  explicit ScriptedSource(const Bytes& data)
      : HeldCard{SimulatedDevice(data.size(), std::nullopt, SimulatedDevice::Overflow::wrap, 1)},
        FaultyDevice(card) {
    card.write(0, data);
  }
};

}  // namespace vellum::testing
