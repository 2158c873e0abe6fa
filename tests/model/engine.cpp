#include "engine.h"

#include <setjmp.h>

#include <relacy/relacy.hpp>
#undef new
#undef delete
#undef malloc
#undef calloc
#undef realloc
#undef free
#undef memory_order_relaxed
#undef memory_order_acquire
#undef memory_order_release

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

namespace model {

void end_words();  // of this thread, which the fork has ended

namespace {

constexpr rl::thread_id_t fibers = thread_count;
using relacy_word = rl::atomic<std::uint32_t>;
using relacy_clock = rl::sync_var<fibers>;
using relacy_variable = rl::var<int>;

struct memory {
  const char* begin = nullptr;
  const char* end = nullptr;
};

struct fiber {
  memory stack;  // from where it was last left
  bool is_parked = false;
  bool is_in_pause = false;
  bool has_vanished = false;
  jmp_buf exit;
};

std::array<memory, 8> state_parts;
std::size_t state_count = 0;
std::array<fiber, thread_count> threads;
word* words = nullptr;
bool has_begun = false;
bool is_state_search = false;  // which knows no memory orders

std::uint64_t mix(std::uint64_t hash, std::uint64_t value) {
  hash = (hash ^ value) * 0x9E3779B97F4A7C15U;
  return hash ^ (hash >> 29U);
}

std::uint64_t mix(std::uint64_t hash, const memory& part) {
  std::uint64_t value = 0;
  for (const char* at = part.begin; at != part.end; at += sizeof value) {
    std::memcpy(&value, at, sizeof value);
    hash = mix(hash, value);
  }
  return hash;
}

// The hashes of the states that have been seen.
class state_set {
 public:
  bool insert(std::uint64_t hash) {
    hash |= 1U;
    std::size_t at = hash >> (64U - bits);
    while (table_[at] != 0 && table_[at] != hash) {
      at = (at + 1) & (size - 1);
    }
    if (table_[at] == hash) {
      return false;
    }
    table_[at] = hash;
    if (++count_ > size / 2) {
      std::cerr << "too many states" << std::endl;
      std::_Exit(2);
    }
    return true;
  }
  std::size_t count() const { return count_; }

