#pragma once

#include <filesystem>
#include <string>

namespace vellum::testing {

// A fresh folder under the system's temporary directory, removed with all it
// holds when the object goes away.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const noexcept { return path_; }
  std::string file(const std::string& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

// Writes bytes to a new file (replacing it), and reads a whole file back.
void writeFile(const std::string& path, const std::string& bytes);
std::string readFile(const std::filesystem::path& path);

}  // namespace vellum::testing
