#include "platform/DeviceWriteAccess.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/file.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "devices/WriteError.h"
#include "platform/DeviceGuard.h"

namespace vellum {
namespace {

WriteError busy(const DiskIdentity& identity) {
  return DeviceGuard::inUse(identity.deviceIdentifier);
}

UniqueFd openThroughHelper(const DiskIdentity& identity, const AuthOpenCommand& helper) {
  const std::string path = identity.devicePath();
  AuthOpenReply reply = requestDescriptor(helper, path, O_RDWR);
  if (reply.systemError != 0) throw WriteError::cannotOpen(path, reply.systemError);
  if (reply.helperMissing) {
    throw WriteError::refused(
        "Opening " + path +
        " for writing needs administrator rights, and the helper vellum-authopen that asks for "
        "them isn't installed. Install Vellum Check with cmake --install, or run it as root.");
  }
  if (reply.refusedWith == EBUSY) throw busy(identity);
  if (reply.refusedWith && *reply.refusedWith != 0) {
    throw WriteError::cannotOpen(path, *reply.refusedWith);
  }
  if (reply.refusedWith) {
    throw WriteError::refused("The helper vellum-authopen opens only whole disks under /dev; " +
                              path + " is not one. Nothing was written.");
  }
  if (!reply.fd) throw WriteError::authorizationDenied(path);
  const int flags = ::fcntl(reply.fd.get(), F_GETFL);
  if (flags < 0 || (flags & O_ACCMODE) != O_RDWR) throw WriteError::cannotOpen(path, EACCES);
  return std::move(reply.fd);
}

// udev takes a shared lock for a moment while it probes a disk; wait that out,
// but not another program that holds the disk.
bool lockExclusively(int fd) {
  for (int attempt = 0; attempt < 20; ++attempt) {
    if (::flock(fd, LOCK_EX | LOCK_NB) == 0) return true;
    if (errno != EWOULDBLOCK && errno != EINTR) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  return false;
}

}  // namespace

std::unique_ptr<FileDescriptorDevice> DeviceWriteAccess::open(const DiskIdentity& identity) {
  return open(identity, Options{});
}

std::unique_ptr<FileDescriptorDevice> DeviceWriteAccess::open(const DiskIdentity& identity,
                                                              const Options& options) {
  DeviceGuard::revalidate(identity, options.paths);
  DeviceGuard::unmountAll(identity, options.paths);
  DeviceGuard::revalidate(identity, options.paths);

  const std::string path = identity.devicePath();
  UniqueFd fd;
  int openError = EACCES;
  if (options.tryPlainOpen) {
    // O_EXCL on a whole disk fails with EBUSY while any partition is mounted
    // or in use, and keeps anything from mounting it while we write. The
    // claim stays with the descriptor, also when the helper passes it.
    fd.reset(::open(path.c_str(), O_RDWR | O_EXCL | O_CLOEXEC));
    openError = fd ? 0 : errno;
  }
  if (openError == EBUSY) throw busy(identity);
  if (openError == EACCES || openError == EPERM) {
    fd = openThroughHelper(identity, options.helper);
  } else if (openError != 0) {
    throw WriteError::cannotOpen(path, openError);
  }
  if (!lockExclusively(fd.get())) throw busy(identity);

  int sectorSize = 0;
  std::uint64_t bytes = 0;
  if (::ioctl(fd.get(), BLKSSZGET, &sectorSize) != 0 ||
      ::ioctl(fd.get(), BLKGETSIZE64, &bytes) != 0 || sectorSize <= 0 ||
      bytes / static_cast<std::uint64_t>(sectorSize) * static_cast<std::uint64_t>(sectorSize) !=
          identity.sizeBytes) {
    throw WriteError::refused(
        "The opened device doesn't match the selected card. Nothing was written.");
  }
  // FileDescriptorDevice switches the descriptor to O_DIRECT.
  return std::make_unique<FileDescriptorDevice>(std::move(fd), path, identity.sizeBytes,
                                                sectorSize);
}

}  // namespace vellum
