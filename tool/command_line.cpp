#include "tool/command_line.h"

#include <getopt.h>

#include <algorithm>

namespace tool {

std::string Arguments::value(std::string_view option) const {
  const auto found = options.find(option);
  return found == options.end() ? std::string() : found->second;
}

Arguments parseArguments(const std::string& command, std::vector<std::string> words, std::span<const OptionRow> rows) {
  // getopt_long passes over the first word, as that is a program's name.
  words.insert(words.begin(), command);
  std::vector<char*> pointers(words.size() + 1, nullptr);
  std::ranges::transform(words, pointers.begin(), [](std::string& word) { return word.data(); });
  std::vector<option> accepted;
  for (const OptionRow& row : rows)
    accepted.push_back({row.name, row.takesValue ? required_argument : no_argument, nullptr, 0});
  accepted.push_back({nullptr, 0, nullptr, 0});

  Arguments result;
  opterr = 0;
  const auto count = static_cast<int>(words.size());
  int index = 0;
  for (int found = 0; (found = getopt_long(count, pointers.data(), ":", accepted.data(), &index)) != -1;) {
    const std::string word = pointers[static_cast<std::size_t>(optind - 1)];
    if (found == ':') throw UsageError(std::string(word).append(" needs a value"));
    if (found == '?') throw UsageError(std::string(command).append(" has no option ").append(word));
    result.options[rows[static_cast<std::size_t>(index)].name] = optarg ? optarg : "";
  }
  result.words.assign(pointers.begin() + optind, pointers.begin() + count);
  return result;
}

}  // namespace tool
