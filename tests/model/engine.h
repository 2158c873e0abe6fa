// What the model of pipeline.h runs on: threads that are fibers of relacy, of which one goes on at
// a time, and whose every choice the search tries. Apart from relacy's headers, which redefine
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

// What is searched. The engine calls it, in each execution.
void before();
void run_thread(unsigned thread);
void after();

// Memory that makes up the state beside the stacks, the same in each execution.
void add_state(void* begin, std::size_t size);

unsigned self();
void step();                        // another thread may go on here
unsigned choose(unsigned options);  // 0: what happens as a rule
[[noreturn]] void fail(const char* what);
void note(const char* what, int number);  // for the history of a failure

// Sleeps until unpark(), or until a time that may come at any moment; then false. The search of all
// states, which would otherwise see the clock go on for ever, lets a pause end only once no other
// thread can go on.
enum class until { unparked, deadline, pause };
bool park(until end);
void unpark(unsigned thread);

// The other threads are not in the child of a fork. Calls `then` before anybody else goes on.
void end_others(void (*then)());

// An atomic of relacy: loads may see an older value where the order allows it.
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
  bool compare_exchange(std::uint32_t& expected, std::uint32_t value, std::memory_order order);
  std::uint32_t latest();  // as the system sees it

 private:
  friend void end_words();
  unsigned owner_;
  std::uint32_t value_;
  word* next_ = nullptr;
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

// A plain variable, which no two threads touch without an order between them.
class variable {
 public:
  void construct();
  void destroy();
  void write();
  void read() const;

 private:
  alignas(16) std::array<std::byte, 64> variable_{};
};

// Runs the executions: "states", "all", "bound" (so many preemptions), "random" (so many
// executions). Prints how many; false when one has failed, with its history.
bool search(const std::string& how, unsigned limit);

}  // namespace model

#endif
