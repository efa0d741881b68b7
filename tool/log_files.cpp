#include "tool/log_files.h"

#include <algorithm>
#include <fstream>
#include <memory>

#include "log/log_format.h"
#include "log/log_location.h"
#include "platform/platform.h"
#include "softtoken/failure.h"
#include "softtoken/platform.h"
#include "tool/console.h"
#include "tool/text.h"

namespace tool {
namespace {

namespace fs = std::filesystem;

using tavrin::LogPlace;

bool startsMessage(std::string_view line) {
  return matchesDigits(line.substr(0, LogPlace::tag), tavrin::logLineHead.substr(0, LogPlace::tag));
}

LineKind kindOf(std::string_view line) {
  const std::string_view tag = line.substr(LogPlace::tag);
  if (tag.starts_with(tavrin::errorTag) || tag.starts_with(tavrin::exceptionTag)) return LineKind::error;
  return tag.starts_with(tavrin::debugTag) ? LineKind::debug : LineKind::other;
}

// The entries of one file from a position on.
class EntryStream {
 public:
  EntryStream(const LogFile& file, std::streamoff& position)
      : stream_(file.path, std::ios::binary | std::ios::ate), position_(position), entry_{file.program, {}, {}, {}} {
    if (!stream_) return;
    if (position_ > stream_.tellg()) position_ = 0;
    stream_.seekg(position_);
    advance();
  }

  bool atEnd() const { return atEnd_; }
  const LogEntry& entry() const { return entry_; }

  void advance() {
    entry_.text.clear();
    atEnd_ = !readLine();
    if (atEnd_) return;
    if (startsMessage(entry_.text)) {
      entry_.time = entry_.text.substr(0, LogPlace::timeEnd);
      entry_.kind = kindOf(entry_.text);
    }
  }

 private:
  // Reads a line, or a part of a line that is longer than any message. Returns false when the line has no end yet.
  bool readLine() {
    while (entry_.text.size() < longestLine) {
      if (at_ == buffer_.size() && !refill()) return false;
      const std::size_t end = buffer_.find('\n', at_);
      const std::size_t part = std::min(std::min(end, buffer_.size()) - at_, longestLine - entry_.text.size());
      entry_.text.append(buffer_, at_, part);
      at_ += part;
      if (at_ != end) continue;
      ++at_;
      position_ += static_cast<std::streamoff>(entry_.text.size()) + 1;
      if (entry_.text.ends_with('\r')) entry_.text.pop_back();
      return true;
    }
    position_ += static_cast<std::streamoff>(entry_.text.size());
    return true;
  }

  bool refill() {
    buffer_.resize(longestLine);
    stream_.read(buffer_.data(), static_cast<std::streamsize>(buffer_.size()));
    buffer_.resize(static_cast<std::size_t>(stream_.gcount()));
    at_ = 0;
    return !buffer_.empty();
  }

  static constexpr std::size_t longestLine = 65536;

  std::ifstream stream_;
  std::streamoff& position_;
  std::string buffer_;
  std::size_t at_ = 0;
  LogEntry entry_;
  bool atEnd_ = true;
};

}  // namespace

fs::path logFolder() { return systemPath(tavrin::logFolder()).lexically_normal(); }

std::string today() { return fs::path(tavrin::logFileName(tavrin::platform::localTime())).stem().string(); }

std::vector<LogFile> logFilesOf(const std::string& day) {
  std::vector<LogFile> files;
  std::error_code error;
  for (fs::directory_iterator entry(logFolder(), error), end; !error && entry != end; entry.increment(error)) {
    const fs::path file = entry->path() / (day + tavrin::logFileExtension);
    std::error_code missing;
    const std::uintmax_t size = fs::file_size(file, missing);
    const std::string program = softtoken::nameOf(*entry);
    if (!missing && !program.empty()) files.push_back({program, file, size});
  }
  std::ranges::sort(files, {}, &LogFile::program);
  return files;
}

LogFile logFileAt(const fs::path& path) {
  if (!fs::is_regular_file(path) || !std::ifstream(path, std::ios::binary))
    throw softtoken::Failure(softtoken::Status::notFound, "cannot read the log file " + softtoken::textOf(path));
  return {softtoken::textOf(fs::absolute(path).parent_path().filename()), path, fs::file_size(path)};
}

std::string_view messageIn(std::string_view line) {
  if (!startsMessage(line)) return line;
  const std::size_t end = line.find(tavrin::logMessageMark, LogPlace::tag);
  return end == std::string_view::npos ? line : line.substr(end + tavrin::logMessageMark.size());
}

void LogReader::read(const std::vector<LogFile>& files, const std::function<void(const LogEntry&)>& take) {
  std::vector<std::unique_ptr<EntryStream>> streams;
  streams.reserve(files.size());
  for (const LogFile& file : files) streams.push_back(std::make_unique<EntryStream>(file, positions_[file.path]));
  for (;;) {
    std::erase_if(streams, [](const auto& stream) { return stream->atEnd(); });
    if (streams.empty()) return;
    EntryStream& earliest = **std::ranges::min_element(
        streams, {}, [](const auto& stream) -> const std::string& { return stream->entry().time; });
    take(earliest.entry());
    earliest.advance();
  }
}

}  // namespace tool
