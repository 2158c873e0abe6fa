// Model of calls that share a connection: the library's own pipeline.cpp and forking.cpp, with a
// scripted server as the peer. The search looks for an order of steps that loses a wake-up, gives a
// call another's reply, accesses a call that has returned, or leaks something.
//
//   pipeline_model SCENARIO states|bound|random [LIMIT]
//   pipeline_model names
#include "library.h"

// NOLINTNEXTLINE(bugprone-suspicious-include): compiled against the model
#include "forking.cpp"
// NOLINTNEXTLINE(bugprone-suspicious-include)
#include PIPELINE_SOURCE

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <iostream>

std::chrono::nanoseconds time_now{};

namespace {

using std::chrono::seconds;

constexpr unsigned calls_per_thread = 2;
constexpr unsigned max_calls = model::thread_count * calls_per_thread;
constexpr std::chrono::nanoseconds begin_of_time = seconds(1000);

// Events that may happen in an execution, with an upper bound for each.
struct events {
  unsigned breaks = 0;      // the server closes a connection, before or after it runs a command
  unsigned refusals = 0;    // of a new connection
  unsigned rejections = 0;  // a reply says that the server will not serve
  unsigned partials = 0;    // the socket takes only part of a write
  unsigned delays = 0;      // a reply, or the second send, comes after the deadline
  unsigned forks = 0;       // thread 0 continues in a child
};

struct scenario {
  const char* name;
  unsigned threads;
  unsigned calls;  // of each
  events may;
  unsigned with_deadline = 0;  // threads whose calls have one, as bits
  bool must_not_resend = false;
  bool is_check_due = false;
  bool has_socket_timeout = false;
  bool begins_broken = false;
};

constexpr std::array scenarios{
    scenario{"plain", 3, 2, {}},
    scenario{"pair", 2, 2, {}},
    scenario{"once", 3, 1, {}},
    scenario{"two", 2, 1, {}},
    scenario{"check", 3, 2, {}, 0, false, true},
    scenario{"partial", 3, 2, {.partials = 2}},
    scenario{"break", 3, 2, {.breaks = 1}},
    scenario{"breaks", 3, 1, {.breaks = 2}},
    scenario{"rejection", 3, 1, {.rejections = 1, .partials = 1}},
    scenario{"rejections", 3, 1, {1, 1, 2, 1, 1}, 3},
    scenario{"no_resend", 3, 2, {.breaks = 1}, 0, true, true},
    scenario{"rebuild", 3, 2, {.breaks = 1, .refusals = 1}, 0, false, false, false, true},
    scenario{"deadline", 3, 2, {.delays = 1}, 1},
    scenario{"deadlines", 3, 1, {.partials = 1, .delays = 2}, 7},
    scenario{"deadline_break", 3, 1, {.breaks = 1, .refusals = 1, .partials = 1}, 3},
    scenario{"silent", 3, 2, {.delays = 2}, 3},
    scenario{"timeout", 3, 1, {.delays = 1}, 0, false, false, true},
    scenario{"fork", 3, 2, {.forks = 1}},
    scenario{"fork_break", 3, 1, {.breaks = 1, .forks = 1}},
};
const scenario* chosen = nullptr;

// ---- The state of an execution ----

struct peer {
  redisContext context{};
  bool is_open = false;
  bool is_closed = false;   // by the server, or shut down
  bool is_foreign = false;  // of the parent of a fork
  bool is_read = false;
  bool is_written = false;
  int waiter = -1;                             // thread that waits to read
  unsigned half_received = 0;                  // the command of which one byte has arrived
  std::array<std::uint8_t, max_calls> sent{};  // replies, by their calls
  std::array<std::uint8_t, max_calls> received{};
  unsigned sent_count = 0;
  unsigned received_count = 0;
  model::variable reader;
};

struct call_record {
  alignas(pipelined_call) std::array<unsigned char, sizeof(pipelined_call)> memory{};
  bool has_returned = false;
  unsigned arrivals = 0;  // at the server
};

// Where a thread sleeps: on a word, or before a lock.
struct sleeper {
  const void* place = nullptr;
  std::uint32_t bits = 0;
};
using sleepers = std::array<sleeper, model::thread_count>;

struct reply_slot {
  redisReply reply{};  // the first member: freeReplyObject gets its address
  bool is_used = false;
  model::variable content;
};

struct world {
  events left;
  unsigned breaks = 0;  // connections that were given up
  bool has_refused = false;
  bool has_forked = false;
  std::array<peer, 4> peers;
  std::array<reply_slot, max_calls + 1> replies;
  sleepers on_words;
  sleepers on_locks;
  std::array<std::aligned_storage_t<sizeof(model::word), alignof(model::word)>, ::sleep_words>
      sleep_words;
  std::array<call_record, max_calls> calls;
  std::aligned_storage_t<sizeof(ACE_Thread_Mutex), alignof(ACE_Thread_Mutex)> lock;
};
alignas(64) std::array<std::byte, (sizeof(world) + 63) / 64 * 64> world_memory;
world& current_world() { return *reinterpret_cast<world*>(world_memory.data()); }
ruvo_redis client;

server_node& server() { return client.t_pool_.servers_.front(); }
conn_node& slot() { return server().context_arr_.front(); }

void check(bool holds, const char* what) {
  if (!holds) {
    model::fail(what);
  }
}

bool happens(unsigned& left) {
  if (left == 0 || model::choose(2) == 0) {
    return false;
  }
  --left;
  return true;
}

bool comes_late(time_point until) {
  if (until == no_deadline || !happens(current_world().left.delays)) {
    return false;
  }
  pass_time_until(until);
  return true;
}

bool park_until(time_point until) {
  if (until == no_deadline) {
    return model::park(model::until::unparked);
  }
  const bool is_pause = until <= std::chrono::steady_clock::now() + write_pause;
  if (model::park(is_pause ? model::until::pause : model::until::deadline)) {
    return true;
  }
  pass_time_until(until);
  return false;
}

bool sleep_in(sleepers& all, sleeper here, time_point until) {
  all[model::self()] = here;
  const bool is_woken = park_until(until);
  if (!is_woken) {
    all[model::self()] = {};
  }
  return is_woken;
}

void wake_in(sleepers& all, sleeper whom) {
  for (unsigned i = 0; i < all.size(); ++i) {
    if (all[i].place == whom.place && (all[i].bits & whom.bits) != 0) {
      all[i] = {};
      model::unpark(i);
    }
  }
}

}  // namespace

