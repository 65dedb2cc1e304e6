#pragma once

#include <optional>
#include <string>

#include "session/Session.h"

namespace vellum::cli {

// The process's one session: demo cards and disks proven fake live as long
// as the command (so quick --then sees what the Quick Check proved).
Session& session();

// The whole-disk name TARGET stands for ("sdb" for sdb, /dev/sdb or a
// /dev/disk/by-id link to it), or none when it is a demo card or a file.
// Bare words count as disk names when they look like one (sdb, mmcblk0,
// nvme0n1, loop3, with or without a partition number) or when the kernel
// knows a block device of that name; anything else is a file path.
std::optional<std::string> diskName(const std::string& argument);

// What TARGET names: a demo card, a disk (its facts filled in by the session)
// or an image file. Throws UsageError for an unknown demo card.
RunTarget resolveTarget(const std::string& argument);

// Runs the request through the session with Ctrl-C as a stop, a progress line
// and status lines on stderr. An erasing action asks for the confirmation
// word first (or checks confirm against it). json leaves out the format's
// status line. Throws RunError.
CheckOutcome runRequest(RunRequest& request, const std::optional<std::string>& confirm, bool json);

// Asks for (or checks --confirm against) the word that allows erasing.
// Returns false when the user did not confirm; prints why.
bool confirmErase(const std::string& what, const std::string& word,
                  const std::optional<std::string>& given);

}  // namespace vellum::cli
