#include "checks/UndoJournal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <type_traits>

#include "bytes/AlignedBuffer.h"
#include "bytes/Checked.h"
#include "bytes/DeviceError.h"
#include "bytes/PositionedIo.h"
#include "bytes/Precondition.h"
#include "checks/TestPattern.h"

namespace vellum {
namespace {

constexpr std::array<char, 8> kMagic = {'V', 'L', 'U', 'N', 'D', 'O', '0', '1'};
constexpr std::size_t kRecordHeader = 24;  // kind, 3 spare, generation, offset, length
constexpr std::size_t kChecksum = 8;
// No record is larger: the check saves areas in pieces of at most this size.
constexpr std::uint64_t kLargestRecord = std::uint64_t{64} << 20;

void putLittle(std::uint8_t* out, std::uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i)
    out[i] = static_cast<std::uint8_t>(value >> (8 * i));
}
std::uint64_t getLittle(const std::uint8_t* in, int bytes) {
  std::uint64_t value = 0;
  for (int i = bytes - 1; i >= 0; --i)
    value = value << 8 | in[i];
  return value;
}

// FNV-1a: enough to tell a complete record from one a crash tore off.
struct Checksum {
  std::uint64_t value = 0xcbf29ce484222325ULL;
  void add(std::span<const std::uint8_t> bytes) {
    for (const std::uint8_t b : bytes)
      value = (value ^ b) * 0x100000001b3ULL;
  }
};

bool syncFolder(const std::filesystem::path& folder) {
  const UniqueFd fd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return fd && ::fsync(fd.get()) == 0;
}

std::string fileNameFor(const JournalCard& card, std::uint64_t nonce) {
  std::string name = card.name;
  std::replace_if(
      name.begin(), name.end(), [](char c) { return c == '/' || c == ' '; }, '_');
  char hex[17];
  std::snprintf(hex, sizeof hex, "%016llx", static_cast<unsigned long long>(nonce));
  return name + "-" + hex + ".undo";
}

struct Header {
  JournalCard card;
  std::uint64_t nonce = 0;
  std::uint64_t unit = 0;
  std::uint64_t end = 0;  // where the records begin
};

std::optional<Header> readHeader(int fd) {
  std::array<std::uint8_t, 12> start{};
  if (preadFully(fd, 0, start).done != start.size()) return std::nullopt;
  if (std::memcmp(start.data(), kMagic.data(), kMagic.size()) != 0) return std::nullopt;
  const std::uint64_t length = getLittle(start.data() + 8, 4);
  if (length > 65536) return std::nullopt;
  std::vector<std::uint8_t> text(static_cast<std::size_t>(length));
  if (preadFully(fd, 12, text).done != text.size()) return std::nullopt;
  try {
    const nlohmann::json json = nlohmann::json::parse(text);
    Header header;
    const nlohmann::json& card = json.at("card");
    header.card = {card.at("name").get<std::string>(), card.at("sizeBytes").get<std::uint64_t>(),
                   card.at("model").get<std::string>(), card.at("serial").get<std::string>()};
    header.nonce = json.at("nonce").get<std::uint64_t>();
    header.unit = json.at("unit").get<std::uint64_t>();
    if (header.unit == 0 || header.unit > kLargestRecord) return std::nullopt;
    header.end = 12 + length;
    return header;
  } catch (const nlohmann::json::exception&) {
    return std::nullopt;
  }
}

struct Record {
  char kind;
  std::uint64_t offset;
  std::uint64_t fileOffset;  // of the bytes
  std::uint64_t length;
};

// The records of the current round, up to the first one that is torn, of
// another round, or not a record at all.
std::vector<Record> readRecords(int fd, std::uint64_t at) {
  std::vector<Record> records;
  std::optional<std::uint64_t> generation;
  std::vector<std::uint8_t> data;
  for (;;) {
    std::array<std::uint8_t, kRecordHeader> head{};
    if (preadFully(fd, at, head).done != head.size()) break;
    const char kind = static_cast<char>(head[0]);
    const std::uint64_t thisGeneration = getLittle(head.data() + 4, 4);
    const std::uint64_t offset = getLittle(head.data() + 8, 8);
    const std::uint64_t length = getLittle(head.data() + 16, 8);
    if ((kind != 'P' && kind != 'R' && kind != 'D' && kind != 'F') || length > kLargestRecord) {
      break;
    }
    if (generation && *generation != thisGeneration) break;
    data.resize(static_cast<std::size_t>(length + kChecksum));
    if (preadFully(fd, at + kRecordHeader, data).done != data.size()) break;
    Checksum sum;
    sum.add(head);
    sum.add(std::span(data).first(static_cast<std::size_t>(length)));
    if (getLittle(data.data() + length, 8) != sum.value) break;
    generation = thisGeneration;
    records.push_back({kind, offset, at + kRecordHeader, length});
    at += kRecordHeader + length + kChecksum;
  }
  return records;
}

std::string describe(const JournalError::Case& errorCase) {
  return std::visit(
      [](const auto& c) -> std::string {
        using C = std::decay_t<decltype(c)>;
        if constexpr (std::is_same_v<C, JournalError::CannotWrite>) {
          return "Couldn't keep the undo journal in " + c.folder + " (" + errnoText(c.errnum) +
                 "), so nothing was written to the card. Free some space there or make the "
                 "folder writable, then run the Quick Check again.";
        } else {
          return "The undo journal " + c.path +
                 " can't be read. Keep it, and the card, as they are and ask for help.";
        }
      },
      errorCase);
}

}  // namespace