// ---- The library's waits ----

bool model_mutex::lock(time_point until) {
  model::step();
  check(owner != static_cast<int>(model::self()), "a lock is taken twice");
  while (owner != -1) {
    if (!sleep_in(current_world().on_locks, {this, any_sleeper}, until)) {
      return false;
    }
  }
  owner = static_cast<int>(model::self());
  order.acquire();
  return true;
}

bool model_mutex::try_lock() {
  model::step();
  if (owner != -1) {
    return false;
  }
  owner = static_cast<int>(model::self());
  order.acquire();
  return true;
}

void model_mutex::unlock() {
  check(owner == static_cast<int>(model::self()), "a lock is released by a thread without it");
  order.release();
  owner = -1;
  wake_in(current_world().on_locks, {this, any_sleeper});
}

bool sleep_on(const void* word, std::uint32_t value, time_point until, std::uint32_t bits) {
  model::step();
  if (until <= std::chrono::steady_clock::now()) {
    return false;
  }
  return model_sleep_word(word)->latest() != value ||
         sleep_in(current_world().on_words, {word, bits}, until);
}

void wake(const void* word, std::uint32_t bits) {
  model::step();
  wake_in(current_world().on_words, {word, bits});
}

model::word* model_sleep_word(const void* address) {
  const auto& words = slot().pipeline_.words;
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (&words[i] == address) {
      return &reinterpret_cast<model::word&>(current_world().sleep_words[i]);
    }
  }
  return nullptr;
}

