// The engine for the model of pipeline.h: threads that are fibers of relacy, of which one runs at a
// time. The search tries every choice of each. Kept apart from relacy's headers, which redefine
// `new`, `errno` and the memory orders.
#ifndef RUVO_TESTS_MODEL_ENGINE_H
#define RUVO_TESTS_MODEL_ENGINE_H

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace model {

constexpr unsigned thread_count = 3;

// The searched code. The engine calls it in each execution.
void before();
void run_thread(unsigned thread);
void after();

// Memory that belongs to the state besides the stacks, the same in each execution.
void add_state(const void* begin, std::size_t size);

unsigned self();
void step();                        // another thread may run here
unsigned choose(unsigned options);  // 0: the usual case
[[noreturn]] void fail(const char* what);
void note(const char* what, int number);  // for the history of a failure

// Sleeps until unpark(), or until a time that may come at any moment, and then returns false. In
// the search of all states the clock would be endless, so a pause ends only if no other thread can
// run.
enum class until { unparked, deadline, pause };
bool park(until end);
void unpark(unsigned thread);

// The other threads do not exist in the child of a fork. Calls `then` before any other thread runs.
void end_others(void (*then)());

// An atomic of relacy: loads may see an older value if the order allows it.
class word {
 public:
  explicit word(std::uint32_t value);
  ~word();
  word(const word&) = delete;
  word& operator=(const word&) = delete;
  std::uint32_t load(std::memory_order order) const;
  void store(std::uint32_t value, std::memory_order order);
  std::uint32_t exchange(std::uint32_t value, std::memory_order order);
  std::uint32_t add(std::uint32_t count, std::memory_order order);
  bool compare_exchange_strong(std::uint32_t& expected, std::uint32_t value,
                               std::memory_order order);
  std::uint32_t latest();  // as the system sees it

 private:
  friend void end_words();
  std::uint32_t replace(std::uint32_t value, std::memory_order order);

  unsigned owner_;
  std::uint32_t value_;
  alignas(16) std::array<std::byte, 64> atomic_{};
};

// What a lock orders.
class lock_order {
 public:
  lock_order();
  void acquire();
  void release();

 private:
  alignas(16) std::array<std::byte, 8 * thread_count> clock_{};
};

// A plain variable, which two threads may access only with an order between them.
class variable {
 public:
  void construct();
  void destroy();
  void write();
  void read() const;

 private:
  alignas(16) std::array<std::byte, 64> variable_{};
};

// Runs the executions: "states", "bound" (a number of preemptions), "random" (a number of
// executions). Prints how many; false if one has failed, with its history.
bool search(const std::string& how, unsigned limit);

}  // namespace model

#endif
