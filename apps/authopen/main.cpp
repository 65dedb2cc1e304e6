// vellum-authopen: opens one whole-disk block device and passes the open
// descriptor back over the Unix socket on its standard output. It runs as root
// through pkexec, so it trusts nothing it is given: only absolute paths that
// resolve to a whole-disk node directly under /dev are opened, the node must
// be the very device sysfs names, and writable opens are always exclusive.
// It runs no other program and passes exactly one descriptor or none; when it
// refuses, it says why on the socket ("refused ERRNO"), so the caller can
// tell a busy disk from a denied one.
//
// Usage: vellum-authopen -stdoutpipe [-o FLAGS] PATH
//   FLAGS is the decimal open() flags; without it the device is opened
//   read-only.

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>  // PATH_MAX
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Arguments.h"

namespace {

constexpr int kRefused = 1;
constexpr int kUsage = 64;

// Tells the caller why (0: not a disk this helper opens), then exits.
int refuse(const std::string& why, int errnum = 0) {
  std::fprintf(stderr, "vellum-authopen: %s\n", why.c_str());
  const std::string reason = "refused " + std::to_string(errnum) + "\n";
  ssize_t sent = 0;
  do {
    sent = ::send(STDOUT_FILENO, reason.data(), reason.size(), MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  return kRefused;
}

bool exists(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0;
}

// The "major:minor" that sysfs gives for a whole disk.
std::optional<dev_t> sysfsDevice(const std::string& name) {
  std::ifstream file("/sys/block/" + name + "/dev");
  unsigned major = 0;
  unsigned minor = 0;
  char colon = 0;
  if (!(file >> major >> colon >> minor) || colon != ':') return std::nullopt;
  return makedev(major, minor);
}

bool standardOutputIsUnixSocket() {
  struct stat status {};
  if (::fstat(STDOUT_FILENO, &status) != 0 || !S_ISSOCK(status.st_mode)) return false;
  int domain = 0;
  socklen_t length = sizeof domain;
  return ::getsockopt(STDOUT_FILENO, SOL_SOCKET, SO_DOMAIN, &domain, &length) == 0 &&
         domain == AF_UNIX;
}

bool passDescriptor(int fd) {
  char byte = 0;
  iovec vector{&byte, 1};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  msghdr message{};
  message.msg_iov = &vector;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  cmsghdr* header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof(int));
  std::memcpy(CMSG_DATA(header), &fd, sizeof fd);
  ssize_t sent = 0;
  do {
    sent = ::sendmsg(STDOUT_FILENO, &message, MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  return sent == 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string_view> arguments(argv + std::min(argc, 1), argv + argc);
  const std::optional<vellum::authopen::Request> request =
      vellum::authopen::parseArguments(arguments);
  if (!request) {
    std::fprintf(stderr, "usage: vellum-authopen -stdoutpipe [-o FLAGS] PATH\n");
    return kUsage;
  }
  if (!standardOutputIsUnixSocket()) {
    std::fprintf(stderr, "vellum-authopen: standard output must be a Unix socket\n");
    return kRefused;
  }
  if (!vellum::authopen::flagsAllowed(request->flags)) return refuse("open flags not allowed");
  const std::string& path = request->path;

  // Resolve every symlink and "..", then insist on a node directly under /dev.
  if (path.empty() || path.front() != '/') return refuse(path + ": not an absolute path");
  char resolved[PATH_MAX] = {};
  if (::realpath(path.c_str(), resolved) == nullptr) {
    const int errnum = errno;
    return refuse(path + ": " + std::strerror(errnum), errnum);
  }
  const std::optional<std::string> disk = vellum::authopen::diskName(resolved);
  if (!disk) return refuse(path + ": not a whole disk under /dev");
  const std::string& name = *disk;

  // /sys/block lists whole disks only; a partition has a "partition" file.
  if (!exists("/sys/block/" + name) || exists("/sys/block/" + name + "/partition")) {
    return refuse(path + ": not a whole disk");
  }
  const std::optional<dev_t> device = sysfsDevice(name);
  struct stat node {};
  if (!device || ::lstat(resolved, &node) != 0 || !S_ISBLK(node.st_mode) ||
      node.st_rdev != *device) {
    return refuse(path + ": not the block device of disk " + name);
  }

  int openFlags = *request->flags | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC;
  // A writable open is always exclusive: nothing may mount the disk meanwhile.
  if ((openFlags & O_ACCMODE) != O_RDONLY) openFlags |= O_EXCL;
  const int fd = ::open(resolved, openFlags);
  if (fd < 0) {
    const int errnum = errno;
    return refuse(path + ": " + std::strerror(errnum), errnum);
  }
  // The node might have been replaced between the checks and the open.
  struct stat opened {};
  if (::fstat(fd, &opened) != 0 || !S_ISBLK(opened.st_mode) || opened.st_rdev != *device) {
    ::close(fd);
    return refuse(path + ": changed while being opened");
  }
  const bool passed = passDescriptor(fd);
  ::close(fd);
  return passed ? 0 : refuse("could not pass the descriptor");
}