// ---- The connection ----

namespace {

peer& peer_of(const redisContext& context) {
  return current_world().peers.at(static_cast<std::size_t>(context.fd));
}

class exclusive_use {
 public:
  exclusive_use(bool& flag, const char* what) : flag_(flag) {
    check(!std::exchange(flag, true), what);
  }
  ~exclusive_use() { flag_ = false; }
  exclusive_use(const exclusive_use&) = delete;
  exclusive_use& operator=(const exclusive_use&) = delete;

 private:
  bool& flag_;
};

peer& used_peer(const redisContext& context) {
  peer& peer = peer_of(context);
  check(peer.is_open, "a connection is used that has been closed");
  check(!peer.is_foreign, "the child uses its parent's connection");
  return peer;
}

void wake_reader(peer& peer) {
  if (peer.waiter >= 0) {
    model::unpark(static_cast<unsigned>(std::exchange(peer.waiter, -1)));
  }
}

void close_peer(peer& peer) {
  peer.is_closed = true;
  wake_reader(peer);
}

// The server closes the connection.
bool breaks(peer& peer) {
  if (peer.is_closed || !happens(current_world().left.breaks)) {
    return false;
  }
  model::note("the server closes connection", peer.context.fd);
  close_peer(peer);
  return true;
}

redisContext* open_peer() {
  for (peer& peer : current_world().peers) {
    if (!peer.is_open && peer.context.fd == -1) {
      peer.context.fd = static_cast<int>(&peer - current_world().peers.data());
      peer.is_open = true;
      peer.reader.construct();
      return &peer.context;
    }
  }
  model::fail("too many connections");
}

void receive_byte(peer& peer, std::uint8_t byte) {
  if (peer.half_received == 0) {
    peer.half_received = byte;
    return;
  }
  check(std::exchange(peer.half_received, 0) == byte, "the bytes of commands are mixed");
  ++current_world().calls.at(byte - 1U).arrivals;
  peer.sent.at(peer.sent_count++) = byte;
  wake_reader(peer);
}

constexpr std::array<char, 2 * max_calls> command_bytes = [] {
  std::array<char, 2 * max_calls> bytes{};
  for (unsigned i = 0; i < bytes.size(); ++i) {
    bytes[i] = static_cast<char>(i / 2 + 1);
  }
  return bytes;
}();

}  // namespace

int model_shutdown(int number, int) {
  close_peer(current_world().peers.at(static_cast<std::size_t>(number)));
  return 0;
}

ssize_t send_some(const redisContext& context, std::span<iovec> bytes) {
  check(!bytes.empty(), "nothing is written");
  peer& peer = used_peer(context);
  const exclusive_use writes(peer.is_written, "two threads write");
  model::step();
  if (peer.is_closed || breaks(peer)) {
    errno = EPIPE;
    return -1;
  }
  std::size_t size = 0;
  for (const iovec& part : bytes) {
    size += part.iov_len;
  }
  if (current_world().left.partials > 0) {
    const unsigned less = model::choose(static_cast<unsigned>(size) + 1);
    current_world().left.partials -= less > 0 ? 1 : 0;
    size -= less;
  }
  std::size_t left = size;
  for (const iovec& part : bytes) {
    for (std::size_t i = 0; i < part.iov_len && left > 0; ++i, --left) {
      receive_byte(peer, static_cast<const std::uint8_t*>(part.iov_base)[i]);
    }
  }
  model::note("sends bytes:", static_cast<int>(size));
  return static_cast<ssize_t>(size);
}