JournalError::JournalError(Case errorCase) : ErrorOf(errorCase, describe(errorCase)) {}

bool JournalCard::couldBe(const JournalCard& other) const {
  return sizeBytes == other.sizeBytes && model == other.model;
}

bool JournalCard::isSameCard(const JournalCard& other) const {
  if (!couldBe(other)) return false;
  if (!serial.empty() && !other.serial.empty()) return serial == other.serial;
  return name == other.name;
}

UndoJournal::UndoJournal(std::filesystem::path path, UniqueFd fd, std::uint64_t headerEnd)
    : path_(std::move(path)), fd_(std::move(fd)), headerEnd_(headerEnd), end_(headerEnd) {}

UndoJournal::~UndoJournal() = default;

std::unique_ptr<UndoJournal> UndoJournal::create(const std::filesystem::path& folder,
                                                 const JournalCard& card, std::uint64_t nonce,
                                                 std::uint64_t unit, std::uint64_t reserveBytes) {
  const auto cannotWrite = [&](int errnum) {
    return JournalError(JournalError::CannotWrite{folder.string(), errnum});
  };
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  if (error) throw cannotWrite(error.value());
  const std::filesystem::path path = folder / fileNameFor(card, nonce);
  UniqueFd fd(::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (!fd) throw cannotWrite(errno);

  const std::string text = nlohmann::json{
      {"card",
       {{"name", card.name},
        {"sizeBytes", card.sizeBytes},
        {"model", card.model},
        {"serial", card.serial}}},
      {"nonce", nonce},
      {"unit", unit}}.dump();
  std::vector<std::uint8_t> header(kMagic.begin(), kMagic.end());
  header.resize(12);
  putLittle(header.data() + 8, text.size(), 4);
  header.insert(header.end(), text.begin(), text.end());
  // A zero kind after the header marks an empty journal until records come.
  const int reserved = ::posix_fallocate(
      fd.get(), 0, static_cast<off_t>(checkedAdd(header.size() + kRecordHeader, reserveBytes)));
  const TransferResult written = pwriteFully(fd.get(), 0, header);
  if (reserved != 0 || written.errnum != 0) {
    ::unlink(path.c_str());
    throw cannotWrite(reserved != 0 ? reserved : written.errnum);
  }
  return std::unique_ptr<UndoJournal>(new UndoJournal(path, std::move(fd), header.size()));
}

void UndoJournal::fail(int errnum) const {
  throw JournalError(JournalError::CannotWrite{path_.parent_path().string(), errnum});
}

void UndoJournal::append(char kind, std::uint64_t offset, std::span<const std::uint8_t> bytes) {
  VL_PRECONDITION(bytes.size() <= kLargestRecord);
  std::array<std::uint8_t, kRecordHeader> head{};
  head[0] = static_cast<std::uint8_t>(kind);
  // The generation is where this round starts: records of an earlier, longer
  // round left behind further on never pass for this round's.
  putLittle(head.data() + 4, generation_, 4);
  putLittle(head.data() + 8, offset, 8);
  putLittle(head.data() + 16, bytes.size(), 8);
  Checksum sum;
  sum.add(head);
  sum.add(bytes);
  std::array<std::uint8_t, kChecksum> tail{};
  putLittle(tail.data(), sum.value, 8);
  const std::uint64_t at = end_;
  for (const auto& [piece, where] :
       {std::pair<std::span<const std::uint8_t>, std::uint64_t>{head, at},
        {bytes, at + kRecordHeader},
        {tail, at + kRecordHeader + bytes.size()}}) {
    if (const TransferResult result = pwriteFully(fd_.get(), where, piece); result.errnum != 0) {
      fail(result.errnum);
    }
  }
  if (kind == 'R') regions_.push_back({offset, at + kRecordHeader, bytes.size()});
  end_ = at + kRecordHeader + bytes.size() + kChecksum;
}

void UndoJournal::saveOriginal(std::uint64_t offset, std::span<const std::uint8_t> bytes) {
  append('P', offset, bytes);
}

void UndoJournal::saveRegion(std::uint64_t offset, std::span<const std::uint8_t> bytes) {
  append('R', offset, bytes);
}

void UndoJournal::commit() {
  if (::fsync(fd_.get()) != 0) fail(errno);
  if (!folderSynced_) {
    if (!syncFolder(path_.parent_path())) fail(errno);
    folderSynced_ = true;
  }
}

void UndoJournal::regionsRewritten(std::size_t count) {
  append('D', count, {});
  if (::fdatasync(fd_.get()) != 0) fail(errno);
}

void UndoJournal::regionRewritten() {
  append('F', 0, {});
  commit();
}

std::uint64_t UndoJournal::readRegion(std::size_t i, std::span<std::uint8_t> out) const {
  const Region& region = regions_.at(i);
  VL_PRECONDITION(out.size() == region.length);
  const TransferResult result = preadFully(fd_.get(), region.fileOffset, out);
  if (result.errnum != 0 || result.done != out.size()) {
    throw JournalError(JournalError::Unreadable{path_.string()});
  }
  return region.deviceOffset;
}

void UndoJournal::startOver() {
  // A zero kind where the first record was ends the journal; the next round
  // writes with a new generation, so stale records behind it stay unread.
  const std::array<std::uint8_t, 1> zero{};
  if (pwriteFully(fd_.get(), headerEnd_, zero).errnum != 0 || ::fdatasync(fd_.get()) != 0) {
    fail(errno);
  }
  generation_ = static_cast<std::uint32_t>(generation_ + 1);
  end_ = headerEnd_;
  regions_.clear();
}

void UndoJournal::remove() {
  if (removed_) return;
  removed_ = true;
  removeJournal(path_);
}

void removeJournal(const std::filesystem::path& path) {
  ::unlink(path.c_str());
  syncFolder(path.parent_path());
}

std::vector<PendingJournal> pendingJournals(const std::filesystem::path& folder) {
  std::vector<std::pair<std::filesystem::file_time_type, PendingJournal>> found;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
    if (entry.path().extension() != ".undo") continue;
    const UniqueFd fd(::open(entry.path().c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) continue;
    const std::optional<Header> header = readHeader(fd.get());
    if (!header) continue;
    std::error_code timeError;
    found.emplace_back(entry.last_write_time(timeError),
                       PendingJournal{entry.path(), header->card, header->nonce, header->unit});
  }
  std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) {
    return a.first != b.first ? a.first < b.first : a.second.path < b.second.path;
  });
  std::vector<PendingJournal> journals;
  for (auto& [time, journal] : found)
    journals.push_back(std::move(journal));
  return journals;
}

