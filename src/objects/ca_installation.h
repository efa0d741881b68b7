// What an installation's CA certificate files are called, where they may lie, and by which name one finds another.
// Needs no device library, so that tavrin-tool goes by it too.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tavrin {

// Where a folder TavrinDSC/Certificates may be found when $TAVRIN_HOME names no place.
inline constexpr const char* installFolders[] = {"C:/Program Files (x86)/Quorvane Telemantix/Tavrin",
                                                 "C:/Program Files/Quorvane Telemantix/Tavrin"};

inline std::vector<std::string> caFileExtensions() { return {".cer", ".der", ".pem", ".crt"}; }

// The common name in a name text: what follows the first "CN=" up to a comma or the end of the line; the whole text
// when there is none.
std::string extractCommonName(std::string_view name);

}  // namespace tavrin