wait_end wait_for_peer(const redisContext& context, short events, time_point until) {
  peer& peer = used_peer(context);
  model::step();
  if (events == POLLIN && !peer.is_closed && peer.sent_count == 0) {
    check(until != no_deadline, "a check has no end");
    pass_time_until(until);
    return wait_end::timed_out;
  }
  return comes_late(until) ? wait_end::timed_out : wait_end::ready;
}

wait_end receive_some(redisContext& context, std::chrono::microseconds socket_timeout,
                      time_point until) {
  peer& peer = used_peer(context);
  const exclusive_use reads(peer.is_read, "two threads read");
  model::step();
  if (socket_timeout.count() > 0) {
    until = std::min(until, std::chrono::steady_clock::now() + socket_timeout);
  }
  while (peer.sent_count == 0 && !peer.is_closed && !breaks(peer)) {
    peer.waiter = static_cast<int>(model::self());
    if (!park_until(until)) {
      peer.waiter = -1;
      return wait_end::timed_out;
    }
  }
  peer.reader.write();
  if (peer.sent_count > 0 && comes_late(until)) {
    return wait_end::timed_out;
  }
  if (peer.sent_count == 0 || breaks(peer)) {
    peer.sent_count = 0;
    set_error(context, closed_error());
    return wait_end::broken;
  }
  const unsigned count = peer.sent_count - model::choose(peer.sent_count);
  for (unsigned i = 0; i < count; ++i) {
    peer.received.at(peer.received_count++) = peer.sent[i];
  }
  std::copy(&peer.sent[count], &peer.sent[peer.sent_count], peer.sent.begin());
  peer.sent_count -= count;
  model::note("receives replies:", static_cast<int>(count));
  return wait_end::ready;
}

reply_ptr next_reply(redisContext& context) {
  peer& peer = used_peer(context);
  peer.reader.write();
  if (peer.received_count == 0) {
    return nullptr;
  }
  for (reply_slot& slot : current_world().replies) {
    if (!std::exchange(slot.is_used, true)) {
      slot.reply.integer = peer.received.front();
      std::copy(&peer.received[1], &peer.received[peer.received_count], peer.received.begin());
      --peer.received_count;
      slot.content.construct();
      slot.content.write();
      return reply_ptr(&slot.reply);
    }
  }
  model::fail("replies are leaked");
}

connection_error check_unused(const redisContext& context) {
  peer& peer = used_peer(context);
  model::step();
  return peer.is_closed || breaks(peer)
             ? closed_error()
             : (peer.sent_count > 0 ? out_of_step_error() : connection_error());
}

void break_if_out_of_step(redisContext& context) {
  peer& peer = used_peer(context);
  peer.reader.write();
  if (peer.received_count > 0) {
    set_error(context, out_of_step_error());
  }
}

void replace_context(conn_node& slot, context_ptr context) {
  context_ptr old(std::exchange(slot.context_, context.release()));
  ++slot.rebuilds_;
  slot.awaits_first_reply_ = true;
  if (std::exchange(slot.was_used_at_fork_, false)) {
    static_cast<void>(old.release());
  }
}

void redisFree(redisContext* context) {
  peer& peer = peer_of(*context);
  check(peer.is_open && !peer.is_read && !peer.is_written, "a connection is freed in use");
  peer.is_open = false;
  peer.reader.destroy();
  ++current_world().breaks;
}

void freeReplyObject(void* reply) {
  auto& slot = *static_cast<reply_slot*>(reply);
  check(std::exchange(slot.is_used, false), "a reply is freed twice");
  slot.content.read();
  slot.content.destroy();
}

void redisFreeCommand(char*) {}

connection_error::connection_error(int error_code, const char*) : connection_error() {
  code = error_code;
}
connection_error system_error(int) { return {REDIS_ERR_IO, ""}; }
connection_error closed_error() { return {REDIS_ERR_EOF, ""}; }
connection_error timeout_error() { return {REDIS_ERR_IO, ""}; }
connection_error deadline_error() { return {REDIS_ERR_IO, ""}; }
connection_error out_of_step_error() { return {REDIS_ERR_PROTOCOL, ""}; }
void set_error(redisContext& context, const connection_error& error) { context.err = error.code; }

