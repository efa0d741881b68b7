#include "tool/passwords.h"

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

// Unbuffered, as a stream's own buffer would not be wiped. Pipes are good too.
SecretBytes firstLine(const PasswordSource& source) {
  std::filebuf file;
  file.pubsetbuf(nullptr, 0);
  if (!file.open(softtoken::pathOf(source.file), std::ios::in | std::ios::binary))
    throw Failure(Status::notFound, "cannot read the " + std::string(source.name) + " from " + source.file);
  SecretBytes line;
  for (int byte = file.sbumpc(); byte != std::filebuf::traits_type::eof() && byte != '\n'; byte = file.sbumpc())
    line.push_back(static_cast<std::uint8_t>(byte));
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
  std::optional<SecretBytes> password = withoutAsking(source);
  const bool asked = !password;
  if (asked) password = askSecret("new " + std::string(source.name) + " (4 to 63 bytes): ");
  try {
    softtoken::requireGoodPassword(textIn(*password));
  } catch (const Failure& failure) {
    throw Failure(failure.status(), "the " + std::string(source.name) + " does not fit: " + failure.what());
  }
  if (asked && *password != askSecret("the same again: ")) throw Failure(Status::badArgument, "the two entries differ");
  return std::move(*password);
}

}  // namespace tool
