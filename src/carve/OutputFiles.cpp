#include "carve/OutputFiles.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <vector>

#include "bytes/PositionedIo.h"
#include "bytes/UniqueFd.h"

namespace vellum::carve_detail {
namespace {

constexpr std::uint64_t copyPiece = 4'194'304;  // 4 MiB

[[noreturn]] void fail(const char* what, const std::filesystem::path& path, int errnum) {
  throw std::filesystem::filesystem_error(what, path,
                                          std::error_code(errnum, std::generic_category()));
}

UniqueFd create(const std::filesystem::path& path, bool exclusive) {
  // O_EXCL lets the exporter take a free name without a race: an existing
  // file is never opened, let alone overwritten.
  const int flags = O_WRONLY | O_CREAT | O_CLOEXEC | (exclusive ? O_EXCL : O_TRUNC);
  UniqueFd fd(::open(path.c_str(), flags, 0644));
  if (!fd) fail("cannot create file", path, errno);
  return fd;
}

}  // namespace

void writeTextFile(const std::filesystem::path& path, std::string_view text) {
  const UniqueFd fd = create(path, false);
  const std::span<const std::uint8_t> bytes(reinterpret_cast<const std::uint8_t*>(text.data()),
                                            text.size());
  const TransferResult result = pwriteFully(fd.get(), 0, bytes);
  if (result.errnum != 0) fail("cannot write file", path, result.errnum);
}

CopyOutcome copyToFile(const std::filesystem::path& path, std::uint64_t length, bool exclusive,
                       const PieceReader& read) {
  const UniqueFd fd = create(path, exclusive);
  std::vector<std::uint8_t> buffer(static_cast<std::size_t>(std::min(length, copyPiece)));
  std::uint64_t done = 0;
  while (done < length) {
    const auto want = static_cast<std::size_t>(std::min(length - done, copyPiece));
    const std::size_t got = read(done, std::span(buffer).first(want));
    if (got == 0) return CopyOutcome::sourceEnded;
    const TransferResult result = pwriteFully(fd.get(), done, std::span(buffer).first(got));
    if (result.errnum != 0) fail("cannot write file", path, result.errnum);
    done += got;
  }
  return CopyOutcome::complete;
}

}  // namespace vellum::carve_detail