wire_command::wire_command(const char* bytes, va_list) : length_(2) {
  bytes_.reset(const_cast<char*>(bytes));
}
void wire_command::report_refusal(redisContext& context) const {
  set_error(context, {REDIS_ERR_OTHER, ""});
}
wire_command format_command(const char* format, ...) {
  va_list none;
  va_start(none, format);
  wire_command command(format, none);
  va_end(none);
  return command;
}

// ---- The threads ----

namespace {

constexpr unsigned char gone = 0xA5;

// In the child: whatever the other threads were doing stays unfinished.
void fork_here() {
  model::note("forks in thread", static_cast<int>(model::self()));
  model::step();
  model::end_others([] {
    world& world = current_world();
    world.on_words = world.on_locks = {};
    for (peer& peer : world.peers) {
      peer.is_foreign = peer.is_open;
      peer.waiter = -1;
    }
    for (call_record& call : world.calls) {
      call.arrivals = 0;
    }
    world.has_forked = true;
    client.disown_connections();
    for (auto& word : world.sleep_words) {
      reinterpret_cast<model::word&>(word).store(0, std::memory_order_relaxed);
    }
  });
}

void may_fork() {
  if (model::self() == 0 && happens(current_world().left.forks)) {
    fork_here();
  }
}

class model_rebuilder final : public rebuilder {
 public:
  context_ptr rebuild() override {
    model::step();
    if (happens(current_world().left.refusals)) {
      current_world().has_refused = true;
      return nullptr;
    }
    may_fork();
    context_ptr fresh(open_peer());
    model::note("opens connection", fresh->fd);
    may_fork();
    return fresh;
  }
};

void check_end(send_end end, unsigned number, const pipelined_call& call, time_point deadline,
               bool is_last) {
  switch (end) {
    case send_end::replied:
      check(call.reply()->integer == number, "a call gets another's reply");
      return;
    case send_end::out_of_time:
      check(std::chrono::steady_clock::now() >= deadline, "a call ends before its deadline");
      return;
    case send_end::rebuild_failed:
      check(current_world().has_refused, "a call tells of a rebuild that did not fail");
      return;
    case send_end::unanswered: {
      const unsigned broken = current_world().breaks + (slot().context_->err != 0 ? 1U : 0U) +
                              (current_world().has_forked ? 1U : 0U);
      check(broken > 0, "a call is unanswered on a sound connection");
      check(!is_last || broken > 1 || chosen->must_not_resend, "a call is lost with one break");
      return;
    }
    case send_end::lock_failed:
      model::fail("the lock has failed");
  }
}

void make_call(unsigned number) {
  world& world = current_world();
  call_record& record = world.calls[number - 1];
  wire_command wire = format_command(&command_bytes[2 * (number - 1)]);
  send_terms terms;
  terms.must_not_resend = chosen->must_not_resend;
  if ((chosen->with_deadline >> model::self() & 1U) != 0) {
    terms.limits.deadline = time_point(begin_of_time + seconds(number));
  }
  if (chosen->has_socket_timeout) {
    terms.limits.socket_timeout = std::chrono::milliseconds(300);
  }
  auto* call = new (record.memory.data()) pipelined_call(server(), slot(), wire, terms);
  send_end end = call->send();
  const bool may_have_run = chosen->must_not_resend && call->outcome().was_sent;
  bool sends_again = end == send_end::unanswered && !may_have_run;
  check_end(end, number, *call, terms.limits.deadline, !sends_again);
  if (end == send_end::replied && happens(world.left.rejections)) {
    call->take_reply().reset();
    call->give_up("");
    sends_again = true;
  }
  if (sends_again) {
    may_fork();
    comes_late(terms.limits.deadline);
    model_rebuilder rebuilder;
    end = call->send_again(rebuilder);
    check_end(end, number, *call, terms.limits.deadline, true);
  }
  call->take_reply().reset();
  call->~pipelined_call();
  record.memory.fill(gone);
  record.has_returned = true;
}

}  // namespace

