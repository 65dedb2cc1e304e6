#include "platform/StateFolder.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

namespace vellum {

std::filesystem::path userStateFolder() {
  // A relative XDG_STATE_HOME is ignored, as other desktop programs do.
  if (const char* state = std::getenv("XDG_STATE_HOME"); state && state[0] == '/') {
    return std::filesystem::path(state) / "vellum-check";
  }
  std::filesystem::path home;
  if (const char* variable = std::getenv("HOME"); variable && variable[0] == '/') {
    home = variable;
  } else {
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd* found = nullptr;
    if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found) {
      home = found->pw_dir;
    } else {
      home = "/";
    }
  }
  return home / ".local/state/vellum-check";
}

}  // namespace vellum
