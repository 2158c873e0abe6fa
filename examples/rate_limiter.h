// A rate limiter in Redis, shared by all hosts: limits a client's requests in a window, which
// begins with the first of them.
//
//   rate_limiter<ruvo::pool> limiter(ruvo::pool(eTempServer), 5, std::chrono::minutes(1));
//   if (limiter.allow(client).no()) ...   // more than 5 in a minute
#ifndef RATE_LIMITER_H
#define RATE_LIMITER_H

#include <chrono>
#include <ruvo/ruvo.hpp>
#include <string>
#include <string_view>
#include <utility>

// The pool is a parameter, so that a test can bring one on a backend of its own.
template <typename Pool>
class rate_limiter {
 public:
  rate_limiter(Pool pool, long long max_requests, std::chrono::milliseconds window)
      : pool_(std::move(pool)), max_requests_(max_requests), window_(window) {}

  // Counts a request: yes() if it may go on, no() if not, failed() if Redis could not be asked.
  // Only the host knows what to do then: a login page refuses, a news page goes on.
  ruvo::result<bool> allow(std::string_view client) const {
    const auto count = pool_.increment(key_of(client), 1, window_);
    if (!count) {
      return count.why();
    }
    return *count <= max_requests_;
  }

  // The time until the window of a client ends; 0 if it has no window.
  ruvo::result<std::chrono::milliseconds> wait(std::string_view client) const {
    auto left = pool_.ttl(key_of(client));
    return left.absent() ? std::chrono::milliseconds(0) : left;
  }

 private:
  static std::string key_of(std::string_view client) { return "rate:" + std::string(client); }

  Pool pool_;
  long long max_requests_;
  std::chrono::milliseconds window_;
};

#endif
