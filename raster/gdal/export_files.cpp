// The export's output path, temporaries and lock.
#include "raster/gdal/export_files.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <random>
#include <set>
#include <vector>

#include "com/errorinfo.h"
#include "raster/gdal/gdal_dataset.h"

namespace pw::raster::gdal {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kMarker = ".pixwerk-";
constexpr std::string_view kLockSuffix = ".lock";

std::string NewToken() {
  std::random_device device;
  char text[40];
  std::snprintf(text, sizeof(text), "%ld-%08x", static_cast<long>(::getpid()),
                static_cast<unsigned>(device()));
  return text;
}

// The token of a temporary's name ("." NAME ".pixwerk-" TOKEN "." SUFFIX), or empty.
std::string TokenOf(const std::string& name) {
  if (name.empty() || name[0] != '.') return {};
  const auto at = name.rfind(kMarker);
  if (at == std::string::npos) return {};
  const auto start = at + kMarker.size();
  const auto end = name.find('.', start);
  if (end == std::string::npos || end == start) return {};
  const std::string token = name.substr(start, end - start);
  for (char c : token)
    if (!std::isxdigit(static_cast<unsigned char>(c)) && c != '-') return {};
  return token;
}

// A path in quotes, built by appends: GCC 12 misreports chained string + at -O3.
std::string Quoted(const fs::path& path) {
  std::string text = "'";
  text += path.string();
  text += "'";
  return text;
}

bool Dead(long pid) {
  return pid > 0 && ::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH;
}

// Files of runs whose process is gone: locks not yet in place (".pixwerk-new-" PID "-...")
// and temporaries of earlier versions ("." NAME ".partial-" PID ".tif" or ".cog.tif").
bool StaleByProcess(const std::string& name) {
  constexpr std::string_view kFresh = ".pixwerk-new-";
  if (name.compare(0, kFresh.size(), kFresh) == 0)
    return Dead(std::strtol(name.c_str() + kFresh.size(), nullptr, 10));
  const auto at = name.rfind(".partial-");
  if (name.empty() || name[0] != '.' || at == std::string::npos) return false;
  return Dead(std::strtol(name.c_str() + at + 9, nullptr, 10));
}

}  // namespace

std::int64_t FreeBytes(const fs::path& folder) {
  struct statvfs s {};
  if (::statvfs(folder.c_str(), &s) != 0) return -1;
  return static_cast<std::int64_t>(s.f_bavail) * static_cast<std::int64_t>(s.f_frsize);
}

std::string DiskFullNote(const fs::path& folder, std::int64_t needed) {
  const std::int64_t free = FreeBytes(folder);
  const bool low = free >= 0 && free < std::max<std::int64_t>(needed, 1 << 20);
  if (!low && !FullDiskSeen()) return {};
  std::string note = " (no space left on the device holding '";
  note += folder.string();
  note += "'";
  if (low) note += ": " + std::to_string(free) + " bytes free";
  return note + ")";
}

void RemoveStaleTemporaries(const fs::path& folder) {
  std::error_code ec;
  std::vector<std::string> names;
  for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec))
    names.push_back(it->path().filename().string());
  std::set<std::string> stale, locked;
  for (const std::string& name : names) {
    const std::string token = TokenOf(name);
    if (token.empty() || name.size() < kLockSuffix.size() ||
        name.compare(name.size() - kLockSuffix.size(), kLockSuffix.size(), kLockSuffix) != 0)
      continue;
    locked.insert(token);
    // A lock no process holds belongs to a run that ended without cleaning up.
    const int fd = ::open((folder / name).c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) continue;
    if (::flock(fd, LOCK_EX | LOCK_NB) == 0) stale.insert(token);
    ::close(fd);
  }
  for (const std::string& name : names) {
    const std::string token = TokenOf(name);
    // Temporaries are made after their lock and removed before it: without a lock they are
    // left over from a run that died while cleaning up.
    const bool orphan = !token.empty() && locked.count(token) == 0;
    const bool lockFile =
        name.size() >= kLockSuffix.size() &&
        name.compare(name.size() - kLockSuffix.size(), kLockSuffix.size(), kLockSuffix) == 0;
    if ((!token.empty() && stale.count(token) > 0 && !lockFile) || orphan || StaleByProcess(name))
      fs::remove(folder / name, ec);
  }
  for (const std::string& token : stale)
    for (const std::string& name : names)
      if (TokenOf(name) == token) fs::remove(folder / name, ec);
}

