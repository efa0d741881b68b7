// tavrin-tool report: status and log as a page to look at and to send to support.
#pragma once

namespace tool {

class Command;

void addReportCommand(const Command& program);

}  // namespace tool
