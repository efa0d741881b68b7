#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "test_platform.h"

namespace testPlatform {
namespace {

std::filesystem::path logLevelFile() {
  return std::filesystem::path(std::getenv("TAVRIN_REGISTRY")) / "Software/Quorvane Telemantix/Tavrin/logLevel";
}

void writeLogLevel(const std::string& text) {
  std::filesystem::create_directories(logLevelFile().parent_path());
  std::ofstream(logLevelFile()) << text;
}

}  // namespace

void setEnvironment(const char* name, const char* value) { value ? setenv(name, value, 1) : unsetenv(name); }

void setLogLevel(std::optional<std::uint32_t> level) {
  if (level) return writeLogLevel(std::to_string(*level));
  std::filesystem::remove(logLevelFile());
}

std::vector<OddLogLevel> oddLogLevels() {
  return {{[] { writeLogLevel("3\n"); }, true, true}};
}

bool appendsAtomically() { return true; }

int exitCodeOfFork(const std::function<int()>& work) {
  const pid_t child = fork();
  if (child == 0) std::_Exit(work());
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 101;
}

std::intptr_t startSelf(const std::vector<std::string>& arguments) {
  std::vector<char*> texts{const_cast<char*>("self")};
  for (const std::string& argument : arguments) texts.push_back(const_cast<char*>(argument.c_str()));
  texts.push_back(nullptr);
  pid_t child = -1;
  posix_spawn(&child, "/proc/self/exe", nullptr, nullptr, texts.data(), environ);
  return child;
}

void forEachMemoryBlock(std::intptr_t process, const std::function<void(std::span<const std::uint8_t>)>& look) {
  const std::string folder = "/proc/" + std::to_string(process);
  const int memory = open((folder + "/mem").c_str(), O_RDONLY | O_CLOEXEC);
  std::ifstream maps(folder + "/maps");
  for (std::string line; std::getline(maps, line);) {
    unsigned long first = 0, last = 0;
    char readable = '-';
    if (std::sscanf(line.c_str(), "%lx-%lx %c", &first, &last, &readable) != 3 || readable != 'r') continue;
    std::vector<std::uint8_t> block(last - first);
    const ssize_t size = pread(memory, block.data(), block.size(), static_cast<off_t>(first));
    if (size > 0) look(std::span(block).first(static_cast<std::size_t>(size)));
  }
  close(memory);
}

bool killProcess(std::intptr_t process) {
  int status = 0;
  kill(static_cast<pid_t>(process), SIGKILL);
  waitpid(static_cast<pid_t>(process), &status, 0);
  return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
}

bool limitFileSize(std::optional<std::size_t> size) {
  signal(SIGXFSZ, SIG_IGN);
  rlimit limit{};
  getrlimit(RLIMIT_FSIZE, &limit);
  limit.rlim_cur = size ? *size : limit.rlim_max;
  return setrlimit(RLIMIT_FSIZE, &limit) == 0;
}

}  // namespace testPlatform
