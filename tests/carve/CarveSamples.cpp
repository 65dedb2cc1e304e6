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
void be(Bytes& out, int width, std::initializer_list<std::uint64_t> values) {
  for (std::uint64_t v : values)
    for (int i = width - 1; i >= 0; --i)
      out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}
void le(Bytes& out, int width, std::initializer_list<std::uint64_t> values) {
  for (std::uint64_t v : values)
    for (int i = 0; i < width; ++i)
      out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}
void putLe32(Bytes& out, std::size_t at, std::uint32_t value) {
  for (std::size_t i = 0; i < 4; ++i)
    out[at + i] = static_cast<std::uint8_t>(value >> (8 * i));
}

namespace {
// A PNG chunk: length, type, data, CRC (zero: CRCs are not checked).
void appendPngChunk(Bytes& out, std::string_view type, const Bytes& data) {
  be(out, 4, {data.size()});
  append(out, type);
  append(out, data);
  be(out, 4, {0});
}
// A box: 32-bit size, type, payload.
void appendBox(Bytes& out, std::string_view type, const Bytes& payload) {
  be(out, 4, {payload.size() + 8});
  append(out, type);
  append(out, payload);
}
void appendSegment(Bytes& out, std::uint8_t marker, const Bytes& payload) {
  append(out, {0xFF, marker});
  be(out, 2, {payload.size() + 2});
  append(out, payload);
}
}  // namespace

Bytes samplePng(std::size_t idatBytes) {
  Bytes png = {0x89, 0x50, 0x4E, 0x47, 0x0D, 0x0A, 0x1A, 0x0A};
  Bytes ihdr;
  be(ihdr, 4, {16, 16});
  append(ihdr, {8, 2, 0, 0, 0});
  appendPngChunk(png, "IHDR", ihdr);
  appendPngChunk(png, "IDAT", Bytes(idatBytes, 0x5A));
  appendPngChunk(png, "IEND", {});
  return png;
}

