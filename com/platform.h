// The one header that decides the platform: the Windows SDK on Windows, Pixwerk's
// stand-ins elsewhere, plus the C++ helpers every layer above uses.
#pragma once

#include "com/activation.h"
#include "com/bstr.h"
#include "com/catreg.h"
#include "com/com_object.h"
#include "com/com_ptr.h"
#include "com/errorinfo.h"
#include "com/guard.h"
#include "com/guid.h"
#include "com/module.h"
#include "com/registry.h"
#include "com/stream.h"
#include "com/sync.h"
#include "com/text.h"
#include "com/types.h"
#include "com/unknown.h"
#include "com/variant.h"
