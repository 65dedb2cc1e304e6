#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "devices/FileSystem.h"
#include "platform/DiskIdentity.h"
#include "platform/SystemPaths.h"

namespace vellum {

// One format, as the privileged helper vellum-format takes it on its command
// line. The helper runs as root, so the request carries only names and
// numbers: the helper inspects the disk itself.
struct FormatRequest {
  std::string disk;                // whole-disk kernel name, such as "sdb"
  std::uint64_t diskSequence = 0;  // of the medium the user chose; 0 when unknown
  FileSystem fileSystem = FileSystem::exfat;
  std::string name;  // the volume name as typed; the formatter sanitises it
  std::optional<std::uint64_t> usableBytes;
  Allowance allowance = Allowance::standard;
  bool allowDiskImages = false;

  static FormatRequest of(const DiskIdentity& identity, FileSystem fileSystem,
                          std::string_view name, std::optional<std::uint64_t> usableBytes,
                          bool allowDiskImages);

  // The helper's arguments, program name not included.
  std::vector<std::string> arguments() const;
  // The request these arguments make; none for anything arguments() does not
  // produce (unknown options, a disk name with '/', a bad number).
  static std::optional<FormatRequest> parse(std::span<const std::string_view> arguments);

  // What the helper does as root: inspects the disk with the guard's rules,
  // refuses another medium than the one chosen, unmounts and formats. Throws
  // WriteError or ProcessError.
  void perform() const;
};

// The disk sequence number in an identity; 0 when the kernel gave none.
std::uint64_t diskSequence(const DiskIdentity& identity);

// How vellum-format is started: pkexec with the installed helper, which asks
// for an administrator password through the desktop's polkit agent.
struct FormatHelperCommand {
  std::vector<std::string> launcher;

  static FormatHelperCommand systemDefault();
};

// The helper's exit codes: what went wrong is the sentence on its standard
// output.
enum FormatHelperExit : int { formatted = 0, refused = 1, needsQuickCheck = 2, usage = 64 };

// Formats through the helper and waits for it (the password prompt included:
// call it from a worker). Throws WriteError with the helper's own sentence, or
// authorizationDenied when the user did not authorize.
void formatThroughHelper(const FormatHelperCommand& command, const FormatRequest& request);

}  // namespace vellum
