// vellum-fusedisk: serves one file, "disk", that behaves like a misbehaving
// memory card, for tests to attach with losetup as a real block device.
//
//   vellum-fusedisk MOUNTPOINT --size BYTES [--real BYTES]
//                   [--overflow wrap|discard|combined] [--sector BYTES]
//                   [--bad FIRST[-LAST]]... [--bad-write FIRST[-LAST]]...
//                   [--slow FIRST[-LAST]]... [--delay-ms N] [--backing FILE]
//                   [--write-mbps N] [--read-mbps N] [--cache BYTES]
//
// --size is the capacity the disk reports; only --real bytes (default: all of
// them) exist. Past that, writes wrap around to the start (a counterfeit card
// reusing its flash), are dropped and read as zeros (discard), or (combined)
// wrap at the smallest power of two holding the real size and are dropped
// where they land between the real size and that power of two. --bad sectors
// fail every read with EIO, --bad-write sectors fail writes; --slow sectors
// answer after --delay-ms. Sectors count in --sector bytes (default 512).
// --write-mbps and --read-mbps limit throughput (MB/s) like a real card.
// --cache keeps the last BYTES written in memory and answers reads of those
// sectors from there, as counterfeit cards with a RAM cache do, whether or
// not the flash behind them holds the data.
// Data lives in a sparse temporary file (or --backing FILE) of --real bytes.
// Runs in the foreground until unmounted.

#define FUSE_USE_VERSION 35
#include <fcntl.h>
#include <fuse3/fuse.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "devices/SimulatedDevice.h"

namespace {

using Range = std::pair<std::uint64_t, std::uint64_t>;  // first and last sector, inclusive

struct Disk {
  std::uint64_t size = 0;
  std::uint64_t real = 0;
  vellum::SimulatedDevice::Overflow overflow = vellum::SimulatedDevice::Overflow::wrap;
  double writeBytesPerSecond = 0;
  double readBytesPerSecond = 0;
  std::uint64_t sector = 512;
  std::vector<Range> badReads;
  std::vector<Range> badWrites;
  std::vector<Range> slow;
  int delayMs = 0;
  int backing = -1;
};

Disk disk;
constexpr const char* kFileName = "/disk";

// The last `capacity` bytes written, by sector; the oldest sector goes first.
struct WriteCache {
  std::uint64_t capacity = 0;
  std::uint64_t generation = 0;
  std::unordered_map<std::uint64_t, std::pair<std::uint64_t, std::vector<char>>> sectors;
  std::deque<std::pair<std::uint64_t, std::uint64_t>> order;  // sector, generation

  void put(std::uint64_t offset, const char* in, std::size_t length) {
    if (capacity == 0) return;
    for (std::size_t at = 0; at + disk.sector <= length; at += disk.sector) {
      const std::uint64_t sector = (offset + at) / disk.sector;
      auto& entry = sectors[sector];
      entry = {++generation, std::vector<char>(in + at, in + at + disk.sector)};
      order.emplace_back(sector, generation);
    }
    while (sectors.size() * disk.sector > capacity) {
      const auto [sector, written] = order.front();
      order.pop_front();
      if (const auto it = sectors.find(sector); it != sectors.end() && it->second.first == written)
        sectors.erase(it);
    }
  }

