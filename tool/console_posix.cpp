#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cstdlib>

#include "softtoken/failure.h"
#include "tool/console.h"

namespace tool {
namespace {

using softtoken::Failure;
using softtoken::SecretBytes;
using softtoken::Status;

constexpr std::uint8_t interrupt = 3;

// The terminal with its echo off, and with the interrupt key as a plain end of line: a signal would leave the echo off.
class SilentTerminal {
 public:
  SilentTerminal() : descriptor_(::open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY)) {
    if (descriptor_ < 0 || ::tcgetattr(descriptor_, &before_) != 0)
      throw Failure(Status::badArgument, "there is no terminal to ask for a password");
    termios silent = before_;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO | ISIG);
    silent.c_cc[VEOL] = interrupt;
    ::tcsetattr(descriptor_, TCSAFLUSH, &silent);
  }
  ~SilentTerminal() {
    if (descriptor_ < 0) return;
    ::tcsetattr(descriptor_, TCSAFLUSH, &before_);
    ::close(descriptor_);
  }
  SilentTerminal(const SilentTerminal&) = delete;
  SilentTerminal& operator=(const SilentTerminal&) = delete;

  void write(const std::string& text) const {
    if (::write(descriptor_, text.data(), text.size()) < 0) throw Failure(Status::badArgument, "the terminal is gone");
  }

  SecretBytes readLine() const {
    SecretBytes line;
    std::uint8_t byte = 0;
    while (::read(descriptor_, &byte, 1) == 1 && byte != '\n') {
      if (byte == interrupt) throw Failure(Status::badArgument, "interrupted");
      line.push_back(byte);
    }
    return line;
  }

 private:
  int descriptor_;
  termios before_{};
};

}  // namespace

void prepareConsole() {}

std::vector<std::string> commandLine(int argc, char** argv) { return {argv, argv + argc}; }

std::optional<SecretBytes> secretVariable(const char* name) {
  const char* value = std::getenv(name);
  if (!value) return std::nullopt;
  const softtoken::ByteView bytes = softtoken::viewOf(value);
  return SecretBytes(bytes.begin(), bytes.end());
}

SecretBytes askSecret(const std::string& question) {
  const SilentTerminal terminal;
  terminal.write(question);
  SecretBytes answer = terminal.readLine();
  terminal.write("\n");
  return answer;
}

bool inputIsTerminal() { return ::isatty(STDIN_FILENO) == 1; }

bool outputTakesColour() {
  const auto variable = [](const char* name) {
    const char* value = std::getenv(name);
    return std::string(value ? value : "");
  };
  return ::isatty(STDOUT_FILENO) == 1 && variable("NO_COLOR").empty() && variable("TERM") != "dumb";
}

}  // namespace tool
