#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>

#include "DiskFixtures.h"
#include "Machine.h"
#include "bytes/DeviceError.h"
#include "bytes/FileSource.h"
#include "devices/WriteError.h"
#include "platform/AuthOpen.h"
#include "platform/BlockDeviceSource.h"
#include "platform/DeviceGuard.h"
#include "platform/DeviceWriteAccess.h"
#include "platform/Process.h"
#include "platform/RawDeviceAccess.h"
#include "support/TempDir.h"

namespace vellum {
namespace {

namespace fs = std::filesystem;
using testing::LoopDevice;
using testing::TempDir;

const std::string kHelper = VELLUM_AUTHOPEN_PATH;
const std::string kStandIn = VELLUM_AUTHOPEN_STANDIN_PATH;

AuthOpenCommand standIn(const std::string& mode) {
  return AuthOpenCommand{{kStandIn, mode}};
}

int accessMode(int fd) {
  return ::fcntl(fd, F_GETFL) & O_ACCMODE;
}

dev_t deviceNumber(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
  return status.st_rdev;
}

int openDescriptorCount() {
  return static_cast<int>(std::distance(fs::directory_iterator("/proc/self/fd"), {}));
}

void run(const std::vector<std::string>& argv, const std::string& input = {}) {
  const ProcessResult result = runProcess(argv, input);
  ASSERT_TRUE(result.status.succeeded()) << argv.front() << ": " << result.standardError;
}

// A symlink placed in /dev for one test (devtmpfs, writable by root).
class DevSymlink {
 public:
  explicit DevSymlink(const std::string& target)
      : path_("/dev/vellum-test-" + std::to_string(::getpid())) {
    fs::remove(path_);
    fs::create_symlink(target, path_);
  }
  ~DevSymlink() {
    std::error_code ignored;
    fs::remove(path_, ignored);
  }
  DevSymlink(const DevSymlink&) = delete;
  DevSymlink& operator=(const DevSymlink&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// Puts fd on standard input for one scope (the stand-in helper's "stdin"
// mode passes on what it finds there).
class ScopedStdin {
 public:
  explicit ScopedStdin(int fd) : saved_(::dup(STDIN_FILENO)) { ::dup2(fd, STDIN_FILENO); }
  ~ScopedStdin() { ::dup2(saved_.get(), STDIN_FILENO); }
  ScopedStdin(const ScopedStdin&) = delete;
  ScopedStdin& operator=(const ScopedStdin&) = delete;

 private:
  UniqueFd saved_;
};

// A sparse disk image attached as a loop device, written as a disk image may
// be (VL_ALLOW_DISK_IMAGES=1).
struct ImageDisk {
  explicit ImageDisk(std::uint64_t size, int sectorSize = 0)
      : image(dir.file("disk.img")),
        created((testing::createSparseFile(image, size), true)),
        loop(image, {.sectorSize = sectorSize}) {}

  DiskIdentity inspect() const { return DeviceGuard::inspect(loop.name(), Allowance::standard); }

  TempDir dir;
  std::string image;
  bool created;
  testing::ScopedEnv allowImages{"VL_ALLOW_DISK_IMAGES", "1"};
  LoopDevice loop;
};

TEST(AuthOpenHelper, PassesOneDescriptorForAWholeDisk) {
  VL_REQUIRE_LOOP_DEVICES();
  ImageDisk disk(4 << 20);
  const std::string& path = disk.loop.path();

  AuthOpenReply reading = requestDescriptor(AuthOpenCommand::direct(kHelper), path, std::nullopt);
  ASSERT_EQ(reading.systemError, 0);
  ASSERT_TRUE(reading.fd.valid());
  EXPECT_EQ(accessMode(reading.fd.get()), O_RDONLY);
  struct stat opened {};
  ASSERT_EQ(::fstat(reading.fd.get(), &opened), 0);
  EXPECT_EQ(opened.st_rdev, deviceNumber(path));
  EXPECT_NE(::fcntl(reading.fd.get(), F_GETFD) & FD_CLOEXEC, 0);

  // Writable opens get O_EXCL added: the claim travels with the descriptor.
  AuthOpenReply writing = requestDescriptor(AuthOpenCommand::direct(kHelper), path, O_RDWR);
  ASSERT_TRUE(writing.fd.valid());
  EXPECT_EQ(accessMode(writing.fd.get()), O_RDWR);
  UniqueFd second(::open(path.c_str(), O_RDWR | O_EXCL | O_CLOEXEC));
  EXPECT_FALSE(second.valid());
  EXPECT_EQ(errno, EBUSY);
  writing.fd.reset();
  second.reset(::open(path.c_str(), O_RDWR | O_EXCL | O_CLOEXEC));
  EXPECT_TRUE(second.valid());

  // A link under /dev that leads to the disk itself (like /dev/disk/by-id) is fine.
  DevSymlink link(path);
  EXPECT_TRUE(requestDescriptor(AuthOpenCommand::direct(kHelper), link.path(), std::nullopt).fd);
}

TEST(AuthOpenHelper, RefusesEverythingButAWholeDiskUnderDev) {
  VL_REQUIRE_LOOP_DEVICES();
  ImageDisk disk(8 << 20);
  run({"sfdisk", disk.loop.path()}, "label: dos\nstart=2048, type=83\n");
  disk.loop.updatePartitions();
  const std::string partition = disk.loop.path() + "p1";
  ASSERT_TRUE(fs::is_block_file(partition));
  const std::string file = disk.dir.file("plain.bin");
  testing::writeFile(file, "not a disk");
  DevSymlink intoTmp(file);

  struct Case {
    const char* what;
    std::string path;
    std::optional<int> flags;
  };
  const Case cases[] = {
      {"a partition", partition, std::nullopt},
      {"a writable partition", partition, O_RDWR},
      {"a regular file", file, std::nullopt},
      {"a /dev symlink to /tmp", intoTmp.path(), std::nullopt},
      {"a way out of /dev", "/dev/.." + file, std::nullopt},
      {"a relative path", disk.loop.path().substr(1), std::nullopt},
      {"a character device", "/dev/null", std::nullopt},
      {"a missing node", "/dev/vellum-no-such-disk", std::nullopt},
      {"O_CREAT", disk.loop.path(), O_RDWR | O_CREAT},
      {"O_TRUNC", disk.loop.path(), O_RDWR | O_TRUNC},
      {"O_APPEND", disk.loop.path(), O_WRONLY | O_APPEND},
      {"an access mode of 3", disk.loop.path(), 3},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const AuthOpenReply reply =
        requestDescriptor(AuthOpenCommand::direct(kHelper), c.path, c.flags);
    EXPECT_EQ(reply.systemError, 0);
    EXPECT_FALSE(reply.fd.valid());
  }
}

TEST(AuthOpenHelper, TalksOnlyOverAUnixSocket) {
  ProcessResult result = runProcess({kHelper, "-stdoutpipe", "/dev/null"});
  EXPECT_EQ(result.status, (ExitStatus{true, 1}));
  EXPECT_EQ(result.standardError, "vellum-authopen: standard output must be a Unix socket\n");
  EXPECT_TRUE(result.standardOutput.empty());

  for (const auto& argv : std::vector<std::vector<std::string>>{
           {kHelper}, {kHelper, "/dev/null"}, {kHelper, "-o", "2", "/dev/null"}}) {
    result = runProcess(argv);
    EXPECT_EQ(result.status, (ExitStatus{true, 64}));
    EXPECT_EQ(result.standardError, "usage: vellum-authopen -stdoutpipe [-o FLAGS] PATH\n");
  }
}

TEST(AuthOpenClient, CountsOnlyExactlyOneDescriptorAsAnswer) {
  TempDir dir;
  const std::string file = dir.file("card.bin");
  testing::writeFile(file, "card");
  const int before = openDescriptorCount();
  struct Case {
    const char* mode;
    bool received;
  };
  for (const Case c : {Case{"nothing", false}, Case{"data-only", false}, Case{"two", false},
                       Case{"read-only", true}}) {
    SCOPED_TRACE(c.mode);
    AuthOpenReply reply = requestDescriptor(standIn(c.mode), file, std::nullopt);
    EXPECT_EQ(reply.systemError, 0);
    EXPECT_EQ(reply.fd.valid(), c.received);
  }
  // Every descriptor that arrived but did not count was closed.
  EXPECT_EQ(openDescriptorCount(), before);

  const AuthOpenReply missing =
      requestDescriptor(AuthOpenCommand::direct(dir.file("no-such-helper")), file, std::nullopt);
  EXPECT_EQ(missing.systemError, ENOENT);
  EXPECT_FALSE(missing.fd.valid());
}

// Runs body in a child process that has dropped root for nobody, so that
// opening a disk is refused as it is for an ordinary user. The child's exit
// code is body's result (0: success).
int asNobody(const std::function<int()>& body) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    if (::setgroups(0, nullptr) != 0 || ::setresgid(65534, 65534, 65534) != 0 ||
        ::setresuid(65534, 65534, 65534) != 0) {
      ::_exit(100);
    }
    int result = 101;
    try {
      result = body();
    } catch (...) {
      result = 102;
    }
    ::_exit(result);
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 200;
}

TEST(RawDeviceAccess, AsksTheHelperWhenAPlainOpenIsRefused) {
  VL_REQUIRE_LOOP_DEVICES();
  ImageDisk disk(1 << 20);
  const std::string path = disk.loop.path();
  const DiskIdentity identity = disk.inspect();

  // The stand-in hands back what the test opened as root beforehand.
  struct Case {
    const char* what;
    int openFlags;
    std::function<int()> body;
  };
  const Case cases[] = {
      {"reading", O_RDONLY,
       [&] {
         if (::open(path.c_str(), O_RDONLY) >= 0 || errno != EACCES) return 1;
         const std::unique_ptr<ByteSource> source = SourceOpener::open(path, standIn("stdin"));
         return dynamic_cast<BlockDeviceSource*>(source.get()) && source->size() == (1u << 20) ? 0
                                                                                               : 2;
       }},
      {"a refusal", O_RDONLY,
       [&] {
         try {
           RawDeviceAccess::openReadOnly(path, standIn("nothing"));
         } catch (const DeviceError& error) {
           return error == DeviceError::authorizationDenied(path) &&
                          error.description() == "Authorization to read " + path + " was denied."
                      ? 0
                      : 3;
         }
         return 4;
       }},
      {"writing", O_RDWR,
       [&] {
         const auto device = DeviceWriteAccess::open(identity, {standIn("stdin"), true, {}});
         return device->size() == (1u << 20) && device->isDirect() ? 0 : 5;
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    UniqueFd prepared(::open(path.c_str(), c.openFlags | O_CLOEXEC));
    ASSERT_TRUE(prepared.valid());
    const ScopedStdin input(prepared.get());
    EXPECT_EQ(asNobody(c.body), 0);
  }
}

TEST(SourceOpener, PicksTheSourceByWhatThePathIs) {
  TempDir dir;
  const std::string file = dir.file("image.bin");
  testing::writeFile(file, std::string(1000, 'v'));
  const std::string fifo = dir.file("pipe");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const std::string missing = dir.file("missing");

  const std::unique_ptr<ByteSource> source = SourceOpener::open(file);
  ASSERT_NE(dynamic_cast<FileSource*>(source.get()), nullptr);
  EXPECT_EQ(source->size(), 1000u);
  EXPECT_EQ(source->descriptionForReport(), file);

  struct Refusal {
    std::string path;
    DeviceError error;
    std::string text;
  };
  const Refusal refusals[] = {
      {dir.path().string(), DeviceError::notAFileOrDevice(dir.path().string()),
       dir.path().string() + " is not a readable file or device."},
      {fifo, DeviceError::notAFileOrDevice(fifo), fifo + " is not a readable file or device."},
      {missing, DeviceError::cannotOpen(missing, ENOENT),
       "Could not open " + missing + ": No such file or directory"},
      // A character device without a size is not something to read.
      {"/dev/null", DeviceError::notAFileOrDevice("/dev/null"),
       "/dev/null is not a readable file or device."},
  };
  for (const Refusal& r : refusals) {
    SCOPED_TRACE(r.path);
    try {
      SourceOpener::open(r.path);
      ADD_FAILURE() << "opened";
    } catch (const DeviceError& error) {
      EXPECT_EQ(error, r.error);
      EXPECT_EQ(error.description(), r.text);
    }
  }
}

TEST(SourceOpener, OpensABlockDeviceAsRawSource) {
  VL_REQUIRE_LOOP_DEVICES();
  ImageDisk disk(3 << 20, 4096);
  const std::unique_ptr<ByteSource> source = SourceOpener::open(disk.loop.path());
  const auto* raw = dynamic_cast<BlockDeviceSource*>(source.get());
  ASSERT_NE(raw, nullptr);
  EXPECT_EQ(raw->blockSize(), 4096);
  EXPECT_EQ(raw->size(), 3u << 20);
  EXPECT_EQ(raw->descriptionForReport(), disk.loop.path());
}

TEST(DeviceWriteAccess, OpensADiskExclusivelyForUncachedWrites) {
  VL_REQUIRE_LOOP_DEVICES();
  ImageDisk disk(4 << 20);
  const DiskIdentity identity = disk.inspect();
  std::unique_ptr<FileDescriptorDevice> device = DeviceWriteAccess::open(identity);
  EXPECT_EQ(device->size(), 4u << 20);
  EXPECT_EQ(device->blockSize(), 512);
  EXPECT_EQ(device->descriptionForReport(), "/dev/" + identity.deviceIdentifier);
  EXPECT_TRUE(device->isDirect());
  EXPECT_EQ(accessMode(device->fd()), O_RDWR);

  const Bytes block(4096, 0x5A);
  device->write(8192, block);
  device->synchronize();
  EXPECT_EQ(device->read(8192, 4096), block);
  EXPECT_EQ(FileSource(disk.image).read(8192, 4096), block);

  // While one writer holds the disk, a second one is told it is in use.
  try {
    DeviceWriteAccess::open(identity);
    FAIL() << "opened twice";
  } catch (const WriteError& error) {
    EXPECT_EQ(error.description(), identity.deviceIdentifier +
                                       " is still in use. Close any apps using the card and "
                                       "try again.");
  }
  device.reset();
  EXPECT_NE(DeviceWriteAccess::open(identity), nullptr);

  ImageDisk modern(4 << 20, 4096);
  EXPECT_EQ(DeviceWriteAccess::open(modern.inspect())->blockSize(), 4096);
}

TEST(DeviceWriteAccess, GoesThroughTheHelperWhenAPlainOpenIsRefused) {
  VL_REQUIRE_LOOP_DEVICES();
  ImageDisk disk(4 << 20);
  const DiskIdentity identity = disk.inspect();
  const std::string path = disk.loop.path();

  DeviceWriteAccess::Options options{AuthOpenCommand::direct(kHelper), false, {}};
  std::unique_ptr<FileDescriptorDevice> device = DeviceWriteAccess::open(identity, options);
  EXPECT_EQ(accessMode(device->fd()), O_RDWR);
  EXPECT_TRUE(device->isDirect());
  UniqueFd rival(::open(path.c_str(), O_RDWR | O_EXCL | O_CLOEXEC));
  EXPECT_EQ(errno, EBUSY);
  device.reset();

  struct Case {
    AuthOpenCommand helper;
    WriteError error;
    std::string text;
  };
  const Case cases[] = {
      {standIn("nothing"), WriteError::authorizationDenied(path),
       "Permission to write to " + path + " was denied."},
      {standIn("data-only"), WriteError::authorizationDenied(path),
       "Permission to write to " + path + " was denied."},
      {standIn("two"), WriteError::authorizationDenied(path),
       "Permission to write to " + path + " was denied."},
      {standIn("read-only"), WriteError::cannotOpen(path, EACCES),
       "Could not open " + path + " for writing: Permission denied"},
      {AuthOpenCommand::direct(disk.dir.file("no-such-helper")),
       WriteError::cannotOpen(path, ENOENT),
       "Could not open " + path + " for writing: No such file or directory"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    try {
      DeviceWriteAccess::open(identity, {c.helper, false, {}});
      ADD_FAILURE() << "opened";
    } catch (const WriteError& error) {
      EXPECT_EQ(error, c.error);
      EXPECT_EQ(error.description(), c.text);
    }
  }
}

TEST(DeviceWriteAccess, RefusesADescriptorOfAnotherSize) {
  VL_REQUIRE_LOOP_DEVICES();
  ImageDisk selected(4 << 20);
  ImageDisk other(6 << 20);
  // The helper hands back a different disk than the one inspected, as if the
  // card changed between the checks and the open.
  UniqueFd wrong(::open(other.loop.path().c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_TRUE(wrong.valid());
  const ScopedStdin input(wrong.get());
  try {
    DeviceWriteAccess::open(selected.inspect(), {standIn("stdin"), false, {}});
    ADD_FAILURE() << "opened a disk of another size";
  } catch (const WriteError& error) {
    EXPECT_EQ(error, WriteError::refused("The opened device doesn't match the selected card. "
                                         "Nothing was written."));
  }
}

TEST(DeviceWriteAccess, RefusesADiskThatChangedAndUnmountsOneThatIsMounted) {
  VL_REQUIRE_LOOP_DEVICES();
  if (!findProgram("mkfs.ext4")) GTEST_SKIP() << "needs mkfs.ext4 (e2fsprogs)";
  ImageDisk disk(16 << 20);
  const std::string changed = "The disk at " + disk.loop.name() +
                              " changed since you selected it. Nothing was written. Select the "
                              "card again.";
  DiskIdentity identity = disk.inspect();

  DiskIdentity stale = identity;
  stale.sizeBytes += 512;
  try {
    DeviceWriteAccess::open(stale);
    FAIL() << "opened a disk of another size";
  } catch (const WriteError& error) {
    EXPECT_EQ(error, WriteError::refused(changed));
  }

  // A mounted partition is unmounted before the disk is opened.
  run({"sfdisk", disk.loop.path()}, "label: dos\nstart=2048, type=83\n");
  disk.loop.updatePartitions();
  run({"mkfs.ext4", "-q", disk.loop.path() + "p1"});
  const std::string mountPoint = disk.dir.file("mnt");
  fs::create_directory(mountPoint);
  ASSERT_EQ(::mount((disk.loop.path() + "p1").c_str(), mountPoint.c_str(), "ext4", 0, nullptr), 0)
      << std::strerror(errno);
  identity = disk.inspect();
  std::unique_ptr<FileDescriptorDevice> device = DeviceWriteAccess::open(identity);
  EXPECT_TRUE(DeviceGuard::mountedVolumes(identity.deviceIdentifier).empty());
  device.reset();

  // The image grows after selection: the identity no longer matches.
  fs::resize_file(disk.image, 32 << 20);
  run({"losetup", "--set-capacity", disk.loop.path()});
  try {
    DeviceWriteAccess::open(identity);
    FAIL() << "opened a resized disk";
  } catch (const WriteError& error) {
    EXPECT_EQ(error.description(), changed);
  }
}

}  // namespace
}  // namespace vellum
