// tavrin-tool import: a key and its certificates from a file, written to a token through the module.
#pragma once

namespace tool {

class Command;

void addImportCommand(const Command& program);

}  // namespace tool
