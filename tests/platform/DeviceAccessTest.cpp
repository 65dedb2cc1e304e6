#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "RealDisks.h"
#include "bytes/DeviceError.h"
#include "bytes/FileSource.h"
#include "devices/WriteError.h"
#include "platform/AuthOpen.h"
#include "platform/BlockDeviceSource.h"
#include "platform/DeviceWriteAccess.h"
#include "platform/RawDeviceAccess.h"

namespace vellum {
namespace {

using ::testing::ThrowsMessage;

namespace fs = std::filesystem;
using testing::errorText;
using testing::ImageDisk;
using testing::TempDir;

const std::string kHelper = VELLUM_AUTHOPEN_PATH;
const AuthOpenCommand kDirect = AuthOpenCommand::direct(kHelper);

AuthOpenCommand standIn(const std::string& mode) {
  return AuthOpenCommand{{VELLUM_AUTHOPEN_STANDIN_PATH, mode}};
}

int accessMode(int fd) {
  return ::fcntl(fd, F_GETFL) & O_ACCMODE;
}

bool openExclusively(const std::string& path) {
  return UniqueFd(::open(path.c_str(), O_RDWR | O_EXCL | O_CLOEXEC)).valid();
}

// A symlink in /dev (devtmpfs, writable by root) for one test.
struct DevSymlink {
  explicit DevSymlink(const std::string& target) {
    fs::remove(path);
    fs::create_symlink(target, path);
  }
  ~DevSymlink() { fs::remove(path); }
  std::string path = "/dev/vellum-test-" + std::to_string(::getpid());
};

// Puts fd on standard input for one scope: the stand-in helper's "stdin" mode
// passes on what it finds there.
struct ScopedStdin {
  explicit ScopedStdin(int fd) { ::dup2(fd, STDIN_FILENO); }
  ~ScopedStdin() { ::dup2(saved.get(), STDIN_FILENO); }
  UniqueFd saved{::dup(STDIN_FILENO)};
};

TEST(AuthOpenHelper, PassesOneDescriptorForAWholeDiskAndNothingElse) {
  VL_REQUIRE_LOOP_DEVICES();
  ImageDisk disk(8 << 20);
  const std::string& path = disk.loop.path();

  AuthOpenReply reading = requestDescriptor(kDirect, path, std::nullopt);
  ASSERT_TRUE(reading.fd.valid());
  EXPECT_EQ(accessMode(reading.fd.get()), O_RDONLY);
  struct stat opened {
  }, named{};
  ASSERT_EQ(::fstat(reading.fd.get(), &opened) | ::stat(path.c_str(), &named), 0);
  EXPECT_EQ(opened.st_rdev, named.st_rdev);
  EXPECT_NE(::fcntl(reading.fd.get(), F_GETFD) & FD_CLOEXEC, 0);

  // Writable opens get O_EXCL added: the claim travels with the descriptor.
  AuthOpenReply writing = requestDescriptor(kDirect, path, O_RDWR);
  ASSERT_TRUE(writing.fd.valid());
  EXPECT_EQ(accessMode(writing.fd.get()), O_RDWR);
  EXPECT_FALSE(openExclusively(path));
  EXPECT_EQ(errno, EBUSY);
  // A refusal says why: a busy disk is told apart from a denied one.
  EXPECT_EQ(requestDescriptor(kDirect, path, O_RDWR).refusedWith, EBUSY);
  EXPECT_TRUE(
      requestDescriptor(AuthOpenCommand::direct("/nonexistent/vellum-authopen"), path, O_RDWR)
          .helperMissing);
  writing.fd.reset();
  EXPECT_TRUE(openExclusively(path));

  // A link under /dev to the disk itself (like /dev/disk/by-id) is fine.
  const DevSymlink toDisk(path);
  EXPECT_TRUE(requestDescriptor(kDirect, toDisk.path, std::nullopt).fd.valid());

  const std::string partition = disk.partition();
  const std::string file = disk.dir.file("plain.bin");
  testing::writeFile(file, "not a disk");
  const DevSymlink intoTmp(file);
  const std::tuple<const char*, std::string, std::optional<int>> refused[] = {
      {"a partition", partition, std::nullopt},
      {"a writable partition", partition, O_RDWR},
      {"a regular file", file, std::nullopt},
      {"a /dev symlink to /tmp", intoTmp.path, std::nullopt},
      {"a way out of /dev", "/dev/.." + file, std::nullopt},
      {"a relative path", path.substr(1), std::nullopt},
      {"a character device", "/dev/null", std::nullopt},
      {"a missing node", "/dev/vellum-no-such-disk", std::nullopt},
      {"O_CREAT", path, O_RDWR | O_CREAT},
      {"O_TRUNC", path, O_RDWR | O_TRUNC},
      {"O_APPEND", path, O_WRONLY | O_APPEND},
      {"an access mode of 3", path, 3},
  };
  for (const auto& [what, target, flags] : refused) {
    const AuthOpenReply reply = requestDescriptor(kDirect, target, flags);
    EXPECT_EQ(reply.systemError, 0) << what;
    EXPECT_FALSE(reply.fd.valid()) << what;
    EXPECT_TRUE(reply.refusedWith.has_value()) << what;
  }
}

TEST(AuthOpenHelper, TalksOnlyOverAUnixSocket) {
  const ProcessResult result = runProcess({kHelper, "-stdoutpipe", "/dev/null"});
  EXPECT_EQ(result.status, (ExitStatus{true, 1}));
  EXPECT_EQ(result.standardError, "vellum-authopen: standard output must be a Unix socket\n");
  EXPECT_TRUE(result.standardOutput.empty());
}

TEST(AuthOpenClient, CountsOnlyExactlyOneDescriptorAsAnswer) {
  TempDir dir;
  const std::string file = dir.file("card.bin");
  testing::writeFile(file, "card");
  const auto openDescriptors = [] {
    return std::distance(fs::directory_iterator("/proc/self/fd"), {});
  };
  const auto before = openDescriptors();
  for (const auto& [mode, received] :
       {std::pair{"nothing", false}, {"data-only", false}, {"two", false}, {"read-only", true}}) {
    const AuthOpenReply reply = requestDescriptor(standIn(mode), file, std::nullopt);
    EXPECT_EQ(reply.systemError, 0) << mode;
    EXPECT_EQ(reply.fd.valid(), received) << mode;
  }
  // Every descriptor that arrived but did not count was closed.
  EXPECT_EQ(openDescriptors(), before);
}

TEST(RawDeviceAccess, AsksTheHelperWhenAPlainOpenIsRefused) {
  VL_REQUIRE_LOOP_DEVICES();
  ImageDisk disk(1 << 20);
  const std::string path = disk.loop.path();
  const DiskIdentity identity = disk.inspect();
  // The stand-in hands back what the test opened as root beforehand.
  const UniqueFd reading(::open(path.c_str(), O_RDONLY | O_CLOEXEC)),
      writing(::open(path.c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_TRUE(reading.valid() && writing.valid());
  // In a child that dropped root for nobody, opening a disk is refused as it
  // is for an ordinary user. Each failed step sets one bit of the exit code.
  const pid_t pid = ::fork();
  if (pid == 0) {
    if (::setgroups(0, nullptr) != 0 || ::setresgid(65534, 65534, 65534) != 0 ||
        ::setresuid(65534, 65534, 65534) != 0) {
      ::_exit(64);
    }
    int failed = ::open(path.c_str(), O_RDONLY) < 0 && errno == EACCES ? 0 : 1;
    try {
      ::dup2(reading.get(), STDIN_FILENO);
      {
        const std::unique_ptr<ByteSource> source = SourceOpener::open(path, standIn("stdin"));
        if (!dynamic_cast<BlockDeviceSource*>(source.get()) || source->size() != 1 << 20)
          failed |= 2;
      }
      // The reader's shared lock keeps writers out; here it lives on in the
      // parent's copy of the descriptor.
      ::flock(reading.get(), LOCK_UN);
      if (errorText<DeviceError>([&] {
            RawDeviceAccess::openReadOnly(path, standIn("nothing"));
          }) != "Authorization to read " + path + " was denied.") {
        failed |= 4;
      }
      ::dup2(writing.get(), STDIN_FILENO);
      const auto device = DeviceWriteAccess::open(identity, {standIn("stdin"), true, {}});
      if (device->size() != 1 << 20 || !device->isDirect()) failed |= 8;
    } catch (...) {
      failed |= 16;
    }
    ::_exit(failed);
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  EXPECT_EQ(status, 0) << "bits: 1 plain open, 2 reading, 4 refusal, 8 writing, 16 threw";
}

TEST(SourceOpener, RefusesWhatIsNeitherFileNorDevice) {
  TempDir dir;
  const std::string fifo = dir.file("pipe");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  // A character device without a size is not something to read.
  for (const std::string& path : {dir.path().string(), fifo, std::string("/dev/null")}) {
    EXPECT_THAT([&] { SourceOpener::open(path); },
                ThrowsMessage<DeviceError>(path + " is not a readable file or device."));
  }
  EXPECT_THAT([&] { SourceOpener::open(dir.file("missing")); },
              ThrowsMessage<DeviceError>("Could not open " + dir.file("missing") +
                                         ": No such file or directory"));
}

TEST(DeviceWriteAccess, OpensADiskExclusivelyForUncachedWritesDirectlyOrThroughTheHelper) {
  VL_REQUIRE_LOOP_DEVICES();
  ImageDisk disk(4 << 20);
  const DiskIdentity identity = disk.inspect();
  const std::string path = disk.loop.path();
  std::unique_ptr<FileDescriptorDevice> device = DeviceWriteAccess::open(identity);
  EXPECT_EQ(device->size(), 4u << 20);
  EXPECT_EQ(device->blockSize(), 512);
  EXPECT_EQ(device->descriptionForReport(), path);
  EXPECT_TRUE(device->isDirect());
  EXPECT_EQ(accessMode(device->fd()), O_RDWR);
  const Bytes block(4096, 0x5A);
  device->write(8192, block);
  device->synchronize();
  EXPECT_EQ(device->read(8192, 4096), block);
  EXPECT_EQ(FileSource(disk.image).read(8192, 4096), block);
  // While one writer holds the disk, a second one is told it is in use.
  EXPECT_THAT(
      [&] { DeviceWriteAccess::open(identity); },
      ThrowsMessage<WriteError>(identity.deviceIdentifier +
                                " is still in use. Close any apps using the card and try again."));
  // Nor can it be read meanwhile: a copy would hold the writer's test blocks.
  EXPECT_THAT([&] { SourceOpener::open(path); },
              ThrowsMessage<DeviceError>(DeviceError::inUse(path).description()));
  device.reset();
  EXPECT_NE(SourceOpener::open(path), nullptr);

  device = DeviceWriteAccess::open(identity, {kDirect, false, {}});
  EXPECT_EQ(accessMode(device->fd()), O_RDWR);
  EXPECT_TRUE(device->isDirect());
  EXPECT_FALSE(openExclusively(path));
  device.reset();

  const std::string denied = "Permission to write to " + path + " was denied.";
  const std::pair<AuthOpenCommand, std::string> failures[] = {
      {standIn("nothing"), denied},
      {standIn("read-only"), "Could not open " + path + " for writing: Permission denied"},
      {standIn("busy"), identity.deviceIdentifier +
                            " is still in use. Close any apps using the card and try again."},
      {AuthOpenCommand::direct(disk.dir.file("no-such-helper")),
       "Opening " + path +
           " for writing needs administrator rights, and the helper vellum-authopen that asks "
           "for them isn't installed. Install Vellum Check with cmake --install, or run it as "
           "root."},
  };
  for (const auto& [helper, text] : failures)
    EXPECT_THAT(([&, &helper = helper] {
                  DeviceWriteAccess::open(identity, {helper, false, {}});
                }),
                ThrowsMessage<WriteError>(text));

  // A helper that hands back another disk, as if the card changed between
  // the checks and the open.
  const ImageDisk other(6 << 20);
  const UniqueFd wrong(::open(other.loop.path().c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_TRUE(wrong.valid());
  const ScopedStdin input(wrong.get());
  EXPECT_THAT(
      [&] {
        DeviceWriteAccess::open(identity, {standIn("stdin"), false, {}});
      },
      ThrowsMessage<WriteError>(
          "The opened device doesn't match the selected card. Nothing was written."));

  const ImageDisk modern(4 << 20, 4096);
  EXPECT_EQ(DeviceWriteAccess::open(modern.inspect())->blockSize(), 4096);
  // Opening checks the disk again: one that changed since it was chosen is
  // not opened at all.
  DiskIdentity stale = modern.inspect();
  stale.sizeBytes += 4096;
  EXPECT_THAT([&] { DeviceWriteAccess::open(stale); },
              ThrowsMessage<WriteError>(DeviceGuard::changed(modern.loop.name()).description()));
}

}  // namespace
}  // namespace vellum