Bytes sampleJpeg(std::size_t scanBytes, bool withThumbnail, bool withEnd) {
  Bytes jpeg = {0xFF, 0xD8};
  appendSegment(jpeg, 0xE0, text(std::string_view("JFIF\0\1\1\0\0\1\0\1\0\0", 14)));
  if (withThumbnail) {
    Bytes exif = text(std::string_view("Exif\0\0", 6));
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
  Bytes gif = text("GIF89a");
  append(gif, {2, 0, 2, 0, 0x80, 0, 0});              // 2 x 2, global table of 2 entries
  append(gif, {0, 0, 0, 255, 255, 255});              // the table
  append(gif, {0x21, 0xF9, 4, 0, 0, 0, 0, 0});        // graphic control extension
  append(gif, {0x2C, 0, 0, 0, 0, 2, 0, 2, 0, 0x80});  // descriptor with a local table
  append(gif, {1, 2, 3, 4, 5, 6});                    // the local table
  append(gif, {2});                                   // minimum code size
  append(gif, {2, 0x44, 0x01, 1, 0x3B, 0});           // two sub-blocks (one holds 3B), terminator
  append(gif, {0x3B});
  return gif;
}

Bytes sampleIsoBmff(std::string_view brand,
                    std::initializer_list<std::pair<std::string_view, std::size_t>> boxes) {
  Bytes file;
  Bytes ftyp = text(brand);
  be(ftyp, 4, {0});
  append(ftyp, brand);
  append(ftyp, "isom");
  appendBox(file, "ftyp", ftyp);
  for (const auto& [type, payload] : boxes)
    appendBox(file, type, Bytes(payload, 0x33));
  return file;
}

Bytes sampleRiff(std::string_view magic, std::string_view form, std::size_t bodyBytes) {
  Bytes file = text(magic);
  (magic == "RIFF" ? le : be)(file, 4, {bodyBytes + 4});
  append(file, form);
  file.resize(file.size() + bodyBytes + bodyBytes % 2, 0x21);
  if (bodyBytes % 2 != 0) file.back() = 0;
  return file;
}

std::uint32_t TiffBuilder::ifd(std::vector<TiffField> fields, std::uint32_t next) {
  std::sort(fields.begin(), fields.end(), [](auto& a, auto& b) { return a.tag < b.tag; });
  const auto at = static_cast<std::uint32_t>(out.size());
  put(out, static_cast<std::uint32_t>(fields.size()), 2);
  std::vector<std::pair<std::size_t, Bytes>> outOfLine;
  for (const TiffField& f : fields) {
    Bytes value = text(f.text);
    if (f.type == 2) value.push_back(0);
    for (std::uint32_t v : f.values)
      put(value, v, f.type == 3 ? 2 : 4);
    put(out, f.tag, 2);
    put(out, f.type, 2);
    put(out, static_cast<std::uint32_t>(f.type == 2 ? value.size() : f.values.size()), 4);
    if (value.size() > 4) outOfLine.emplace_back(out.size(), value);
    value.resize(std::max<std::size_t>(value.size(), 4), 0);
    out.insert(out.end(), value.begin(), value.begin() + 4);
  }
  put(out, next, 4);
  for (auto& [field, value] : outOfLine) {
    patch(field, static_cast<std::uint32_t>(out.size()));
    append(out, value);
  }
  return at;
}

std::vector<TiffField> tiffImageFields(std::vector<std::uint32_t> strips,
                                       std::vector<std::uint32_t> lengths) {
  return {TiffField::of(3, 256, {16}), TiffField::of(3, 257, {8}),
          TiffField::of(3, 258, {8}),  TiffField::of(3, 259, {1}),
          TiffField::of(3, 262, {1}),  TiffField::of(4, 273, std::move(strips)),
          TiffField::of(3, 278, {4}),  TiffField::of(4, 279, std::move(lengths))};
}

TiffBuilder stripTiff(bool bigEndian) {
  TiffBuilder tiff(bigEndian);
  const std::uint32_t s1 = tiff.data(filler(300, 0x11));
  const std::uint32_t s2 = tiff.data(filler(200, 0x22));
  tiff.setFirstIfd(tiff.ifd(tiffImageFields({s1, s2}, {300, 200})));
  return tiff;
}

ZipArchive sampleZip(const std::vector<ZipEntry>& entries, std::string_view comment,
                     bool zip64End) {
  ZipArchive out;
  Bytes& b = out.bytes;
  std::vector<std::size_t> localAt;
  for (const ZipEntry& e : entries) {
    localAt.push_back(b.size());
    const std::uint64_t size = e.data.size();
    const std::uint64_t stated = e.descriptor ? 0 : size;
    le(b, 4, {0x04034B50});
    le(b, 2, {20U, e.descriptor ? 8U : 0U, e.method});
    le(b, 4, {0, 0, stated, stated});  // time and date, CRC (not checked), sizes
    le(b, 2, {e.name.size(), 0});
    append(b, e.name);
    out.dataAt.push_back(b.size());
    append(b, e.data);
    if (e.descriptor) le(b, 4, {0x08074B50, 0, size, size});
  }
  out.directoryAt = b.size();
  for (std::size_t i = 0; i < entries.size(); ++i) {
    const ZipEntry& e = entries[i];
    le(b, 4, {0x02014B50});
    le(b, 2, {0x031E, 20, e.descriptor ? 8U : 0U, e.method});
    le(b, 4, {0, 0, e.data.size(), e.data.size()});
    le(b, 2, {e.name.size(), 0, 0, 0, 0});  // name, extra, comment, disk, attributes
    le(b, 4, {0, localAt[i]});
    append(b, e.name);
  }
  const std::uint64_t directorySize = b.size() - out.directoryAt;
  const std::uint64_t count = entries.size();
  if (zip64End) {
    const std::uint64_t recordAt = b.size();
    le(b, 4, {0x06064B50});
    le(b, 8, {44});
    le(b, 2, {45, 45});
    le(b, 4, {0, 0});
    le(b, 8, {count, count, directorySize, out.directoryAt});
    le(b, 4, {0x07064B50, 0});
    le(b, 8, {recordAt});
    le(b, 4, {1});
  }
  le(b, 4, {0x06054B50});
  le(b, 2, {0, 0, zip64End ? 0xFFFF : count, zip64End ? 0xFFFF : count});
  le(b, 4, {zip64End ? 0xFFFFFFFF : directorySize, zip64End ? 0xFFFFFFFF : out.directoryAt});
  le(b, 2, {comment.size()});
  append(b, comment);
  return out;
}

Bytes sampleOle2(std::uint16_t shift, std::uint32_t fatSectors, const Bytes& body) {
  Bytes b = {0xD0, 0xCF, 0x11, 0xE0, 0xA1, 0xB1, 0x1A, 0xE1};
  b.resize(24, 0);
  // Minor and major version, byte order mark, sector and mini sector shifts.
  le(b, 2, {0x003E, shift == 12 ? 4U : 3U, 0xFFFE, shift, 6});
  b.resize(44, 0);
  le(b, 4, {fatSectors});
  b.resize(512, 0xFF);
  append(b, body);
  return b;
}

Bytes utf16(std::string_view s) {
  Bytes out;
  for (char c : s)
    le(out, 2, {static_cast<std::uint8_t>(c)});
  return out;
}

Bytes sampleMp3(std::size_t frames, std::uint32_t tagSize) {
  Bytes t = {'I', 'D', '3', 4, 0, 0};
  for (int shift = 21; shift >= 0; shift -= 7)
    t.push_back(static_cast<std::uint8_t>((tagSize >> shift) & 0x7F));
  t.resize(10 + tagSize, 0);
  for (std::size_t i = 0; i < frames; ++i) {
    append(t, {0xFF, 0xFB, 0x90, 0x00});
    t.resize(t.size() + 413, 0x55);
  }
  return t;
}

Bytes pdfBody(std::string_view version) {
  Bytes pdf = text("%PDF-");
  append(pdf, version);
  append(pdf,
         "\n%\xE2\xE3\xCF\xD3\n1 0 obj\n<< /Type /Catalog /Pages 2 0 R >>\nendobj\n"
         "2 0 obj\n<< /Type /Pages /Kids [] /Count 0 >>\nendobj\n"
         "xref\n0 3\n0000000000 65535 f \ntrailer\n<< /Size 3 /Root 1 0 R >>\nstartxref\n9\n");
  return pdf;
}

Bytes pdfUpdate(std::size_t padding) {
  Bytes u = text("3 0 obj\n<< /Length 0 >>\nstream\n");
  append(u, filler(padding, 'x'));
  append(u, "\nendstream\nendobj\nxref\n3 1\ntrailer\n<< /Prev 9 >>\nstartxref\n200\n");
  return u;
}

Bytes filler(std::size_t size, std::uint8_t value) {
  return Bytes(size, value);
}

void place(Bytes& image, std::size_t offset, const Bytes& data) {
  if (image.size() < offset + data.size()) image.resize(offset + data.size(), 0);
  std::copy(data.begin(), data.end(), image.begin() + static_cast<std::ptrdiff_t>(offset));
}

}  // namespace vellum::testing
