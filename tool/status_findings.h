// The findings of tavrin-tool status: what prevents or disturbs the use of the module.
#pragma once

#include "tool/status.h"

namespace tool {

// Adds problems and warnings about the module, the tokens and the CA folder. They name what `status` names.
void judge(SystemStatus& status);

// Adds warnings about the folder of the log, with its path and owner. Writes to the folder.
void judgeLog(SystemStatus& status);

}  // namespace tool
