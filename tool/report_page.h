// The report's page: one HTML file that refers to no other file and can be read without scripts.
#pragma once

#include <string>
#include <vector>

#include "tool/log_calls.h"
#include "tool/status.h"

namespace tool {

class ReportPage {
 public:
  // `hidesNames` leaves out labels, names and digests in log lines, for `--private`.
  ReportPage(const SystemStatus& status, bool hidesNames);

  // Appends a call to the timeline. Calls must be added in the order of their times.
  void add(const LoggedCall& call);

  std::size_t refusals() const { return refusals_; }

  // The whole page. To be called once.
  std::string finish();

 private:
  struct Reason {
    std::size_t number;  // in the order of the first refusal
    std::size_t count;
    std::string first;  // its time
    std::string last;
  };

  std::size_t programNumber(const std::string& name);
  void addGap(std::int64_t milliseconds);
  void addRefusal(const LoggedCall& call, const std::string& message);
  std::string shown(const std::string& message) const;
  std::string explanations() const;
  std::string filters() const;

  const SystemStatus& status_;
  const bool hidesNames_;
  std::string timeline_;
  std::vector<std::string> programs_;
  std::map<std::string, Reason, std::less<>> reasons_;  // by the explanation's pattern, or the message
  std::size_t refusals_ = 0;
  std::size_t calls_ = 0;
  std::int64_t lastTime_ = -1;
};

}  // namespace tool