RestoreReport restoreFromJournal(const PendingJournal& journal, BlockDevice& device) {
  const UniqueFd fd(::open(journal.path.c_str(), O_RDONLY | O_CLOEXEC));
  const std::optional<Header> header = fd ? readHeader(fd.get()) : std::nullopt;
  if (!header) throw JournalError(JournalError::Unreadable{journal.path.string()});
  const auto readBytes = [&](const Record& record) {
    Bytes bytes(static_cast<std::size_t>(record.length));
    if (preadFully(fd.get(), record.fileOffset, bytes).done != bytes.size()) {
      throw JournalError(JournalError::Unreadable{journal.path.string()});
    }
    return bytes;
  };

  std::map<std::uint64_t, Record> points;
  std::vector<Record> areas;  // saved areas in the order they are rewritten
  std::size_t rewritten = 0;
  for (const Record& record : readRecords(fd.get(), header->end)) {
    if (record.kind == 'P') points.insert_or_assign(record.offset, record);
    if (record.kind == 'R') areas.push_back(record);
    if (record.kind == 'D') rewritten = std::max<std::size_t>(rewritten, record.offset);
    if (record.kind == 'F') rewritten = areas.size();
  }
  // Groups are rewritten in order: the first one not noted done may be
  // torn, the ones after it were never touched.
  std::vector<Record> unfinishedArea;
  for (std::size_t i = rewritten, bytes = 0;
       i < areas.size() && bytes < UndoJournal::kRewriteGroupBytes; ++i) {
    unfinishedArea.push_back(areas[i]);
    bytes += areas[i].length;
  }

  const TestPattern pattern(header->nonce);
  const std::uint64_t unit = header->unit;
  const auto holdsOwnBlock = [&](std::uint64_t offset) {
    if (offset % unit != 0 || checkedAdd(offset, TestPattern::blockSize) > device.size()) {
      return false;
    }
    try {
      return pattern.verify(device.read(offset, TestPattern::blockSize), offset / unit) ==
             TestPattern::Verdict{TestPattern::Intact{}};
    } catch (const DeviceError& error) {
      if (!error.isMediumFailure()) throw;
      return false;
    }
  };

  RestoreReport report;
  // An area is written without looking at what it holds, so only on a card
  // that provably still carries this check's test blocks.
  const bool provenSameCard = std::any_of(
      points.begin(), points.end(), [&](const auto& entry) { return holdsOwnBlock(entry.first); });
  if (provenSameCard) {
    for (const Record& record : unfinishedArea) {
      const Bytes saved = readBytes(record);
      if (device.read(record.offset, toSigned(saved.size())) == saved) continue;
      device.write(record.offset, saved);
      report.areaBytesRestored += toSigned(saved.size());
    }
  }
  // Descending, as the check itself puts points back: on a card that wraps,
  // a low point is written last and keeps its own bytes.
  for (auto it = points.rbegin(); it != points.rend(); ++it) {
    const Bytes original = readBytes(it->second);
    if (holdsOwnBlock(it->first)) {
      device.write(it->first, original);
      ++report.restored;
      continue;
    }
    Bytes now;
    try {
      now = device.read(it->first, toSigned(original.size()));
    } catch (const DeviceError& error) {
      if (!error.isMediumFailure()) throw;
    }
    if (now == original) {
      ++report.alreadyBack;
    } else if (now.size() >= TestPattern::blockSize &&
               isAliased(pattern.verify(std::span(now).first(TestPattern::blockSize),
                                        it->first / unit))) {
      // Another point's block shows through here on a card that wraps; that
      // point puts the bytes back.
      ++report.alreadyBack;
    } else {
      report.changedSince.push_back(it->first);
    }
  }
  device.synchronize();
  std::sort(report.changedSince.begin(), report.changedSince.end());
  report.provenSameCard = provenSameCard;
  return report;
}

}  // namespace vellum
