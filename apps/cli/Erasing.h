#pragma once

#include <optional>
#include <string>

#include "Options.h"
#include "Target.h"
#include "checks/CardImage.h"
#include "summary/CheckAction.h"

namespace vellum::cli {

// Gets TARGET ready for an erasing action, in the order that keeps the card
// safe: inspect it (the guard for a disk, so a refusal comes before any
// question), ask for the confirmation word (the disk's name, or "erase" for
// demo cards and image files; --confirm answers it), save the backup image
// when --backup FILE is given, and only then open it for writing. A failed or
// cancelled backup stops before anything is written. Returns none when the
// user did not confirm (the reason is printed). options must know --confirm,
// --backup and --force.
std::optional<Target> prepareErase(const std::string& argument, CheckAction action,
                                   const Options& options);

// Saves the whole target into a backup image file, with a status line and a
// progress line on stderr; Ctrl-C cancels (CheckError::cancelled). Refuses a
// destination that is the target itself or lies on the disk being erased; an
// existing file is replaced only when replace is set.
void saveBackup(const Target& target, const std::string& destination, bool replace);

// Refuses (UsageError) an image destination that is its own source file or
// lies on sourceDisk, symlinks followed.
void checkImageDestination(const std::string& source, const std::optional<std::string>& sourceDisk,
                           const std::string& noun, const std::string& destination, bool erasing);

// The user's text for an ImageError, with the option that replaces a file.
std::string imageErrorText(const ImageError& error);

}  // namespace vellum::cli
