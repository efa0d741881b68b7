#include "tool/passwords.h"

#include <algorithm>
#include <fstream>
#include <optional>

#include "softtoken/failure.h"
#include "softtoken/token.h"
#include "tool/console.h"

namespace tool {
namespace {

using softtoken::Failure;
using softtoken::SecretBytes;
using softtoken::Status;

constexpr std::size_t longestContent = 4096;  // bytes that are read of a password file

bool startsWith(const SecretBytes& content, std::initializer_list<std::uint8_t> mark) {
  return content.size() >= mark.size() && std::equal(mark.begin(), mark.end(), content.begin());
}

bool isUtf16(const SecretBytes& content) {
  return startsWith(content, {0xFF, 0xFE}) || startsWith(content, {0xFE, 0xFF});
}

// Reads the file up to its first line end, or up to the limit. It has no buffer, because a stream does not wipe its
// buffer. The file may be a pipe.
SecretBytes contentOf(const PasswordSource& source) {
  std::filebuf file;
  file.pubsetbuf(nullptr, 0);
  if (!file.open(softtoken::pathOf(source.file), std::ios::in | std::ios::binary))
    throw Failure(Status::notFound, "cannot read the " + std::string(source.name) + " from " + source.file);
  SecretBytes content;
  content.reserve(longestContent);
  while (content.size() < longestContent) {
    const int byte = file.sbumpc();
    if (byte == std::filebuf::traits_type::eof()) break;
    content.push_back(static_cast<std::uint8_t>(byte));
    if (byte == '\n' && !isUtf16(content)) break;
  }
  return content;
}

void appendUtf8(SecretBytes& text, std::uint32_t character) {
  const auto tail = [&](unsigned shift) {
    text.push_back(static_cast<std::uint8_t>(0x80 | ((character >> shift) & 0x3F)));
  };
  const auto lead = [&](unsigned mark, unsigned shift) {
    text.push_back(static_cast<std::uint8_t>(mark | (character >> shift)));
  };
  if (character < 0x80) {
    lead(0, 0);
  } else if (character < 0x800) {
    lead(0xC0, 6), tail(0);
  } else if (character < 0x10000) {
    lead(0xE0, 12), tail(6), tail(0);
  } else {
    lead(0xF0, 18), tail(12), tail(6), tail(0);
  }
}

// Windows PowerShell's ">" writes UTF-16 with a byte order mark.
SecretBytes utf8Of(const SecretBytes& utf16) {
  const std::size_t high = utf16[0] == 0xFE ? 0 : 1;
  const auto unit = [&](std::size_t at) { return std::uint32_t{utf16[at + high]} << 8 | utf16[at + 1 - high]; };
  SecretBytes text;
  text.reserve(2 * utf16.size());
  for (std::size_t at = 2; at + 1 < utf16.size(); at += 2) {
    std::uint32_t character = unit(at);
    const bool paired = (character & 0xFC00) == 0xD800 && at + 3 < utf16.size() && (unit(at + 2) & 0xFC00) == 0xDC00;
    if (paired) {
      at += 2;
      character = 0x10000 + ((character & 0x3FF) << 10) + (unit(at) & 0x3FF);
    }
    appendUtf8(text, character);
  }
  return text;
}

SecretBytes firstLine(const PasswordSource& source) {
  const SecretBytes content = contentOf(source);
  SecretBytes line = isUtf16(content) ? utf8Of(content) : content;
  if (startsWith(line, {0xEF, 0xBB, 0xBF})) line.erase(line.begin(), line.begin() + 3);
  const auto end = std::ranges::find(line, '\n');
  if (end == line.end() && content.size() == longestContent)
    throw Failure(Status::badArgument, "the " + std::string(source.name) + " in " + source.file + " is too long");
  line.erase(end, line.end());
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return line;
}

std::optional<SecretBytes> withoutAsking(const PasswordSource& source) {
  if (!source.file.empty()) return firstLine(source);
  return secretVariable(source.variable);
}

}  // namespace

SecretBytes readPassword(const PasswordSource& source) {
  std::optional<SecretBytes> password = withoutAsking(source);
  if (!password) password = askSecret(std::string(source.name) + ": ");
  if (password->empty()) throw Failure(Status::badArgument, "the " + std::string(source.name) + " is empty");
  return std::move(*password);
}

SecretBytes readNewPassword(const PasswordSource& source) {
  const std::string name = source.name;
  std::optional<SecretBytes> password = withoutAsking(source);
  const bool asked = !password;
  std::string question = "new " + name + " (4 to 63 bytes): ";
  for (;;) {
    if (asked) password = askSecret(question);
    try {
      softtoken::requireValidPassword(textIn(*password));
    } catch (const Failure& failure) {
      throw Failure(failure.status(), "the " + name + " cannot be used: " + failure.what());
    }
    if (!asked || *password == askSecret("repeat the " + name + ": ")) return std::move(*password);
    question = "The two entries differ. new " + name + " (4 to 63 bytes): ";
  }
}

}  // namespace tool
