#include "platform/Unmount.h"

#include <sys/mount.h>

#include <algorithm>

#include "platform/DiskFacts.h"
#include "platform/Process.h"

namespace vellum {
namespace {

std::size_t depth(const std::string& mountPoint) {
  return static_cast<std::size_t>(std::count(mountPoint.begin(), mountPoint.end(), '/'));
}

}  // namespace

std::vector<std::string> unmountVolumes(const std::string& diskName, UnmountMethod method,
                                        const SystemPaths& paths) {
  const DiskFactsReader reader(paths);
  if (method == UnmountMethod::direct) {
    // Deepest first, so a file system mounted inside another goes before it;
    // later entries first among equals, since they are stacked on top.
    std::vector<std::string> points = reader.mountPoints(diskName);
    std::reverse(points.begin(), points.end());
    std::stable_sort(points.begin(), points.end(), [](const std::string& a, const std::string& b) {
      return depth(a) > depth(b);
    });
    for (const std::string& point : points) {
      // Never MNT_DETACH: a lazily detached file system may still be writing
      // to the card while we overwrite it. NOFOLLOW: the path is taken as the
      // mount table states it, never through a link put there meanwhile.
      ::umount2(point.c_str(), UMOUNT_NOFOLLOW);
    }
  } else {
    for (const VolumeFacts& volume : reader.volumes(diskName)) {
      if (volume.mountPoints.empty()) continue;
      // Its exit status is not trusted (it fails for a volume another
      // process unmounted meanwhile): the mount table decides.
      runProcess({"udisksctl", "unmount", "-b", "/dev/" + volume.name});
    }
  }
  return reader.mountPoints(diskName);
}

std::vector<MountedVolume> mountedVolumes(const std::string& diskName, const SystemPaths& paths) {
  std::vector<MountedVolume> mounted;
  for (const VolumeFacts& volume : DiskFactsReader(paths).volumes(diskName)) {
    if (!volume.mountPoints.empty()) {
      mounted.push_back({"/dev/" + volume.name, volume.mountPoints.front()});
    }
  }
  return mounted;
}

std::vector<std::string> remountVolumes(const std::vector<MountedVolume>& volumes,
                                        UnmountMethod method) {
  std::vector<std::string> failures;
  for (const MountedVolume& volume : volumes) {
    std::vector<std::string> argv =
        method == UnmountMethod::direct
            ? std::vector<std::string>{"mount", volume.device, volume.mountPoint}
            : std::vector<std::string>{"udisksctl", "mount", "-b", volume.device};
    try {
      const ProcessResult result = runProcess(argv, {}, {{"LC_ALL", "C"}});
      if (result.status.succeeded()) continue;
      std::string why = result.standardError;
      while (!why.empty() && (why.back() == '\n' || why.back() == ' '))
        why.pop_back();
      failures.push_back("Couldn't mount " + volume.device + " again at " + volume.mountPoint +
                         (why.empty() ? "" : " (" + why + ")") +
                         ". Mount it from your file manager or reinsert the card.");
    } catch (const std::exception& error) {
      failures.push_back("Couldn't mount " + volume.device + " again (" + error.what() +
                         "). Mount it from your file manager or reinsert the card.");
    }
  }
  return failures;
}

}  // namespace vellum
