#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "bytes/UniqueFd.h"

namespace vellum {

// How the privileged opener, vellum-authopen, is started. The helper speaks a
// small protocol: arguments "-stdoutpipe", optionally "-o" and the decimal
// open flags, then the path; its standard output is one end of a Unix socket
// pair, on which it passes back exactly one open descriptor, or nothing when
// it (or the user asked for a password) refuses.
struct AuthOpenCommand {
  // The program and its leading arguments; the protocol's arguments follow.
  std::vector<std::string> launcher;

  // pkexec with the installed helper, which asks for an administrator password
  // through the desktop's polkit agent. VL_AUTHOPEN_HELPER names a helper to
  // run directly instead (no pkexec), for tests and development.
  static AuthOpenCommand systemDefault();
  // Runs program directly, without pkexec.
  static AuthOpenCommand direct(std::string program);
};

// The folder `cmake --install` puts the privileged helpers in.
extern const std::string_view kInstalledHelperFolder;

// Where a privileged helper (vellum-authopen, vellum-format) is: next to the
// running executable, in the libexec folder beside it, or in the folder it was
// installed to. Absent when none of them holds it as an executable.
std::optional<std::string> findHelperProgram(std::string_view name);

struct AuthOpenReply {
  UniqueFd fd;                 // invalid when the helper passed nothing
  int systemError = 0;         // errno when the socket pair or the helper could not be made
  bool helperMissing = false;  // the helper program is not installed
  // The helper refused and said why: the errno of its open (EBUSY: in use),
  // or 0 for a path it does not open. Absent when it said nothing (the user
  // refused to authorize).
  std::optional<int> refusedWith;
};

// Runs the helper once and waits for it. Blocks as long as the user takes to
// authorize: never call it on the user-interface thread. A reply counts as a
// descriptor only when exactly one arrived as SCM_RIGHTS; anything else passed
// is closed.
AuthOpenReply requestDescriptor(const AuthOpenCommand& command, const std::string& path,
                                std::optional<int> openFlags);

}  // namespace vellum
