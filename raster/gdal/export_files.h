// The files of an export: the output path checked, the temporaries it writes beside the
// output (hidden, named after it and after the export's token), the lock that marks them
// as in use, the atomic move of the finished file onto the output, and what a write
// failure says about the disk.
//
// A run that dies (SIGKILL, power loss) leaves its temporaries behind; the next export to
// the same folder removes every set whose lock no process holds any more.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "com/types.h"

namespace pw::raster::gdal {

class ExportFiles {
 public:
  // Checks `output` (a new file or a regular file, possibly through a link; never a
  // directory or a device), removes stale temporaries of earlier runs in its folder and
  // takes the lock of this export. Failures say why in the error object.
  HRESULT Open(const std::string& output);
  ~ExportFiles();

  // A temporary in the output's folder: ".<name>.pixwerk-<token>.<suffix>".
  std::filesystem::path Temporary(const std::string& suffix) const;
  const std::filesystem::path& Output() const { return output_; }
  const std::filesystem::path& Folder() const { return folder_; }
  // Moves `finished` (one of the temporaries) onto the output.
  HRESULT Publish(const std::filesystem::path& finished);

 private:
  std::filesystem::path output_, folder_;
  std::string token_;
  int lock_ = -1;
};

// Bytes free for an unprivileged writer on the file system holding `folder`, or -1.
std::int64_t FreeBytes(const std::filesystem::path& folder);

// What a write failure in `folder` owes to the disk: " (no space left on the device
// holding FOLDER: N bytes free)" when fewer than `needed` bytes remain, else empty.
std::string DiskFullNote(const std::filesystem::path& folder, std::int64_t needed);

// Removes the temporaries of exports to `folder` that ended without cleaning up.
void RemoveStaleTemporaries(const std::filesystem::path& folder);

}  // namespace pw::raster::gdal
