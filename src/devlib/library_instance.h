#pragma once

#include <atomic>

namespace tavrin {

// The instance of the device library. C_Initialize creates it and C_Finalize releases it; non-null means that the
// module is initialised. Any thread may read it.
extern std::atomic<void*>& libraryInstance;

}  // namespace tavrin