void model::before() {
  time_now = begin_of_time;
  std::memset(world_memory.data(), 0, world_memory.size());
  world& world = *new (world_memory.data())::world();
  world.left = chosen->may;
  for (peer& peer : world.peers) {
    peer.context.fd = -1;
  }
  conn_node& slot = ::slot();
  std::memset(static_cast<void*>(&slot), 0, sizeof slot);
  new (&slot) conn_node;
  slot.lock_ = new (&world.lock) ACE_Thread_Mutex;
  for (auto& word : world.sleep_words) {
    new (&word) model::word(0);
  }
  slot.context_ = open_peer();
  slot.context_->err = chosen->begins_broken ? REDIS_ERR_EOF : 0;
  slot.pipeline_.last_check = chosen->is_check_due ? time_point() : time_point(begin_of_time);
}

void model::run_thread(unsigned thread) {
  for (unsigned i = 0; thread < chosen->threads && i < chosen->calls; ++i) {
    may_fork();
    make_call(thread * calls_per_thread + i + 1);
  }
}

void model::after() {
  world& world = current_world();
  const pipeline_state& state = slot().pipeline_;
  check(state.unsent.empty() && state.alone.empty() && state.in_flight.empty(), "a call is left");
  check(!state.is_reading && !state.is_writing && !state.is_rebuilding, "a duty is left");
  const bool is_sound = chosen->may.breaks + chosen->may.partials + chosen->may.forks == 0 &&
                        !chosen->has_socket_timeout && !chosen->begins_broken;
  check(!is_sound || (world.breaks == 0 && slot().context_->err == 0), "a sound connection breaks");
  check(state.users == (state.replies_to_skip > 0 ? 1U : 0U), "a user is left");
  for (const call_record& call : world.calls) {
    check(call.arrivals <= (chosen->must_not_resend ? 1U : 2U), "a command is sent too often");
    check(!call.has_returned ||
              std::ranges::all_of(call.memory, [](unsigned char byte) { return byte == gone; }),
          "a call is written to after it has returned");
  }
  for (reply_slot& slot : world.replies) {
    check(!slot.is_used || world.has_forked, "a reply is leaked");
    if (slot.is_used) {
      slot.content.destroy();
    }
  }
  for (auto& word : world.sleep_words) {
    reinterpret_cast<model::word&>(word).~word();
  }
  for (peer& peer : world.peers) {
    check(!peer.is_open || &peer.context == slot().context_ || world.has_forked,
          "a connection is leaked");
    if (peer.is_open) {
      peer.reader.destroy();
    }
  }
}

int main(int argc, char** argv) {
  const std::span arguments(argv, static_cast<std::size_t>(argc));
  const bool lists_names = argc == 2 && std::string_view(arguments[1]) == "names";
  for (const scenario& each : scenarios) {
    if (lists_names) {
      std::cout << each.name << '\n';
    } else if (argc >= 3 && std::string_view(each.name) == arguments[1]) {
      chosen = &each;
    }
  }
  if (lists_names) {
    return 0;
  }
  if (chosen == nullptr) {
    std::cerr << "usage: pipeline_model SCENARIO states|bound|random [LIMIT]\n";
    return 2;
  }
  client.t_pool_.servers_.resize(1);
  server().context_arr_.resize(1);
  model::add_state(&time_now, sizeof time_now);
  model::add_state(world_memory.data(), world_memory.size());
  model::add_state(&slot(), sizeof(conn_node));
  const unsigned limit = argc > 3 ? static_cast<unsigned>(std::atoi(arguments[3])) : 0;
  return model::search(arguments[2], limit) ? 0 : 1;
}