 private:
  static constexpr unsigned bits = 25;
  static constexpr std::size_t size = std::size_t{1} << bits;
  std::uint64_t* table_ = static_cast<std::uint64_t*>(std::calloc(size, sizeof(std::uint64_t)));
  std::size_t count_ = 0;
};
state_set* seen_states = nullptr;

// Tries every choice in every state. An execution that reaches a known state is only completed: all
// that follows that state has been tried, or will be. A state is the contents of the threads'
// stacks and of the model.
template <rl::thread_id_t count>
class state_scheduler
    : public rl::scheduler<state_scheduler<count>, rl::scheduler_thread_info, count> {
 public:
  using base = rl::scheduler<state_scheduler<count>, rl::scheduler_thread_info, count>;
  using typename base::shared_context_t;
  struct task_t {};

  using base::base;

  rl::thread_id_t iteration_begin_impl() {
    depth_ = 0;
    is_known_ = false;
    return this->running_threads[rand_impl(this->running_threads_count, rl::sched_type_sched)];
  }

  bool iteration_end_impl() {
    while (!choices_.empty() && choices_.back().taken + 1 == choices_.back().options) {
      choices_.pop_back();
    }
    if (choices_.empty()) {
      return true;
    }
    ++choices_.back().taken;
    return false;
  }

  rl::thread_id_t schedule_impl(rl::unpark_reason& reason, unsigned) {
    if (depth_ == choices_.size() && !is_known_) {
      is_known_ = !seen_states->insert(present_state());
    }
    // The options: the running thread, the others that could run, those that may time out.
    std::array<rl::thread_id_t, 2 * count> options{};
    unsigned option_count = 0;
    const rl::thread_id_t last = this->thread_->index_;
    for (rl::thread_id_t i = 0; i < count; ++i) {
      const rl::thread_id_t next = (last + i) % count;
      if (this->threads_[next].state_ == rl::thread_state_running) {
        options[option_count++] = next;
      }
    }
    const unsigned running = option_count;
    for (rl::thread_id_t i = 0; i < this->timed_thread_count_; ++i) {
      const rl::thread_id_t next = this->timed_threads_[i]->index_;
      if (!threads[next].is_in_pause || running == 0) {
        options[option_count++] = next;
      }
    }
    std::sort(&options[running], &options[option_count]);
    const unsigned choice = option_count > 1 ? rand_impl(option_count, rl::sched_type_sched) : 0;
    reason = choice < running ? rl::unpark_reason_normal : rl::unpark_reason_timeout;
    if (choice >= running) {
      this->unpark_thread(options[choice]);
    }
    return options[choice];
  }

  unsigned rand_impl(unsigned limit, rl::sched_type) {
    if (depth_ < choices_.size()) {
      return choices_[depth_++].taken;
    }
    if (!is_known_) {
      choices_.push_back({limit, 0});
      ++depth_;
    }
    return 0;
  }

  void get_state_impl(std::ostream& out) {
    out << choices_.size();
    for (const choice& each : choices_) {
      out << ' ' << each.options << ' ' << each.taken;
    }
  }
  void set_state_impl(std::istream& in) {
    std::size_t size = 0;
    in >> size;
    choices_.resize(size);
    for (choice& each : choices_) {
      in >> each.options >> each.taken;
    }
  }

  rl::iteration_t iteration_count_impl() { return 1; }
  void thread_finished_impl() {}
  void purge_blocked_threads() {}
  void on_thread_block(rl::thread_id_t, bool) {}

 private:
  struct choice {
    unsigned options;
    unsigned taken;
  };

  std::uint64_t present_state() const {
    std::uint64_t hash = 0;
    for (rl::thread_id_t i = 0; i < count; ++i) {
      hash = mix(hash, this->threads_[i].state_ * 2U + (threads[i].has_vanished ? 1U : 0U));
      hash = mix(hash, threads[i].stack);
    }
    std::uint64_t timed = 0;
    for (rl::thread_id_t i = 0; i < this->timed_thread_count_; ++i) {
      timed |= 1U << static_cast<unsigned>(this->timed_threads_[i]->index_);
    }
    hash = mix(hash, timed);
    for (std::size_t i = 0; i < state_count; ++i) {
      hash = mix(hash, state_parts[i]);
    }
    return hash;
  }

  typename rl::vector<choice>::type choices_;
  std::size_t depth_ = 0;
  bool is_known_ = false;
};

struct suite : rl::test_suite<suite, fibers> {
  void before() {
    words = nullptr;
    has_begun = false;
    for (fiber& thread : threads) {
      thread.stack = {};
      thread.is_parked = thread.has_vanished = false;
    }
    model::before();
    has_begun = true;
  }
  void thread(unsigned number);
  void after() { model::after(); }
};

// The start of a thread's stack, for the search of states.
[[gnu::noinline]] void suite::thread(unsigned number) {
  threads[number].stack.end = static_cast<const char*>(__builtin_frame_address(0));
  if (_setjmp(threads[number].exit) == 0) {
    run_thread(number);
  } else {
    end_words();
  }
  threads[number].stack = {};
}

relacy_word& relacy(std::array<std::byte, 64>& memory) {
  static_assert(sizeof(relacy_word) <= sizeof memory);
  return *reinterpret_cast<relacy_word*>(memory.data());
}
relacy_clock& relacy(std::array<std::byte, 8 * thread_count>& memory) {
  static_assert(sizeof(relacy_clock) <= sizeof memory);
  return *reinterpret_cast<relacy_clock*>(memory.data());
}

rl::memory_order order_of(std::memory_order order) {
  switch (order) {
    case std::memory_order::relaxed:
      return rl::mo_relaxed;
    case std::memory_order::acquire:
      return rl::mo_acquire;
    case std::memory_order::release:
      return rl::mo_release;
    default:
      return rl::mo_seq_cst;
  }
}

// Values that returned calls have left on the stack are no part of a state.
[[gnu::noinline]] void clear_stack_below() {
  std::array<char, 4096> below;
  std::memset(below.data(), 0, below.size());
  asm volatile("" : : "r"(below.data()) : "memory");
}

void leave_if_vanished() {
  if (threads[self()].has_vanished) {
    _longjmp(threads[self()].exit, 1);
  }
}

// The caller's frame then holds the callee-saved registers.
#define NOTE_STACK()       \
  __builtin_unwind_init(); \
  threads[self()].stack.begin = static_cast<const char*>(__builtin_frame_address(0)) - 5 * 8

}  // namespace

void end_words() {
  word** at = &words;
  while (*at != nullptr) {
    word* const each = *at;
    if (each->owner_ == self()) {
      *at = each->next_;
      relacy(each->atomic_).~relacy_word();
    } else {
      at = &each->next_;
    }
  }
}

void add_state(void* begin, std::size_t size) {
  state_parts.at(state_count++) = {static_cast<const char*>(begin),
                                   static_cast<const char*>(begin) + size / 8 * 8};
}

unsigned self() { return static_cast<unsigned>(rl::ctx().threadx_->index_); }

[[gnu::noinline]] void step() {
  NOTE_STACK();
  rl::ctx().sched();
  leave_if_vanished();
  clear_stack_below();
}

unsigned choose(unsigned options) {
  return options > 1 ? rl::ctx().rand(options, rl::sched_type_user) : 0;
}

void fail(const char* what) {
  rl::ctx().fail_test(what, rl::test_result_user_assert_failed, RL_INFO);
  std::abort();
}

void note(const char* what, int number) {
  if (rl::ctx().collecting_history()) {
    std::array<char, 80> text{};
    std::snprintf(text.data(), text.size(), "%s %d", what, number);
    rl::ctx().exec_log_msg(RL_INFO, text.data());
  }
}

[[gnu::noinline]] bool park(until end) {
  NOTE_STACK();
  threads[self()].is_parked = true;
  threads[self()].is_in_pause = end == until::pause;
  const rl::unpark_reason reason =
      rl::ctx().park_current_thread(end != until::unparked, false, false, RL_INFO);
  threads[self()].is_parked = false;
  leave_if_vanished();
  clear_stack_below();
  return reason == rl::unpark_reason_normal;
}

void unpark(unsigned thread) {
  threads[thread].is_parked = false;
  rl::ctx().unpark_thread(static_cast<rl::thread_id_t>(thread), false, RL_INFO);
}

void end_others(void (*then)()) {
  for (unsigned i = 0; i < thread_count; ++i) {
    if (i != self() && threads[i].stack.end != nullptr) {
      threads[i].has_vanished = true;
      if (threads[i].is_parked) {
        unpark(i);
      }
    }
  }
  const rl::preemption_disabler whole(rl::ctx());
  rl::ctx().rl_global_fence();
  then();
}

// ---- Words ----

word::word(std::uint32_t value) : owner_(has_begun ? self() : thread_count), value_(value) {
  if (!is_state_search) {
    rl::preemption_disabler whole(rl::ctx());
    ::new (static_cast<void*>(atomic_.data())) relacy_word(value);
    next_ = words;
    words = this;
  }
}

word::~word() {
  if (!is_state_search) {
    word** at = &words;
    while (*at != this) {
      at = &(*at)->next_;
    }
    *at = next_;
    relacy(atomic_).~relacy_word();
  }
}

std::uint32_t word::load(std::memory_order order) const {
  step();
  if (is_state_search) {
    return value_;
  }
  rl::preemption_disabler whole(rl::ctx());
  return relacy(const_cast<word*>(this)->atomic_).load(order_of(order), RL_INFO);
}

// Only its owner stores, with the lock held: nothing is visible between that and the next step.
void word::store(std::uint32_t value, std::memory_order order) {
  value_ = value;
  if (!is_state_search) {
    rl::preemption_disabler whole(rl::ctx());
    relacy(atomic_).store(value, order_of(order), RL_INFO);
  }
}

std::uint32_t word::exchange(std::uint32_t value, std::memory_order order) {
  step();
  const std::uint32_t before = value_;
  value_ = value;
  if (is_state_search) {
    return before;
  }
  rl::preemption_disabler whole(rl::ctx());
  return relacy(atomic_).exchange(value, order_of(order), RL_INFO);
}

std::uint32_t word::add(std::uint32_t count, std::memory_order order) {
  step();
  const std::uint32_t before = value_;
  value_ += count;
  if (is_state_search) {
    return before;
  }
  rl::preemption_disabler whole(rl::ctx());
  return relacy(atomic_).fetch_add(count, order_of(order), RL_INFO);
}

bool word::compare_exchange(std::uint32_t& expected, std::uint32_t value, std::memory_order order) {
  step();
  if (!is_state_search) {
    rl::preemption_disabler whole(rl::ctx());
    const bool done =
        relacy(atomic_).compare_exchange_strong(expected, value, order_of(order), RL_INFO);
    value_ = done ? value : value_;
    return done;
  }
  return value_ == expected ? (value_ = value, true) : (expected = value_, false);
}

// From then on the calling thread sees nothing older.
std::uint32_t word::latest() {
  if (!is_state_search) {
    rl::preemption_disabler whole(rl::ctx());
    relacy(atomic_).fetch_add(0, rl::mo_relaxed, RL_INFO);
  }
  return value_;
}

// ---- Orders and variables ----

lock_order::lock_order() { ::new (static_cast<void*>(clock_.data())) relacy_clock(); }
void lock_order::acquire() {
  if (!is_state_search) {
    relacy(clock_).acquire(rl::ctx().threadx_);
  }
}
void lock_order::release() {
  if (!is_state_search) {
    relacy(clock_).release(rl::ctx().threadx_);
  }
}

void variable::construct() {
  static_assert(sizeof(relacy_variable) <= sizeof variable_);
  if (!is_state_search) {
    ::new (static_cast<void*>(variable_.data())) relacy_variable(0);
  }
}
void variable::destroy() {
  if (!is_state_search) {
    reinterpret_cast<relacy_variable*>(variable_.data())->~relacy_variable();
  }
}
void variable::write() {
  if (!is_state_search) {
    (*reinterpret_cast<relacy_variable*>(variable_.data()))(RL_INFO) = 1;
  }
}
void variable::read() const {
  if (!is_state_search) {
    static_cast<void>(
        (*reinterpret_cast<const relacy_variable*>(variable_.data()))(RL_INFO).load());
  }
}

// ---- The search ----

namespace {

template <typename Scheduler>
bool run(rl::test_params& params) {
  std::ostream nowhere(nullptr);
  params.progress_stream = &nowhere;
  params.execution_depth_limit = 5000;
  rl::ostringstream state;
  if (rl::run_test<suite, Scheduler>(params, state, false) == rl::test_result_success) {
    return true;
  }
  params.initial_state = state.str();
  params.collect_history = true;
  rl::run_test<suite, Scheduler>(params, state, true);
  return false;
}

}  // namespace

bool search(const std::string& how, unsigned limit) {
  rl::test_params params;
  bool has_passed = false;
  if (how == "states") {
    is_state_search = true;
    seen_states = new state_set;
    has_passed = run<state_scheduler<fibers>>(params);
    std::cout << seen_states->count() << " states, ";
  } else if (how == "all") {
    has_passed = run<rl::full_search_scheduler<fibers>>(params);
  } else if (how == "bound") {
    params.context_bound = limit;
    has_passed = run<rl::context_bound_scheduler<fibers>>(params);
  } else {
    params.iteration_count = limit;
    has_passed = run<rl::random_scheduler<fibers>>(params);
  }
  std::cout << params.stop_iteration << " executions" << std::endl;
  return has_passed;
}

}  // namespace model
