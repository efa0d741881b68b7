#include "tool/log_calls.h"

#include <algorithm>
#include <cstdio>

#include "log/log_format.h"

namespace tool {
namespace {

using tavrin::LogPlace;

// DD/MM::HH:MM:SS:mmm; 0 for a line before the first message.
std::int64_t millisecondsIn(const std::string& time) {
  if (time.size() < LogPlace::timeEnd) return 0;
  const auto number = [&](std::size_t at) -> std::int64_t { return 10 * (time[at] - '0') + (time[at + 1] - '0'); };
  const std::int64_t seconds = (number(LogPlace::hour) * 60 + number(LogPlace::minute)) * 60 + number(LogPlace::second);
  return 1000 * seconds + 10 * number(LogPlace::millisecond) + (time[LogPlace::timeEnd - 1] - '0');
}

// A call begins with a line that holds nothing but the function's name.
bool isFunctionName(std::string_view message) {
  return message.starts_with("C_") && message.size() > 2 && std::ranges::all_of(message.substr(2), [](char letter) {
           return (letter >= 'a' && letter <= 'z') || (letter >= 'A' && letter <= 'Z');
         });
}

// At the level "errors" only refusals are logged. Some begin with the function's name and a colon.
std::string_view nameBeforeColon(std::string_view message) {
  const std::string_view name = message.substr(0, message.find(':'));
  return isFunctionName(name) && name.size() < message.size() ? name : std::string_view();
}

}  // namespace

bool LoggedCall::refused() const { return std::ranges::any_of(lines, &CallLine::refusal); }

std::string clockText(std::int64_t milliseconds) {
  char text[32];
  const std::int64_t seconds = milliseconds / 1000;
  std::snprintf(text, sizeof text, "%02d:%02d:%02d.%03d", static_cast<int>(seconds / 3600),
                static_cast<int>(seconds / 60 % 60), static_cast<int>(seconds % 60),
                static_cast<int>(milliseconds % 1000));
  return text;
}

void CallCollector::add(const LogEntry& entry, const Take& take) {
  const std::string_view message = messageIn(entry.text);
  const std::int64_t time = millisecondsIn(entry.time);
  const bool begins = entry.kind == LineKind::debug && isFunctionName(message);
  const bool refusal = entry.kind == LineKind::error;
  const auto found = open_.find(entry.program);
  const std::string_view owner = refusal ? nameBeforeColon(message) : std::string_view();
  const bool continues = found != open_.end() && !begins && (owner.empty() || owner == found->second.name) &&
                         (!found->second.name.empty() || !found->second.refused());
  if (!continues) {
    if (found != open_.end()) take(found->second);
    LoggedCall& call = open_[entry.program];
    call = {entry.program, std::string(begins ? message : owner), time, time, {}};
    if (begins) return;
  }
  LoggedCall& call = open_[entry.program];
  call.end = time;
  call.lines.push_back({std::string(message), refusal});
}

void CallCollector::flush(const Take& take) {
  std::vector<const LoggedCall*> rest;
  for (const auto& [program, call] : open_) rest.push_back(&call);
  std::ranges::sort(rest, {}, &LoggedCall::start);
  for (const LoggedCall* call : rest) take(*call);
  open_.clear();
}

}  // namespace tool