HRESULT ExportFiles::Open(const std::string& output) {
  fs::path target(output);
  std::error_code ec;
  // Through a link to the file it names (which may not exist yet), so the link stays a link.
  for (int hops = 0; fs::is_symlink(fs::symlink_status(target, ec)); ++hops) {
    const fs::path next = fs::read_symlink(target, ec);
    if (ec || hops == 40)
      return ReportError(STG_E_ACCESSDENIED, "cannot follow the link '" + output + "'");
    target = next.is_absolute() ? next : target.parent_path() / next;
  }
  const fs::file_status status = fs::status(target, ec);
  if (fs::exists(status) && !fs::is_regular_file(status))
    return ReportError(STG_E_ACCESSDENIED,
                       "'" + output + "' is " +
                           (fs::is_directory(status) ? "a directory" : "not a regular file") +
                           ": give the path of a file to write");
  output_ = target;
  folder_ = target.has_parent_path() ? target.parent_path() : fs::path(".");
  if (!fs::is_directory(folder_, ec))
    return ReportError(STG_E_ACCESSDENIED,
                       "output folder '" + folder_.string() + "' does not exist");
  RemoveStaleTemporaries(folder_);
  token_ = NewToken();
  // Locked under a name no cleanup looks at, then moved to its own: another export's
  // cleanup never sees it unlocked.
  const fs::path lock = Temporary(std::string(kLockSuffix.substr(1)));
  const fs::path fresh = folder_ / (".pixwerk-new-" + token_);
  lock_ = ::open(fresh.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (lock_ < 0 || ::flock(lock_, LOCK_EX | LOCK_NB) != 0 ||
      ::rename(fresh.c_str(), lock.c_str()) != 0) {
    const std::string why = std::strerror(errno);
    if (lock_ >= 0) ::close(lock_), lock_ = -1;
    ::unlink(fresh.c_str());
    token_.clear();
    return ReportError(STG_E_ACCESSDENIED, "cannot write in '" + folder_.string() + "': " + why +
                                               DiskFullNote(folder_, 1 << 20));
  }
  return S_OK;
}

ExportFiles::~ExportFiles() {
  if (token_.empty()) return;
  std::error_code ec;
  std::vector<fs::path> ours;
  for (fs::directory_iterator it(folder_, ec), end; !ec && it != end; it.increment(ec))
    if (TokenOf(it->path().filename().string()) == token_) ours.push_back(it->path());
  const fs::path lock = Temporary(std::string(kLockSuffix.substr(1)));
  for (const fs::path& p : ours)
    if (p != lock) fs::remove(p, ec);
  fs::remove(lock, ec);
  if (lock_ >= 0) ::close(lock_);
}

fs::path ExportFiles::Temporary(const std::string& suffix) const {
  std::string name = ".";  // built by appends: GCC 12 misreports chained string + at -O3
  name += output_.filename().string();
  name += kMarker;
  name += token_;
  name += ".";
  name += suffix;
  return folder_ / name;
}

HRESULT ExportFiles::Publish(const fs::path& finished) {
  std::error_code ec;
  // The output may have become something else while the export ran.
  const fs::file_status status = fs::symlink_status(output_, ec);
  if (fs::exists(status) && !fs::is_regular_file(status))
    return ReportError(STG_E_ACCESSDENIED,
                       Quoted(output_) + " is no longer a regular file: not replaced");
  fs::rename(finished, output_, ec);
  if (ec)
    return ReportError(STG_E_WRITEFAULT,
                       "cannot move the result to " + Quoted(output_) + ": " + ec.message());
  return S_OK;
}

}  // namespace pw::raster::gdal
