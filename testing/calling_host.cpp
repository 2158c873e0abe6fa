#include "calling_host.h"

#include <algorithm>
#include <utility>

namespace {

using BaseLib::Logger;

CallingHost* host = nullptr;  // the one that reads the log

bool is_failure(int result) {
  return result != RUVO_OK && result != RUVO_ABSENT && result != RUVO_ERR_NOT_FOUND;
}

}  // namespace

SecondOfCalls& SecondOfCalls::operator+=(const SecondOfCalls& other) {
  calls += other.calls;
  failed += other.failed;
  slowest_ms = std::max(slowest_ms, other.slowest_ms);
  lines += other.lines;
  return *this;
}

CallingHost::CallingHost(const char* config, int threads, Call call, LogReader reader)
    : call_(std::move(call)),
      reader_(std::move(reader)),
      library_(start(config)),
      begin_(Clock::now()),
      counts_(max_seconds) {
  host = this;
  threads_.reserve(static_cast<std::size_t>(threads));
  for (int number = 0; number < threads; ++number) {
    threads_.emplace_back(
        [this, number](const std::stop_token& stop) { call_until(stop, number); });
  }
}

CallingHost::~CallingHost() {
  stop();
  Logger::setLogLevel(Logger::FATAL);
  Logger::setOutput(nullptr);
  host = nullptr;
}

ruvo::library CallingHost::start(const char* config) {
  Logger::setOutput(read_line);
  Logger::setLogLevel(Logger::WARN);
  const QuietConsole quiet;
  return ruvo::library(config);
}

void CallingHost::stop() {
  for (std::jthread& thread : threads_) {
    thread.request_stop();
  }
  threads_.clear();
}

void CallingHost::wait_until(std::chrono::milliseconds moment) const {
  std::this_thread::sleep_until(begin_ + moment);
}

SecondOfCalls CallingHost::second(int number) const {
  const Counts& one = counts_.at(static_cast<std::size_t>(number));
  return {one.calls, one.failed,
          std::chrono::duration<double, std::milli>(Clock::duration(one.slowest)).count(),
          one.lines};
}

std::vector<SecondOfCalls> CallingHost::seconds(int count) const {
  std::vector<SecondOfCalls> all;
  all.reserve(static_cast<std::size_t>(count));
  for (int number = 0; number < count; ++number) {
    all.push_back(second(number));
  }
  return all;
}

void CallingHost::read_line(Logger::LogLevel, const char* line, std::size_t length) {
  if (host == nullptr) {
    return;  // a line of start-up
  }
  ++host->now().lines;
  if (host->reader_) {
    host->reader_({line, length});
  }
}

CallingHost::Counts& CallingHost::now() {
  const auto passed = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - begin_);
  return counts_[std::min(static_cast<std::size_t>(passed.count()), max_seconds - 1)];
}

void CallingHost::call_until(const std::stop_token& stop, int thread) {
  while (!stop.stop_requested()) {
    const Clock::time_point from = Clock::now();
    const bool failed = is_failure(call_(thread));
    const Clock::rep taken = (Clock::now() - from).count();
    Counts& second = now();
    ++second.calls;
    second.failed += failed ? 1 : 0;
    Clock::rep slowest = second.slowest;
    while (slowest < taken && !second.slowest.compare_exchange_weak(slowest, taken)) {
    }
  }
}
