// The open GDAL handles of every dataset, bounded. A dataset takes a handle for a read and
// gives it back after; idle handles wait in one list, the most recently used first, and the
// oldest is closed when opening another would pass the limit. A chain of a thousand files
// so keeps a few hundred open, well inside the process's file limit, while the files read
// most recently keep their handles (and GDAL's cached blocks with them).
#pragma once

#include <cstddef>
#include <string>

namespace pw::raster::gdal {

// At most this many handles are open at once, unless reads in flight hold more: half the
// process's file limit less a reserve, between 16 and 1024.
std::size_t OpenHandleLimit();
// Handles open now, idle or in use.
std::size_t OpenHandleCount();
// Sets the limit (0: back to the one from the file limit); for tests and hosts.
void SetOpenHandleLimit(std::size_t limit);

// An idle handle that `owner` gave back under `slot`, else `path` opened read-only again
// (null when GDAL cannot open it, with GDAL's error set).
void* TakeHandle(const void* owner, int slot, const std::string& path);
// `handle` is idle again, kept for `owner` and `slot`.
void GiveHandle(const void* owner, int slot, void* handle);
// A handle `owner` opened itself joins the others, idle.
void AdoptHandle(const void* owner, int slot, void* handle);
// Closes every idle handle of `owner` (which no longer reads).
void ForgetHandles(const void* owner);

// What reading every open dataset once from top to bottom keeps in GDAL's block cache at a
// time: one row of blocks of each, in bytes. A block cache of this size decodes each block
// once however many inputs a chain has.
std::size_t OpenBlockRowBytes();
void AddBlockRowBytes(std::size_t bytes);
void RemoveBlockRowBytes(std::size_t bytes);

}  // namespace pw::raster::gdal
