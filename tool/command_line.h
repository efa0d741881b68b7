// The words of a command: options with and without a value, and the plain words between them.
#pragma once

#include <map>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace tool {

// A command line that means nothing; the text says why.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct OptionRow {
  const char* name;  // without its dashes
  bool takesValue;
};

struct Arguments {
  std::map<std::string, std::string, std::less<>> options;  // those that were given; the last of two counts
  std::vector<std::string> words;

  bool has(std::string_view option) const { return options.find(option) != options.end(); }
  // Empty when the option was not given.
  std::string value(std::string_view option) const;
};

// Throws UsageError, naming the command, for an option that is not in the list or lacks its value. Not for two threads.
Arguments parseArguments(const std::string& command, std::vector<std::string> words, std::span<const OptionRow> rows);

}  // namespace tool
