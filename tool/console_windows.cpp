#include <windows.h>
// After windows.h, on which it depends.
#include <fcntl.h>
#include <io.h>
#include <shellapi.h>

#include <cstdio>
#include <iterator>

#include "softtoken/failure.h"
#include "tool/console.h"

namespace tool {
namespace {

using softtoken::Failure;
using softtoken::SecretBytes;
using softtoken::Status;
using SecretWide = std::vector<wchar_t, softtoken::WipingAllocator<wchar_t>>;

template <class Container>
Container toUtf8(const wchar_t* text, std::size_t length) {
  const auto count = static_cast<int>(length);
  Container result(
      static_cast<std::size_t>(::WideCharToMultiByte(CP_UTF8, 0, text, count, nullptr, 0, nullptr, nullptr)));
  ::WideCharToMultiByte(CP_UTF8, 0, text, count, reinterpret_cast<char*>(result.data()),
                        static_cast<int>(result.size()), nullptr, nullptr);
  return result;
}

std::string utf8Text(const wchar_t* text, std::size_t length) {
  const auto bytes = toUtf8<std::vector<char>>(text, length);
  return {bytes.begin(), bytes.end()};
}

bool isConsole(HANDLE handle) {
  DWORD mode = 0;
  return ::GetConsoleMode(handle, &mode) != 0;
}

HANDLE promptInput = nullptr;  // set while a prompt has changed the mode
DWORD promptMode = 0;

// Windows calls this on a thread of its own before Ctrl+C, Ctrl+Break or closing the window ends the process.
BOOL WINAPI restoreMode(DWORD) {
  if (promptInput) ::SetConsoleMode(promptInput, promptMode);
  return FALSE;
}

// The console without echo.
class SilentTerminal {
 public:
  SilentTerminal() : input_(open(L"CONIN$")), output_(open(L"CONOUT$")) {
    if (!::GetConsoleMode(input_, &before_))
      throw Failure(Status::badArgument, "there is no terminal to ask for a password");
    promptMode = before_;
    promptInput = input_;
    ::SetConsoleCtrlHandler(restoreMode, TRUE);
    ::SetConsoleMode(input_, ENABLE_LINE_INPUT | ENABLE_PROCESSED_INPUT);
  }
  ~SilentTerminal() {
    ::SetConsoleCtrlHandler(restoreMode, FALSE);
    promptInput = nullptr;
    if (before_ != 0) ::SetConsoleMode(input_, before_);
    ::CloseHandle(input_);
    ::CloseHandle(output_);
  }
  SilentTerminal(const SilentTerminal&) = delete;
  SilentTerminal& operator=(const SilentTerminal&) = delete;

  void write(const std::string& text) const {
    DWORD written = 0;
    ::WriteFile(output_, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
  }

  SecretBytes readLine() const {
    SecretWide line;
    wchar_t letter = 0;
    DWORD count = 0;
    while (::ReadConsoleW(input_, &letter, 1, &count, nullptr) && count == 1 && letter != L'\r' && letter != L'\n') {
      line.push_back(letter);
    }
    return toUtf8<SecretBytes>(line.data(), line.size());
  }

 private:
  static HANDLE open(const wchar_t* name) {
    return ::CreateFileW(name, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                         0, nullptr);
  }

  HANDLE input_;
  HANDLE output_;
  DWORD before_ = 0;
};

}  // namespace

// The streams get buffers, because the bytes of one character must reach the console in one write. They are set to
// binary mode, because in text mode the C library may convert each byte that is written to a console.
ConsoleOutput::ConsoleOutput() : before_(::GetConsoleOutputCP()) {
  ::SetConsoleOutputCP(CP_UTF8);
  constexpr std::size_t bufferSize = 65536;
  for (FILE* stream : {stdout, stderr}) {
    std::setvbuf(stream, nullptr, _IOFBF, bufferSize);
    const int file = ::_fileno(stream);
    if (isConsole(reinterpret_cast<HANDLE>(::_get_osfhandle(file)))) ::_setmode(file, _O_BINARY);
  }
}

ConsoleOutput::~ConsoleOutput() {
  std::fflush(stdout);
  if (before_ != 0) ::SetConsoleOutputCP(before_);
}

SilencedOutput::SilencedOutput() : kept_(::_dup(1)) {
  std::fflush(stdout);
  const int nowhere = ::_open("NUL", _O_WRONLY);
  if (kept_ >= 0 && nowhere >= 0) ::_dup2(nowhere, 1);
  if (nowhere >= 0) ::_close(nowhere);
}

SilencedOutput::~SilencedOutput() {
  std::fflush(stdout);
  if (kept_ < 0) return;
  ::_dup2(kept_, 1);
  ::_close(kept_);
}

std::vector<std::string> commandLine(int argc, char** argv) {
  int count = 0;
  wchar_t** words = ::CommandLineToArgvW(::GetCommandLineW(), &count);
  if (!words) return {argv, argv + argc};
  std::vector<std::string> result;
  for (int i = 0; i < count; ++i) result.push_back(utf8Text(words[i], std::wstring_view(words[i]).size()));
  ::LocalFree(words);
  return result;
}

std::optional<SecretBytes> secretVariable(const char* name) {
  const std::wstring wideName(name, name + std::string_view(name).size());
  SecretWide value(::GetEnvironmentVariableW(wideName.c_str(), nullptr, 0));
  if (value.empty()) return std::nullopt;
  const DWORD length = ::GetEnvironmentVariableW(wideName.c_str(), value.data(), static_cast<DWORD>(value.size()));
  return toUtf8<SecretBytes>(value.data(), length);
}

std::string environmentText(const char* name) {
  const std::optional<SecretBytes> value = secretVariable(name);
  return value ? std::string(value->begin(), value->end()) : std::string();
}

std::filesystem::path systemPath(const std::string& text) {
  const auto count = static_cast<int>(text.size());
  std::wstring wide(static_cast<std::size_t>(::MultiByteToWideChar(CP_ACP, 0, text.data(), count, nullptr, 0)), L'\0');
  ::MultiByteToWideChar(CP_ACP, 0, text.data(), count, wide.data(), static_cast<int>(wide.size()));
  return wide;
}

SecretBytes askSecret(const std::string& question) {
  const SilentTerminal terminal;
  terminal.write(question);
  SecretBytes answer = terminal.readLine();
  terminal.write("\r\n");
  return answer;
}

bool inputIsTerminal() { return isConsole(::GetStdHandle(STD_INPUT_HANDLE)); }

bool outputIsTerminal() { return isConsole(::GetStdHandle(STD_OUTPUT_HANDLE)); }

bool outputTakesColour() {
  HANDLE output = ::GetStdHandle(STD_OUTPUT_HANDLE);
  DWORD mode = 0;
  if (::GetEnvironmentVariableW(L"NO_COLOR", nullptr, 0) > 1 || !::GetConsoleMode(output, &mode)) return false;
  return ::SetConsoleMode(output, mode | ENABLE_PROCESSED_OUTPUT | ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0;
}

}  // namespace tool
