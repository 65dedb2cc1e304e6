// Runs one Quick Check on a block device with a chosen cache flush, the way
// the command line does (undo journal in a temporary folder), and prints its
// verdict, verified size and duration as JSON. For timing the cache flush
// against no flush on the same device; not part of the product.
//
//   vellum-quick-run DEVICE FLUSH_BYTES

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>

#include "checks/QuickCheck.h"
#include "devices/FileDescriptorDevice.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: vellum-quick-run DEVICE FLUSH_BYTES\n");
    return 2;
  }
  using namespace vellum;
  UniqueFd fd(::open(argv[1], O_RDWR | O_EXCL | O_CLOEXEC));
  std::uint64_t size = 0;
  if (!fd || ::ioctl(fd.get(), BLKGETSIZE64, &size) != 0) {
    std::perror(argv[1]);
    return 1;
  }
  FileDescriptorDevice device(std::move(fd), argv[1], size, 512);
  const std::filesystem::path journals =
      std::filesystem::temp_directory_path() / "vellum-quick-run";
  QuickCheck check;
  check.cacheFlushBytes = std::atoll(argv[2]);
  const QuickCheck::Result result = check.run(
      device, CancellationFlag{}, {}, QuickCheck::JournalPlace{journals, {argv[1], size, "", ""}});
  std::printf("%s\n", nlohmann::json(result).dump().c_str());
  return 0;
}
