// Module-wide counters: live component objects and server locks; the module's own file.
#pragma once

#include <string>

#include "com/types.h"

namespace pw {

// Every component object of the library counts itself here while it lives.
void ModuleObjectCreated() noexcept;
void ModuleObjectDestroyed() noexcept;
LONG ModuleLiveObjectCount() noexcept;

// IClassFactory::LockServer changes this count.
void ModuleLock() noexcept;
void ModuleUnlock() noexcept;
LONG ModuleLockCount() noexcept;

// Full path of the file this library was loaded from (the shared library, or the
// executable when the library is linked statically).
std::u16string ModuleFilePath();

}  // namespace pw
