// tavrin-tool report: writes status and log to one HTML page, to read or to send to support.
#pragma once

namespace tool {

class Command;

void addReportCommand(const Command& program);

}  // namespace tool
