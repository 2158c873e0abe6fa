// A host whose threads only make calls, with their results second by second.
#ifndef RUVO_TESTING_CALLING_HOST_H
#define RUVO_TESTING_CALLING_HOST_H

#include <ruvo/ruvo.hpp>

#include <atomic>
#include <chrono>
#include <functional>
#include <string_view>
#include <thread>
#include <vector>

#include "fixtures.h"
#include "logger.h"

// Counts of the calls that ended in a second, and of its log lines from WARN on.
struct SecondOfCalls {
  long calls = 0;
  long failed = 0;
  double slowest_ms = 0;
  long lines = 0;

  SecondOfCalls& operator+=(const SecondOfCalls& other);
};

// Starts the library, lets threads call it until stop(), and shuts it down. If start-up fails, so
// do the calls. REQUIRES: the process has no other CallingHost.
class CallingHost : NoCopy {
 public:
  using Clock = std::chrono::steady_clock;
  // Makes the next call of a thread and returns its result. Threads are numbered from 0.
  using Call = std::function<int(int thread)>;
  // Receives every line from WARN on after start-up, in the thread that writes it.
  using LogReader = std::function<void(std::string_view line)>;

  CallingHost(const char* config, int threads, Call call, LogReader reader = nullptr);
  ~CallingHost();

  int start_result() const { return library_.code(); }  // of RUVO_Init
  // These count from the end of start-up.
  void wait_until(std::chrono::milliseconds moment) const;
  SecondOfCalls second(int number) const;  // final once it has passed
  std::vector<SecondOfCalls> seconds(int count) const;
  void stop();  // returns when the last call has returned

 private:
  static constexpr std::size_t max_seconds = 10000;  // the last one counts all later ones
  struct Counts {
    std::atomic<long> calls{0};
    std::atomic<long> failed{0};
    std::atomic<Clock::rep> slowest{0};
    std::atomic<long> lines{0};
  };

  static ruvo::library start(const char* config);
  static void read_line(BaseLib::Logger::LogLevel level, const char* line, std::size_t length);
  Counts& now();
  void call_until(const std::stop_token& stop, int thread);

  Call call_;
  LogReader reader_;
  ruvo::library library_;
  Clock::time_point begin_;
  std::vector<Counts> counts_;
  std::vector<std::jthread> threads_;
};

#endif
