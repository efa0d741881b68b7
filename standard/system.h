// The system functions of the standard module that are not in src/platform: loading the module from this library's
// folder, and memory that is not written to disk. Each platform has one implementation.
#pragma once

#include <cstddef>

namespace tavrin::standard {

// Loads the module from the folder of this library's own file, by its full path; the device library is looked for in
// the same folder. Null when it cannot be loaded.
void* openModuleFile();

// The address of an exported function, or null.
void* findModuleFunction(void* file, const char* name);

void closeModuleFile(void* file);

// Keeps whole pages of memory out of the swap space, as far as the system allows it.
void lockInMemory(void* memory, std::size_t size);

}  // namespace tavrin::standard
