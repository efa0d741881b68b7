// The lines of a log, grouped by the calls that wrote them.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "tool/log_files.h"

namespace tool {

struct CallLine {
  std::string message;
  bool refusal;
};

// The lines of one call. The log has no process or thread numbers, so lines that other threads wrote in between are
// counted to the call that began last.
struct LoggedCall {
  std::string program;
  std::string name;             // of the Cryptoki function; empty for lines that belong to no call
  std::int64_t start = 0;       // milliseconds since midnight
  std::int64_t end = 0;         // of its last line
  std::vector<CallLine> lines;  // without the line of the name

  bool refused() const;
};

// HH:MM:SS.mmm
std::string clockText(std::int64_t milliseconds);

// Groups entries that are given in the order of their times.
class CallCollector {
 public:
  using Take = std::function<void(const LoggedCall&)>;

  // Passes a call to `take` when the next one of the same program begins; flush() passes the remaining calls.
  void add(const LogEntry& entry, const Take& take);
  void flush(const Take& take);

 private:
  std::map<std::string, LoggedCall> open_;  // by program
};

}  // namespace tool
