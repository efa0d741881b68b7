// What a parsed command line asks for.
#pragma once

#include <functional>

namespace CLI {
class App;
}

namespace tool {

// Carries out a command and returns the exit code.
using Action = std::function<int()>;

}  // namespace tool
