#include "platform/RawDeviceAccess.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>

#include "bytes/DeviceError.h"
#include "bytes/FileSource.h"
#include "platform/BlockDeviceSource.h"

namespace vellum {

UniqueFd RawDeviceAccess::openReadOnly(const std::string& path, const AuthOpenCommand& helper) {
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd) return fd;
  if (errno != EACCES && errno != EPERM) throw DeviceError::cannotOpen(path, errno);

  AuthOpenReply reply = requestDescriptor(helper, path, std::nullopt);
  if (reply.systemError != 0) throw DeviceError::cannotOpen(path, reply.systemError);
  if (!reply.fd) throw DeviceError::authorizationDenied(path);
  return std::move(reply.fd);
}

std::unique_ptr<ByteSource> SourceOpener::open(const std::string& path,
                                               const AuthOpenCommand& helper) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) throw DeviceError::cannotOpen(path, errno);
  if (S_ISBLK(status.st_mode) || S_ISCHR(status.st_mode)) {
    UniqueFd fd = RawDeviceAccess::openReadOnly(path, helper);
    // Writers hold an exclusive lock for their whole run; reading meanwhile
    // would copy their test blocks instead of the user's data.
    if (::flock(fd.get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
      throw DeviceError::inUse(path);
    }
    return std::make_unique<BlockDeviceSource>(std::move(fd), path);
  }
  if (S_ISREG(status.st_mode)) return std::make_unique<FileSource>(path);
  throw DeviceError::notAFileOrDevice(path);
}

}  // namespace vellum