  void overlay(std::uint64_t offset, char* out, std::size_t length) const {
    if (sectors.empty()) return;
    for (std::size_t at = 0; at + disk.sector <= length; at += disk.sector) {
      const auto it = sectors.find((offset + at) / disk.sector);
      if (it != sectors.end()) std::memcpy(out + at, it->second.second.data(), disk.sector);
    }
  }
};
WriteCache cache;

bool touches(const std::vector<Range>& ranges, std::uint64_t offset, std::size_t length) {
  if (length == 0) return false;
  const std::uint64_t first = offset / disk.sector;
  const std::uint64_t last = (offset + length - 1) / disk.sector;
  return std::any_of(ranges.begin(), ranges.end(),
                     [&](const Range& r) { return r.first <= last && first <= r.second; });
}

void maybeDelay(std::uint64_t offset, std::size_t length) {
  if (disk.delayMs > 0 && touches(disk.slow, offset, length)) {
    std::this_thread::sleep_for(std::chrono::milliseconds(disk.delayMs));
  }
}

// Holds each transfer until the disk's set throughput allows it, as a card's
// controller would. One request at a time (the server is single-threaded).
void throttle(std::size_t length, double bytesPerSecond) {
  if (bytesPerSecond <= 0) return;
  using Clock = std::chrono::steady_clock;
  static Clock::time_point busyUntil = Clock::now();
  const auto now = Clock::now();
  busyUntil = std::max(busyUntil, now) +
              std::chrono::duration_cast<Clock::duration>(
                  std::chrono::duration<double>(static_cast<double>(length) / bytesPerSecond));
  std::this_thread::sleep_until(busyUntil);
}

// Splits [offset, offset + length) into pieces that stay within one stretch
// of real storage, decoded as the project's simulated cards decode it, and calls visit(piece offset
// in request, physical or none, piece length). Returns a negative errno from visit, else 0.
template <class Visit>
int walk(std::uint64_t offset, std::size_t length, Visit visit) {
  std::size_t done = 0;
  while (done < length) {
    // A disk with no real storage loses everything written to it.
    const vellum::SimulatedDevice::Location where =
        disk.real == 0
            ? vellum::SimulatedDevice::Location{std::nullopt, disk.size - offset - done}
            : vellum::SimulatedDevice::locate(offset + done, disk.size, disk.real, disk.overflow);
    const std::size_t piece =
        static_cast<std::size_t>(std::min<std::uint64_t>(length - done, where.length));
    if (const int error = visit(done, where.physical, piece); error != 0) return error;
    done += piece;
  }
  return 0;
}

int getattrOp(const char* path, struct stat* status, fuse_file_info*) {
  std::memset(status, 0, sizeof *status);
  if (std::strcmp(path, "/") == 0) {
    status->st_mode = S_IFDIR | 0755;
    status->st_nlink = 2;
    return 0;
  }
  if (std::strcmp(path, kFileName) != 0) return -ENOENT;
  status->st_mode = S_IFREG | 0600;
  status->st_nlink = 1;
  status->st_size = static_cast<off_t>(disk.size);
  status->st_blksize = static_cast<blksize_t>(disk.sector);
  return 0;
}

int readdirOp(const char* path, void* buffer, fuse_fill_dir_t fill, off_t, fuse_file_info*,
              fuse_readdir_flags) {
  if (std::strcmp(path, "/") != 0) return -ENOENT;
  fill(buffer, ".", nullptr, 0, fuse_fill_dir_flags{});
  fill(buffer, "..", nullptr, 0, fuse_fill_dir_flags{});
  fill(buffer, kFileName + 1, nullptr, 0, fuse_fill_dir_flags{});
  return 0;
}

int openOp(const char* path, fuse_file_info* info) {
  if (std::strcmp(path, kFileName) != 0) return -ENOENT;
  // No page cache in between: every request reaches this program as sent.
  info->direct_io = 1;
  info->keep_cache = 0;
  return 0;
}

int readOp(const char*, char* out, std::size_t length, off_t start, fuse_file_info*) {
  const auto offset = static_cast<std::uint64_t>(start);
  if (offset >= disk.size) return 0;
  length = static_cast<std::size_t>(std::min<std::uint64_t>(length, disk.size - offset));
  maybeDelay(offset, length);
  throttle(length, disk.readBytesPerSecond);
  if (touches(disk.badReads, offset, length)) return -EIO;
  const int error = walk(
      offset, length, [&](std::size_t at, std::optional<std::uint64_t> where, std::size_t piece) {
        if (!where) {
          std::memset(out + at, 0, piece);
          return 0;
        }
        std::size_t got = 0;
        while (got < piece) {
          const ssize_t n =
              ::pread(disk.backing, out + at + got, piece - got, static_cast<off_t>(*where + got));
          if (n < 0 && errno == EINTR) continue;
          if (n < 0) return -errno;
          if (n == 0) {  // past the end of a shorter backing file
            std::memset(out + at + got, 0, piece - got);
            break;
          }
          got += static_cast<std::size_t>(n);
        }
        return 0;
      });
  if (error != 0) return error;
  // Requests come sector-aligned through the loop device.
  if (offset % disk.sector == 0) cache.overlay(offset, out, length);
  return static_cast<int>(length);
}

int writeOp(const char*, const char* in, std::size_t length, off_t start, fuse_file_info*) {
  const auto offset = static_cast<std::uint64_t>(start);
  if (offset >= disk.size) return -ENOSPC;
  length = static_cast<std::size_t>(std::min<std::uint64_t>(length, disk.size - offset));
  maybeDelay(offset, length);
  throttle(length, disk.writeBytesPerSecond);
  if (touches(disk.badWrites, offset, length)) return -EIO;
  if (offset % disk.sector == 0) cache.put(offset, in, length);
  const int error = walk(
      offset, length, [&](std::size_t at, std::optional<std::uint64_t> where, std::size_t piece) {
        if (!where) return 0;  // dropped
        std::size_t put = 0;
        while (put < piece) {
          const ssize_t n =
              ::pwrite(disk.backing, in + at + put, piece - put, static_cast<off_t>(*where + put));
          if (n < 0 && errno == EINTR) continue;
          if (n <= 0) return n < 0 ? -errno : -EIO;
          put += static_cast<std::size_t>(n);
        }
        return 0;
      });
  return error != 0 ? error : static_cast<int>(length);
}

int flushOp(const char*, fuse_file_info*) {
  return 0;
}
int fsyncOp(const char*, int, fuse_file_info*) {
  return 0;
}

std::optional<std::uint64_t> number(std::string_view text) {
  if (text.empty()) return std::nullopt;
  std::uint64_t value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + static_cast<std::uint64_t>(c - '0');
  }
  return value;
}

