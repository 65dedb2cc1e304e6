#include "carve/CarveExporter.h"

#include <algorithm>

#include "carve/CarveEngine.h"
#include "carve/OutputFiles.h"

namespace vellum {
namespace {

// Whether the file's head still digests as recorded. Throws the source's error.
bool headUnchanged(const CarvedFile& file, ByteSource& source) {
  const Bytes head = source.read(
      file.start, static_cast<std::int64_t>(std::min(file.length, CarvedFile::headDigestBytes)));
  return CarvedFile::digestHead(head) == *file.headDigest;
}

// A copy that failed half-way is ours (it was created exclusively); leaving
// it would save a file under a name that does not fit its bytes.
void removePartial(const std::filesystem::path& path) {
  std::error_code ignored;
  std::filesystem::remove(path, ignored);
}

// f<sector>.ext for the first try, f<sector>-<counter>.ext after it.
std::string exportName(const CarvedFile& file, std::uint64_t counter) {
  std::string name = carvedFileName(file.start, file.ext);
  if (counter > 0) {
    const std::size_t dot = name.size() - file.ext.size() - 1;
    name.insert(dot, std::to_string(counter)).insert(dot, 1, '-');
  }
  return name;
}

// Copies the file under the first free name: f<sector>.ext, f<sector>-1.ext, ...
std::filesystem::path copyOut(const CarvedFile& file, ByteSource& source,
                              const std::filesystem::path& folder) {
  const std::filesystem::path subFolder = folder / carvedFolderName(file.ext);
  std::filesystem::create_directories(subFolder);
  const carve_detail::PieceReader reader = [&](std::uint64_t offset, std::span<std::uint8_t> out) {
    return source.readInto(file.start + offset, out);
  };
  for (std::uint64_t counter = 0;; ++counter) {
    const std::filesystem::path path = subFolder / exportName(file, counter);
    if (std::filesystem::exists(path)) continue;
    try {
      if (carve_detail::copyToFile(path, file.length, true, reader) ==
          carve_detail::CopyOutcome::sourceEnded)
        throw std::runtime_error("source ended before the file did");
      return path;
    } catch (const std::filesystem::filesystem_error& error) {
      // Taken by someone else between the check and the create: try the next name.
      if (error.code() == std::errc::file_exists) continue;
      removePartial(path);
      throw;
    } catch (...) {
      removePartial(path);
      throw;
    }
  }
}

}  // namespace

CarveExporter::Result CarveExporter::exportFiles(
    const std::vector<CarvedFile>& files, ByteSource& source, const std::filesystem::path& folder,
    const std::function<void(std::size_t, std::size_t)>& progress,
    const std::function<bool()>& isCancelled) {
  prepareOutputDirectory(folder);
  Result result;
  result.folder = folder;
  for (std::size_t index = 0; index < files.size(); ++index) {
    if (isCancelled && isCancelled()) break;
    if (progress) progress(index, files.size());
    const CarvedFile& file = files[index];
    if (file.headDigest) {
      try {
        if (!headUnchanged(file, source)) {
          result.changed.push_back(file);
          continue;
        }
      } catch (const std::exception&) {
        result.failed.push_back(file);
        continue;
      }
    }
    try {
      CarvedFile saved = file;
      saved.outputPath = copyOut(file, source, folder).string();
      result.saved.push_back(std::move(saved));
    } catch (const std::exception&) {
      result.failed.push_back(file);
    }
  }
  // The files written stay in place even if the listing cannot be written.
  try {
    carve_detail::writeTextFile(folder / carveReportFileName, encodeFilesJson(result.saved));
  } catch (const std::exception&) {
  }
  return result;
}

}  // namespace vellum
