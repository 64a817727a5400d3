// Writing and removing the registry entries of class table entries.
#pragma once

#include <span>

#include "server/class_table.h"

namespace pw::server {

// Walks the entries in order inside one registry transaction and stops at the first
// failure; what was written before it stays. A failure sets the error object's message.
HRESULT RegisterEntries(std::span<const ClassEntry> entries);
HRESULT UnregisterEntries(std::span<const ClassEntry> entries);

}  // namespace pw::server
