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

// A window holds a second of the clock, a flag (the notice of suppressed lines is being written),
// and the number of lines written in that second.
constexpr unsigned second_shift = 32;
constexpr std::uint64_t one_second = std::uint64_t{1} << second_shift;
constexpr std::uint64_t notice_mark = std::uint64_t{1} << (second_shift - 1);

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
    // No memory for the line: the operation goes on without it.
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

// May a line be written here now? If lines were suppressed, it first logs how many; lines that
// arrive meanwhile are suppressed, too, so that none overtakes that notice.
bool admits(const log_place& place, std::uint64_t limit) {
  log_rate& rate = *place.rate;
  const std::uint64_t now = static_cast<std::uint64_t>(std::time(nullptr)) << second_shift;
  std::uint64_t window = rate.window.load(std::memory_order_relaxed);
  std::uint64_t next = 0;
  bool has_notice = false;
  do {
    // A window one second ahead belongs to a thread that read the clock just after this one.
    const std::uint64_t second = window & ~(one_second - 1);
    const bool is_open = second == now || second == now + one_second;
    next = is_open ? window + 1 : now + 1;
    has_notice = rate.suppressed.load(std::memory_order_relaxed) > 0;
    if ((next & notice_mark) != 0 || (next & (notice_mark - 1)) > limit) {
      rate.suppressed.fetch_add(1, std::memory_order_relaxed);
      return false;
    }
    next |= has_notice ? notice_mark : 0;
  } while (!rate.window.compare_exchange_weak(window, next, std::memory_order_relaxed));
  if (has_notice) {
    const unsigned long long suppressed = rate.suppressed.exchange(0, std::memory_order_relaxed);
    if (is_logged(BaseLib::Logger::WARN)) {
      write(place, BaseLib::Logger::WARN,
            "ruvo_redis::log_limit | %llu lines like the next one were kept back", suppressed);
    }
    rate.window.fetch_and(~notice_mark, std::memory_order_relaxed);
  }
  return true;
}

}  // namespace

// The table never fills up: there are some 20 operations, with some 10 lines and results each.
log_rate& shared_rate(const char* operation, int result, int line) noexcept {
  static constinit std::array<log_rate, 1024> rates;
  const std::uint64_t kind =
      (reinterpret_cast<std::uintptr_t>(operation) << 16U) ^
      (static_cast<std::uint64_t>(static_cast<std::uint32_t>(result)) << 48U) ^
      static_cast<std::uint64_t>(line);
  for (std::size_t i = kind * 0x9e3779b97f4a7c15U >> 54U;; i = (i + 1) % rates.size()) {
    std::uint64_t found = rates[i].kind.load(std::memory_order_relaxed);
    if (found == kind ||
        (found == 0 && (rates[i].kind.compare_exchange_strong(found, kind) || found == kind))) {
      return rates[i];
    }
  }
}

void set_log_limit(int lines) { log_limit.store(lines, std::memory_order_relaxed); }

unlimited_log::unlimited_log() : before_(std::exchange(is_unlimited, true)) {}
unlimited_log::~unlimited_log() { is_unlimited = before_; }

void write_log_line(const log_place& place, BaseLib::Logger::LogLevel level, const char* format,
                    ...) noexcept {
  const int limit = log_limit.load(std::memory_order_relaxed);
  if (limit > 0 && level >= BaseLib::Logger::WARN && !is_unlimited &&
      !admits(place, static_cast<std::uint64_t>(limit))) {
    return;
  }
  va_list args;
  va_start(args, format);
  vwrite(place, level, format, args);
  va_end(args);
}

// Deployed systems rely on the bare key at this level, so no text surrounds it.
void log_key_as_format(const char* key) noexcept {
  if (is_logged(BaseLib::Logger::ERROR)) {
    std::array<char, log_buffer_size> text;
    expand_key_format(key, text);
    RUVO_LOG(ERROR, "%s", text.data());
  }
}
