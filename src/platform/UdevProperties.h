#pragma once

#include <map>
#include <string>
#include <string_view>

namespace vellum {

// The "E:KEY=VALUE" properties of one udev database record
// (/run/udev/data/b{major}:{minor}); other lines are ignored.
std::map<std::string, std::string, std::less<>> parseUdevProperties(std::string_view text);
// Undoes udev's "\x20"-style escapes, as in ID_FS_LABEL_ENC.
std::string unescapeUdev(std::string_view text);

}  // namespace vellum
