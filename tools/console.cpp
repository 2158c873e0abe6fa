#include "console.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>
#include <system_error>

#include "exit_status.h"

namespace {

std::FILE* output = stdout;

sigset_t end_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  return signals;
}

[[noreturn]] void fail(const char* what) {
  throw Failure(unwritable_output,
                std::string(what) + ": " + std::generic_category().message(errno));
}

}  // namespace

void take_output() {
  const int kept = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
  std::FILE* own = kept != -1 ? fdopen(kept, "w") : nullptr;
  if (own == nullptr || nowhere == -1 || dup2(nowhere, STDOUT_FILENO) == -1) {
    fail("no standard output");
  }
  close(nowhere);
  output = own;
}

std::string format(const char* pattern, ...) {
  std::array<char, 512> text{};
  va_list args;
  va_start(args, pattern);
  std::vsnprintf(text.data(), text.size(), pattern, args);
  va_end(args);
  return text.data();
}

void print(const std::string& text) {
  if (std::fwrite(text.data(), 1, text.size(), output) != text.size() || std::fflush(output) != 0) {
    fail("cannot write the output");
  }
}

void print_json(const nlohmann::json& json) { print(json.dump() + "\n"); }

bool is_terminal() { return isatty(fileno(output)) == 1; }

void block_end_signals() {
  const sigset_t signals = end_signals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

bool wait_for_end(int milliseconds) {
  const sigset_t signals = end_signals();
  const timespec limit{milliseconds / 1000, (milliseconds % 1000) * 1000000L};
  return sigtimedwait(&signals, nullptr, &limit) != -1;
}
