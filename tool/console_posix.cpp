#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "platform/platform.h"
#include "softtoken/failure.h"
#include "tool/console.h"

namespace tool {
namespace {

using softtoken::Failure;
using softtoken::SecretBytes;
using softtoken::Status;

constexpr std::uint8_t interrupt = 3;

volatile std::sig_atomic_t caughtSignal = 0;

void noteSignal(int signal) { caughtSignal = signal; }

// Blocks the signals that end the process, except during waitForInput. The destructor restores their actions and raises
// the signal that arrived.
class DelayedSignals {
 public:
  DelayedSignals() {
    sigset_t delayed;
    ::sigemptyset(&delayed);
    for (const int signal : signals) ::sigaddset(&delayed, signal);
    ::pthread_sigmask(SIG_BLOCK, &delayed, &maskBefore_);
    caughtSignal = 0;
    for (std::size_t i = 0; i < signals.size(); ++i) {
      struct sigaction action {};
      action.sa_handler = noteSignal;
      ::sigaction(signals[i], nullptr, &before_[i]);
      if (before_[i].sa_handler != SIG_IGN) ::sigaction(signals[i], &action, nullptr);
    }
  }
  ~DelayedSignals() {
    for (std::size_t i = 0; i < signals.size(); ++i) ::sigaction(signals[i], &before_[i], nullptr);
    if (caughtSignal != 0) ::raise(caughtSignal);
    ::pthread_sigmask(SIG_SETMASK, &maskBefore_, nullptr);
  }
  DelayedSignals(const DelayedSignals&) = delete;
  DelayedSignals& operator=(const DelayedSignals&) = delete;

  bool waitForInput(int descriptor) const {
    pollfd wanted{descriptor, POLLIN, 0};
    while (::ppoll(&wanted, 1, nullptr, &maskBefore_) < 0)
      if (caughtSignal != 0) return false;
    return true;
  }

 private:
  static constexpr std::array<int, 4> signals{SIGINT, SIGTERM, SIGHUP, SIGQUIT};
  std::array<struct sigaction, signals.size()> before_{};
  sigset_t maskBefore_{};
};

// The terminal without echo. The interrupt key (Ctrl+C) ends the line instead of raising a signal.
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
    while (signals_.waitForInput(descriptor_) && ::read(descriptor_, &byte, 1) == 1 && byte != '\n') {
      if (byte == interrupt) throw Failure(Status::badArgument, "interrupted");
      line.push_back(byte);
    }
    if (caughtSignal != 0) throw Failure(Status::badArgument, "interrupted");
    return line;
  }

 private:
  const DelayedSignals signals_;  // destroyed last, when the terminal is restored
  int descriptor_;
  termios before_{};
};

}  // namespace

ConsoleOutput::ConsoleOutput() = default;
ConsoleOutput::~ConsoleOutput() = default;

SilencedOutput::SilencedOutput() : kept_(::dup(STDOUT_FILENO)) {
  std::fflush(stdout);
  const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (kept_ >= 0 && nowhere >= 0) ::dup2(nowhere, STDOUT_FILENO);
  if (nowhere >= 0) ::close(nowhere);
}

SilencedOutput::~SilencedOutput() {
  std::fflush(stdout);
  if (kept_ < 0) return;
  ::dup2(kept_, STDOUT_FILENO);
  ::close(kept_);
}

std::vector<std::string> commandLine(int argc, char** argv) { return {argv, argv + argc}; }

// secure_getenv ignores the environment in a program that runs with other rights than its caller's.
std::optional<SecretBytes> secretVariable(const char* name) {
  const char* value = ::secure_getenv(name);
  if (!value) return std::nullopt;
  const softtoken::ByteView bytes = softtoken::viewOf(value);
  return SecretBytes(bytes.begin(), bytes.end());
}

std::string environmentText(const char* name) { return tavrin::platform::environmentVariable(name); }

std::filesystem::path systemPath(const std::string& text) { return text; }

SecretBytes askSecret(const std::string& question) {
  const SilentTerminal terminal;
  terminal.write(question);
  SecretBytes answer = terminal.readLine();
  terminal.write("\n");
  return answer;
}

bool inputIsTerminal() { return ::isatty(STDIN_FILENO) == 1; }

bool outputIsTerminal() { return ::isatty(STDOUT_FILENO) == 1; }

bool outputTakesColour() {
  return outputIsTerminal() && environmentText("NO_COLOR").empty() && environmentText("TERM") != "dumb";
}

}  // namespace tool
