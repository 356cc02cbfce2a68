// The process-wide values. All are constant-initialised: they hold their values before the
// host's first call, and loading the library runs no code for them.
#include "QXGlobals.h"

#include "QXInternal.h"

namespace TWIN_QXGlobals {
void* ghInstance = nullptr;
void* ghMainFrame = nullptr;
bool gMMX = false;
bool gEMMX = false;
}  // namespace TWIN_QXGlobals

bool gQXVectorExtra = false;

static_assert(sizeof(int32_t) == 4 && sizeof(short) == 2, "32-bit and 16-bit widths");
