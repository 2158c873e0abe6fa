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
#include <string_view>

namespace model {

void end_words();  // of this thread, which the fork has ended

namespace {

constexpr rl::thread_id_t fibers = thread_count;
using relacy_word = rl::atomic<std::uint32_t>;
using relacy_clock = rl::sync_var<fibers>;
using relacy_variable = rl::var<int>;

struct fiber {
  const char* stack_top = nullptr;  // where it was last left
  const char* stack_end = nullptr;
  bool is_parked = false;
  bool is_in_pause = false;
  bool has_vanished = false;
  jmp_buf exit;
};

rl::vector<std::string_view>::type state_parts;
std::array<fiber, thread_count> threads;
rl::vector<word*>::type words;
bool has_begun = false;
bool is_state_search = false;              // which knows no memory orders
rl::set<std::uint64_t>::type seen_states;  // their hashes

std::uint64_t mix(std::uint64_t hash, std::uint64_t value) {
  hash = (hash ^ value) * 0x9E3779B97F4A7C15U;
  return hash ^ (hash >> 29U);
}

std::uint64_t mix(std::uint64_t hash, std::string_view part) {
  return mix(hash, std::hash<std::string_view>()(part));
}

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
      is_known_ = !seen_states.insert(present_state()).second;
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
      hash = mix(hash, std::string_view(threads[i].stack_top, threads[i].stack_end));
    }
    std::uint64_t timed = 0;
    for (rl::thread_id_t i = 0; i < this->timed_thread_count_; ++i) {
      timed |= 1U << static_cast<unsigned>(this->timed_threads_[i]->index_);
    }
    hash = mix(hash, timed);
    for (const std::string_view part : state_parts) {
      hash = mix(hash, part);
    }
    return hash;
  }

  typename rl::vector<choice>::type choices_;
  std::size_t depth_ = 0;
  bool is_known_ = false;
};

struct suite : rl::test_suite<suite, fibers> {
  void before() {
    words.clear();
    has_begun = false;
    for (fiber& thread : threads) {
      thread.stack_top = thread.stack_end = nullptr;
      thread.is_parked = thread.has_vanished = false;
    }
    model::before();
    has_begun = true;
  }
  void thread(unsigned number);
  void after() { model::after(); }
};

// Values that returned calls have left on the stack are no part of a state.
[[gnu::noinline]] void clear_stack_below() {
  std::array<char, 4096> below;
  std::memset(below.data(), 0, below.size());
  asm volatile("" : : "r"(below.data()) : "memory");
}

[[gnu::noinline]] void run_from_here(unsigned number) {
  threads[number].stack_end = static_cast<const char*>(__builtin_frame_address(0));
  if (_setjmp(threads[number].exit) == 0) {
    run_thread(number);
  } else {
    end_words();
  }
  threads[number].stack_top = threads[number].stack_end = nullptr;
}

// Neither the scheduler's registers, which functions save, nor its old stack are part of a state.
void suite::thread(unsigned number) {
  clear_stack_below();
  asm volatile(
      "xor %%ebx, %%ebx; xor %%r12d, %%r12d; xor %%r13d, %%r13d; xor %%r14d, %%r14d; "
      "xor %%r15d, %%r15d"
      :
      :
      : "rbx", "r12", "r13", "r14", "r15", "cc");
  run_from_here(number);
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

void leave_if_vanished() {
  if (threads[self()].has_vanished) {
    _longjmp(threads[self()].exit, 1);
  }
}

// The caller's frame then holds the callee-saved registers.
#define NOTE_STACK()       \
  __builtin_unwind_init(); \
  threads[self()].stack_top = static_cast<const char*>(__builtin_frame_address(0)) - 5 * 8

}  // namespace

void end_words() {
  std::erase_if(words, [](word* each) {
    const bool ends = each->owner_ == self();
    if (ends) {
      relacy(each->atomic_).~relacy_word();
    }
    return ends;
  });
}

void add_state(const void* begin, std::size_t size) {
  state_parts.emplace_back(static_cast<const char*>(begin), size);
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
    if (i != self() && threads[i].stack_end != nullptr) {
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
    words.push_back(this);
  }
}

word::~word() {
  if (!is_state_search) {
    std::erase(words, this);
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
  return replace(value, order);
}

std::uint32_t word::add(std::uint32_t count, std::memory_order order) {
  step();
  return replace(value_ + count, order);
}

// From then on the calling thread sees nothing older.
std::uint32_t word::latest() { return replace(value_, std::memory_order::relaxed); }

std::uint32_t word::replace(std::uint32_t value, std::memory_order order) {
  if (!is_state_search) {
    rl::preemption_disabler whole(rl::ctx());
    relacy(atomic_).exchange(value, order_of(order), RL_INFO);
  }
  return std::exchange(value_, value);
}

bool word::compare_exchange_strong(std::uint32_t& expected, std::uint32_t value,
                                   std::memory_order order) {
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
    has_passed = run<state_scheduler<fibers>>(params);
    std::cout << seen_states.size() << " states, ";
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
