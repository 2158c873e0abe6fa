// The child of a fork uses none of the connections that it shares with its parent, or the two would
// read each other's replies.
#include <pthread.h>

#include <new>

#include "connection.h"
#include "log_line.h"
#include "ruvo_redis.h"

namespace {

std::atomic<ruvo_redis*> watched{nullptr};

void in_child() {
  if (ruvo_redis* client = watched.load()) {
    client->disown_connections();
  }
}

}  // namespace

void ruvo_redis::watch_forks() {
  static const int registered = pthread_atfork(nullptr, nullptr, in_child);
  if (registered == 0) {
    watched.store(this);
  } else {
    RUVO_LOG(ERROR, "ruvo_redis::init | a child of this process would share its connections");
  }
}

void ruvo_redis::forget_forks() {
  ruvo_redis* self = this;
  watched.compare_exchange_strong(self, nullptr);
}

// Only the forking thread is left, and it may not allocate. If another thread held a slot's lock,
// or was reading or writing its connection, the context may be half changed: the slot is marked, so
// that the context is never freed.
void ruvo_redis::disown_connections() noexcept {
  for (server_pool* pool : {&t_pool_, &p_pool_, &personality_pool_}) {
    new (&pool->outage_) pool_outage;
    for (server_node& server : pool->servers_) {
      server.probe_ = server_probe();
      for (conn_node& slot : server.context_arr_) {
        const pipeline_state& state = slot.pipeline_;
        slot.was_used_at_fork_ = slot.was_used_at_fork_ || state.is_reading || state.is_writing ||
                                 slot.lock_->tryacquire() == -1;
        new (slot.lock_) ACE_Thread_Mutex;
        const std::uint64_t forks = state.forks + 1;
        slot.pipeline_ = pipeline_state{};
        slot.pipeline_.forks = forks;
        if (slot.context_ != nullptr) {
          set_error(*slot.context_, {REDIS_ERR_EOF, "the process has forked"});
        }
      }
    }
  }
}
