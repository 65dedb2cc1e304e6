#include "DiskFixtures.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "bytes/UniqueFd.h"
#include "platform/Process.h"

#ifndef VELLUM_FUSEDISK_PATH
#define VELLUM_FUSEDISK_PATH ""
#endif

namespace vellum::testing {
namespace {

std::string trimmed(std::string text) {
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

// Runs a tool and returns its standard output; throws with its error text.
std::string run(const std::vector<std::string>& argv) {
  const ProcessResult result = runProcess(argv);
  if (!result.status.succeeded()) {
    throw std::runtime_error(argv.front() + " failed: " + trimmed(result.standardError));
  }
  return result.standardOutput;
}

}  // namespace

std::optional<std::string> loopDevicesUnavailable() {
  if (::geteuid() != 0) return "needs root to attach loop devices (run the tests as root)";
  if (::access("/dev/loop-control", R_OK | W_OK) != 0) return "no /dev/loop-control here";
  if (!findProgram("losetup")) return "losetup (util-linux) is not installed";
  return std::nullopt;
}

std::optional<std::string> fuseDisksUnavailable() {
  if (auto why = loopDevicesUnavailable()) return why;
  if (::access("/dev/fuse", R_OK | W_OK) != 0) return "no usable /dev/fuse here (FUSE missing)";
  if (std::string(VELLUM_FUSEDISK_PATH).empty()) {
    return "vellum-fusedisk was not built (libfuse3-dev missing at configure time)";
  }
  if (!findProgram("fusermount3")) return "fusermount3 (fuse3) is not installed";
  return std::nullopt;
}

void createSparseFile(const std::string& path, std::uint64_t size) {
  UniqueFd fd(::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (!fd || ::ftruncate(fd.get(), static_cast<off_t>(size)) != 0) {
    throw std::runtime_error("cannot create " + path);
  }
}

LoopDevice::LoopDevice(const std::string& file, Options options) {
  std::vector<std::string> argv{"losetup", "--find", "--show"};
  if (options.sectorSize != 0) {
    argv.push_back("--sector-size");
    argv.push_back(std::to_string(options.sectorSize));
  }
  if (options.directIo) argv.push_back("--direct-io=on");
  if (options.readOnly) argv.push_back("--read-only");
  argv.push_back(file);
  path_ = trimmed(run(argv));
  // Partitions added by hand (partx, as a format does) outlive a detach
  // without partition scanning: drop any an earlier user left behind.
  runProcess({"partx", "--delete", path_});
}

LoopDevice::~LoopDevice() {
  if (path_.empty()) return;
  runProcess({"partx", "--delete", path_});
  runProcess({"losetup", "--detach", path_});
}

std::string LoopDevice::name() const {
  return std::filesystem::path(path_).filename().string();
}

void LoopDevice::updatePartitions() const {
  run({"partx", "--update", path_});
}

namespace {
const char* overflowName(SimulatedDevice::Overflow overflow) {
  switch (overflow) {
    case SimulatedDevice::Overflow::wrap:
      return "wrap";
    case SimulatedDevice::Overflow::discard:
      return "discard";
    case SimulatedDevice::Overflow::combined:
      return "combined";
  }
  return "wrap";
}
}  // namespace

FuseDisk::FuseDisk(const Options& options) {
  const std::string mountPoint = folder_.file("mount");
  std::filesystem::create_directory(mountPoint);
  std::vector<std::string> argv{VELLUM_FUSEDISK_PATH,
                                mountPoint,
                                "--size",
                                std::to_string(options.size),
                                "--sector",
                                std::to_string(options.sectorSize),
                                "--overflow",
                                overflowName(options.overflow)};
  // Options left at zero are left out: the server's defaults.
  const auto add = [&](const char* flag, std::uint64_t value) {
    if (value > 0) argv.insert(argv.end(), {flag, std::to_string(value)});
  };
  add("--real", options.realCapacity.value_or(0));
  add("--delay-ms", static_cast<std::uint64_t>(options.delayMs));
  add("--write-mbps", static_cast<std::uint64_t>(options.writeMBps));
  add("--read-mbps", static_cast<std::uint64_t>(options.readMBps));
  add("--cache", options.cacheBytes);
  const auto addRanges = [&](const char* flag, const std::vector<Sectors>& ranges) {
    for (const auto& [first, last] : ranges)
      argv.insert(argv.end(), {flag, std::to_string(first) + "-" + std::to_string(last)});
  };
  addRanges("--bad", options.unreadable);
  addRanges("--bad-write", options.unwritable);
  addRanges("--slow", options.slow);
  if (!options.backingFile.empty()) argv.insert(argv.end(), {"--backing", options.backingFile});

  const std::string log = folder_.file("server.log");
  UniqueFd logFd(::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  SpawnOptions spawn;
  spawn.standardOutput = Stdio::from(logFd.get());
  spawn.standardError = Stdio::from(logFd.get());
  server_ = std::make_unique<ChildProcess>(ChildProcess::start(argv, spawn));

  // Wait for the mount: the served file shows the reported size once it is up.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  struct stat status {};
  while (::stat(file().c_str(), &status) != 0 ||
         static_cast<std::uint64_t>(status.st_size) != options.size) {
    if (std::chrono::steady_clock::now() > deadline) {
      throw std::runtime_error("vellum-fusedisk did not come up; see " + log);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

void FuseDisk::pull() {
  ::kill(server_->pid(), SIGKILL);
  server_->wait();
  server_.reset();
  // The mount is left dangling ("transport endpoint is not connected") until
  // it is lazily unmounted.
  runProcess({"fusermount3", "-u", "-z", folder_.file("mount")});
}

FuseDisk::~FuseDisk() {
  if (!server_) return;
  // The server exits once unmounted; should unmounting fail, the server is
  // killed and its auto_unmount watcher cleans up.
  if (runProcess({"fusermount3", "-u", folder_.file("mount")}).status.succeeded()) {
    server_->wait();
  }
  server_.reset();
}

}  // namespace vellum::testing