std::optional<Range> range(std::string_view text) {
  const std::size_t dash = text.find('-');
  const auto first = number(text.substr(0, dash));
  const auto last = dash == std::string_view::npos ? first : number(text.substr(dash + 1));
  if (!first || !last || *last < *first) return std::nullopt;
  return Range{*first, *last};
}

int usage() {
  std::fprintf(stderr,
               "usage: vellum-fusedisk MOUNTPOINT --size BYTES [--real BYTES] "
               "[--overflow wrap|discard|combined] [--sector BYTES] [--bad FIRST[-LAST]]... "
               "[--bad-write FIRST[-LAST]]... [--slow FIRST[-LAST]]... [--delay-ms N] "
               "[--backing FILE] [--write-mbps N] [--read-mbps N] [--cache BYTES]\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return usage();
  std::string mountPoint = argv[1];
  std::string backingPath;
  std::optional<std::uint64_t> real;
  for (int i = 2; i < argc; ++i) {
    const std::string_view option = argv[i];
    if (i + 1 >= argc) return usage();
    const std::string_view value = argv[++i];
    if (option == "--size") {
      disk.size = number(value).value_or(0);
    } else if (option == "--real") {
      real = number(value);
      if (!real) return usage();
    } else if (option == "--overflow" && value == "wrap") {
      disk.overflow = vellum::SimulatedDevice::Overflow::wrap;
    } else if (option == "--overflow" && value == "discard") {
      disk.overflow = vellum::SimulatedDevice::Overflow::discard;
    } else if (option == "--overflow" && value == "combined") {
      disk.overflow = vellum::SimulatedDevice::Overflow::combined;
    } else if (option == "--write-mbps" || option == "--read-mbps") {
      const double rate = static_cast<double>(number(value).value_or(0)) * 1e6;
      (option == "--write-mbps" ? disk.writeBytesPerSecond : disk.readBytesPerSecond) = rate;
    } else if (option == "--sector") {
      disk.sector = number(value).value_or(0);
    } else if (option == "--bad" || option == "--bad-write" || option == "--slow") {
      const std::optional<Range> r = range(value);
      if (!r) return usage();
      (option == "--bad"    ? disk.badReads
       : option == "--slow" ? disk.slow
                            : disk.badWrites)
          .push_back(*r);
    } else if (option == "--cache") {
      cache.capacity = number(value).value_or(0);
    } else if (option == "--delay-ms") {
      disk.delayMs = static_cast<int>(number(value).value_or(0));
    } else if (option == "--backing") {
      backingPath = value;
    } else {
      return usage();
    }
  }
  if (disk.size == 0 || disk.sector == 0) return usage();
  disk.real = std::min(real.value_or(disk.size), disk.size);

  disk.backing = backingPath.empty()
                     ? ::open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600)
                     : ::open(backingPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (disk.backing < 0 || ::ftruncate(disk.backing, static_cast<off_t>(disk.real)) != 0) {
    std::perror("vellum-fusedisk: backing file");
    return 1;
  }

  fuse_operations operations{};
  operations.getattr = getattrOp;
  operations.readdir = readdirOp;
  operations.open = openOp;
  operations.read = readOp;
  operations.write = writeOp;
  operations.flush = flushOp;
  operations.fsync = fsyncOp;

  // Foreground, single-threaded; unmounted automatically if this program dies.
  std::string program = argv[0];
  std::string foreground = "-f";
  std::string single = "-s";
  std::string optionFlag = "-o";
  std::string mountOptions = "auto_unmount,fsname=vellum-fusedisk";
  std::vector<char*> fuseArgs{program.data(),    foreground.data(),   single.data(),
                              optionFlag.data(), mountOptions.data(), mountPoint.data()};
  return fuse_main(static_cast<int>(fuseArgs.size()), fuseArgs.data(), &operations, nullptr);
}
