// tavrin-tool import: a key and its certificates from a file, written to a token through the module.
#pragma once

#include "tool/action.h"

namespace tool {

void addImportCommand(CLI::App& app, Action& action);

}  // namespace tool
