#include "log_line.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <ostream>
#include <utility>

#include "key_format.h"

namespace {

std::atomic<int> log_limit{0};
thread_local bool is_unlimited = false;

constexpr unsigned second_shift = 32;
constexpr std::uint64_t count_mask = (std::uint64_t{1} << second_shift) - 1;

// May a line be written here now? `kept_back`: how many were not, since the last that was.
bool admits(log_place& place, std::uint64_t limit, unsigned long long& kept_back) {
  const auto now = static_cast<std::uint64_t>(std::time(nullptr)) << second_shift;
  std::uint64_t window = place.window.load(std::memory_order_relaxed);
  std::uint64_t next = 0;
  do {
    // A second ahead is that of a thread that has looked at the clock just after this one.
    const std::uint64_t second = window & ~count_mask;
    const bool is_open = second == now || second == now + count_mask + 1;
    next = is_open ? window + 1 : now + 1;
    if ((next & count_mask) > limit) {
      place.kept_back.fetch_add(1, std::memory_order_relaxed);
      return false;
    }
  } while (!place.window.compare_exchange_weak(window, next, std::memory_order_relaxed));
  kept_back = place.kept_back.exchange(0, std::memory_order_relaxed);
  return true;
}

__attribute__((format(printf, 3, 0))) void vwrite(const log_place& place,
                                                  BaseLib::Logger::LogLevel level,
                                                  const char* format, va_list args) noexcept {
  std::array<char, log_buffer_size> text;
  if (std::vsnprintf(text.data(), text.size(), format, args) < 0) {
    text[0] = '\0';
  }
  try {
    BaseLib::Logger(place.file, place.line, level).stream() << text.data();
  } catch (...) {
    // No memory to build the line with: the operation goes on without it.
  }
}

__attribute__((format(printf, 3, 4))) void write(const log_place& place,
                                                 BaseLib::Logger::LogLevel level,
                                                 const char* format, ...) noexcept {
  va_list args;
  va_start(args, format);
  vwrite(place, level, format, args);
  va_end(args);
}

}  // namespace

void set_log_limit(int lines) { log_limit.store(lines, std::memory_order_relaxed); }

unlimited_log::unlimited_log() : before_(std::exchange(is_unlimited, true)) {}
unlimited_log::~unlimited_log() { is_unlimited = before_; }

void write_log_line(log_place& place, BaseLib::Logger::LogLevel level, const char* format,
                    ...) noexcept {
  const int limit = log_limit.load(std::memory_order_relaxed);
  if (limit > 0 && level >= BaseLib::Logger::WARN && !is_unlimited) {
    unsigned long long kept_back = 0;
    if (!admits(place, static_cast<std::uint64_t>(limit), kept_back)) {
      return;
    }
    if (kept_back > 0 && is_logged(BaseLib::Logger::WARN)) {
      write(place, BaseLib::Logger::WARN,
            "ruvo_redis::log_limit | %llu lines like the next one were kept back", kept_back);
    }
  }
  va_list args;
  va_start(args, format);
  vwrite(place, level, format, args);
  va_end(args);
}

// Deployed systems rely on the bare key at this level, so the text has nothing around it.
void log_key_as_format(const char* key) noexcept {
  if (is_logged(BaseLib::Logger::ERROR)) {
    std::array<char, log_buffer_size> text;
    expand_key_format(key, text);
    RUVO_LOG(ERROR, "%s", text.data());
  }
}
