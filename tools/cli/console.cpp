#include "console.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
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
volatile std::sig_atomic_t end_wanted = 0;
bool is_read = true;  // somebody reads the output

[[noreturn]] void fail(const char* what) {
  throw Failure(unwritable_output,
                std::string(what) + ": " + std::generic_category().message(errno));
}

}  // namespace

void open_standard_streams() {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(fd, F_GETFD) == -1) {
      // The new descriptor gets the lowest number, which is this one. It is opened in the opposite
      // direction, so that any use of it is an error.
      open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);  // NOLINT: stays open
    }
  }
}

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
  va_list args;
  va_start(args, pattern);
  va_list again;
  va_copy(again, args);
  const int length = std::vsnprintf(nullptr, 0, pattern, args);
  std::string text(static_cast<std::size_t>(std::max(length, 0)) + 1, '\0');
  std::vsnprintf(text.data(), text.size(), pattern, again);
  va_end(again);
  va_end(args);
  text.pop_back();
  return text;
}

void print(const std::string& text) {
  if (!is_read || (std::fwrite(text.data(), 1, text.size(), output) == text.size() &&
                   std::fflush(output) == 0)) {
    return;
  }
  if (errno != EPIPE) {
    fail("cannot write the output");
  }
  is_read = false;
  end_wanted = 1;
}

void print_json(const nlohmann::json& json) {
  // Values are printable already; only addresses and paths may contain other bytes.
  print(json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n");
}

std::string columns(const std::vector<std::vector<std::string>>& rows, std::size_t left) {
  std::vector<std::size_t> widths;
  for (const auto& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (std::size_t i = 0; i < row.size(); ++i) {
      widths[i] = std::max(widths[i], row[i].size());
    }
  }
  std::string text;
  for (const auto& row : rows) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      const std::string padding(widths[i] - row[i].size(), ' ');
      line += (i < left ? row[i] + padding : padding + row[i]) + "  ";
    }
    text += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
  }
  return text;
}

bool is_terminal(std::size_t lines) {
  winsize size{};
  return isatty(fileno(output)) == 1 && ioctl(fileno(output), TIOCGWINSZ, &size) == 0 &&
         lines < size.ws_row;
}

void catch_end_signals() {
  struct sigaction action {};
  action.sa_handler = [](int) { end_wanted = 1; };
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

void block_end_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

bool is_end_wanted() { return end_wanted != 0; }

bool wait_for_end(int milliseconds) {
  const timespec limit{milliseconds / 1000, (milliseconds % 1000) * 1000000L};
  if (!is_end_wanted()) {
    nanosleep(&limit, nullptr);  // a signal ends it
  }
  return is_end_wanted();
}
