// Document versions (quarnVeltrixVersion) and streams that carry the one being saved for.
//
// The versions are 0 to 11, 300, 320, 350 and 370, in that order; a version's ordinal is
// its position. A class picks the record version it writes from a table indexed by the
// ordinal; ordinals past the end of a table use its last entry.
#pragma once

#include <cstddef>

#include "raster/interfaces.h"

namespace pw::persist {

inline constexpr LONG kDocumentVersions[] = {0, 1, 2,  3,  4,   5,   6,   7,
                                             8, 9, 10, 11, 300, 320, 350, 370};
inline constexpr int kDocumentVersionCount = 16;
inline constexpr LONG kCurrentDocumentVersion = 370;

// The ordinal of a version, or -1 for a value that is not a document version.
constexpr int DocumentOrdinal(LONG version) {
  for (int i = 0; i < kDocumentVersionCount; ++i)
    if (kDocumentVersions[i] == version) return i;
  return -1;
}

// The entry of a version table for an ordinal (the last entry for newer ordinals).
template <std::size_t N>
constexpr int VersionFromTable(const int (&table)[N], int ordinal) {
  if (ordinal < 0) return 0;
  return table[static_cast<std::size_t>(ordinal) < N ? ordinal : N - 1];
}

// Wraps `inner` so that savers see `version` through IDocumentVersion.
HRESULT CreateVersionedStream(IStream* inner, LONG version, IStream** stream);

// The ordinal of the document version a stream carries; the current one when it carries
// none.
int DocumentOrdinalOf(IStream* stream);

}  // namespace pw::persist
