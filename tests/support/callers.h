// Threads that make one call after the other.
#ifndef RUVO_TESTS_CALLERS_H
#define RUVO_TESTS_CALLERS_H

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

#include "fixtures.h"

class Callers : NoCopy {
 public:
  // A call of a thread, whose number it gets; false if its result is wrong.
  using Call = std::function<bool(int thread)>;

  Callers(int threads, Call call) : call_(std::move(call)) {
    for (int thread = 0; thread < threads; ++thread) {
      threads_.emplace_back([this, thread](const std::stop_token& stop) {
        for (; !stop.stop_requested(); ++calls_) {
          wrong_ += call_(thread) ? 0 : 1;
        }
      });
    }
  }
  // Waits until they have made more calls; false if they hang.
  bool make(int more) const {
    return eventually([this, enough = calls_ + more] { return calls_ >= enough; });
  }
  // Ends them. Returns the number of wrong results.
  int stop() {
    threads_.clear();
    return wrong_;
  }

 private:
  Call call_;
  std::atomic<int> calls_{0};
  std::atomic<int> wrong_{0};
  std::vector<std::jthread> threads_;
};

#endif
