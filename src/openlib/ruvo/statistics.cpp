// The statistics file: created under another name, mapped, renamed into place.
#include "statistics.h"

#include <fcntl.h>
#include <hiredis/hiredis.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <system_error>
#include <utility>

#include "log_line.h"
#include "server_pool.h"

// The counters of one lane share no cache line with those of another.
constexpr std::size_t cache_line = 64;
static_assert(sizeof(ruvo_stats_header) % cache_line == 0);
static_assert(sizeof(pool_stats) % cache_line == 0);
static_assert(sizeof(server_stats) % cache_line == 0);
static_assert(sizeof(ruvo_pool_counters) % cache_line == 0);
static_assert(sizeof(server_counters) % cache_line == 0);
static_assert(offsetof(pool_stats, lanes) % cache_line == 0);
static_assert(offsetof(server_stats, lanes) % cache_line == 0);
static_assert(std::atomic_ref<std::uint64_t>::is_always_lock_free);

namespace {

// The lanes that threads of this process have taken; nobody owns the first one. Only the process
// that made a file may hand them out: a forked child would store to the same ones.
std::atomic<std::uint64_t> taken_lanes{1};
std::atomic<bool> hands_out_lanes{false};
static_assert(RUVO_STATS_LANES == 64, "a bit for each");

void release_lane() noexcept {
  taken_lanes.fetch_and(~(std::uint64_t{1} << std::exchange(stats_lane, 0U)) | 1U,
                        std::memory_order_release);
}

// Detects the end of a thread. If memory for that runs out, pthread_setspecific reports it, which
// the registration of a thread_local object's destructor does not.
class thread_end_key {
 public:
  thread_end_key() : is_made_(pthread_key_create(&key_, [](void*) { release_lane(); }) == 0) {}
  ~thread_end_key() {
    if (is_made_) {
      pthread_key_delete(key_);
    }
  }
  thread_end_key(const thread_end_key&) = delete;
  thread_end_key& operator=(const thread_end_key&) = delete;

  bool set() noexcept { return is_made_ && pthread_setspecific(key_, this) == 0; }

 private:
  pthread_key_t key_{};
  bool is_made_;
};

void share_lane_in_child() {
  hands_out_lanes.store(false);
  taken_lanes.store(1);
  stats_lane = 0;
}

// Lets this process hand out lanes until its next fork.
void hand_out_lanes() {
  static const int registered = pthread_atfork(nullptr, nullptr, share_lane_in_child);
  hands_out_lanes.store(registered == 0);
}

class file_descriptor {
 public:
  explicit file_descriptor(int fd) : fd_(fd) {}
  ~file_descriptor() {
    if (fd_ != -1) {
      close(fd_);
    }
  }
  file_descriptor(const file_descriptor&) = delete;
  file_descriptor& operator=(const file_descriptor&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

std::string with_process_id(std::string path) {
  const std::string id = std::to_string(getpid());
  for (std::size_t at = path.find("%p"); at != std::string::npos;
       at = path.find("%p", at + id.size())) {
    path.replace(at, 2, id);
  }
  return path;
}

// A unique name beside the file.
std::string make_temporary_name(const std::string& path) {
  return path + "." + std::to_string(getpid()) + "." +
         std::to_string(std::chrono::steady_clock::now().time_since_epoch().count());
}

// Creates a file of `size` bytes and maps it. Its blocks are reserved: on a full disk, a store to a
// page without one would kill the host. Returns null with errno set on failure.
void* make_mapped_file(const char* name, std::size_t size) {
  const file_descriptor file(
      open(name, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0644));  // NOLINT: variadic
  if (file.get() == -1) {
    return nullptr;
  }
  const int error = posix_fallocate(file.get(), 0, static_cast<off_t>(size));
  if (error != 0) {
    errno = error;
    return nullptr;
  }
  void* mapping = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
  return mapping != MAP_FAILED ? mapping : nullptr;
}

const char* name_of(RedisServerType type) {
  switch (type) {
    case ePersistServer:
      return "persist";
    case ePersonalityServer:
      return "personality";
    default:
      return "temp";
  }
}

template <std::size_t size>
void copy_text(char (&to)[size], const std::string& text) {  // NOLINT: the layout is C's
  std::memcpy(to, text.data(), std::min(text.size(), size - 1));
}

}  // namespace

void claim_stats_lane() noexcept {
  static thread_end_key at_thread_end;
  std::uint64_t taken = taken_lanes.load(std::memory_order_relaxed);
  while (hands_out_lanes.load(std::memory_order_relaxed) && ~taken != 0) {
    const auto lane = static_cast<std::uint32_t>(std::countr_one(taken));
    if (taken_lanes.compare_exchange_weak(taken, taken | (std::uint64_t{1} << lane),
                                          std::memory_order_acquire, std::memory_order_relaxed)) {
      stats_lane = lane;
      if (!at_thread_end.set()) {
        release_lane();
      }
      return;
    }
  }
}

ruvo_stats_result result_of(int code) noexcept {
  switch (code) {
    case RUVO_OK:
      return RUVO_STATS_OK;
    case RUVO_ABSENT:
    case RUVO_ERR_NOT_FOUND:
      return RUVO_STATS_ABSENT;
    case RUVO_NOTHING_DONE:
      return RUVO_STATS_NOTHING_DONE;
    case RUVO_ERR_FAILED:
      return latest_cause;
    case RUVO_ERR_NULL_ARGUMENT:
      return RUVO_STATS_BAD_ARGUMENT;
    case RUVO_ERR_NO_MEMORY:
      return RUVO_STATS_NO_MEMORY;
    default:
      return RUVO_STATS_OTHER_FAILURE;
  }
}

void call_timer::end(const void* raw_reply) noexcept {
  const auto* const reply = static_cast<const redisReply*>(raw_reply);
  if (reply != nullptr && reply->type == REDIS_REPLY_ERROR) {
    note_cause(RUVO_STATS_ERROR_REPLY);
  }
  if (reply == nullptr || reply->type == REDIS_REPLY_ERROR) {
    end(RUVO_ERR_FAILED);
  } else {
    end(reply->type == REDIS_REPLY_NIL ? RUVO_ERR_NOT_FOUND : RUVO_OK);
  }
}

bool statistics_file::begin(const std::string& path, std::span<const counted_pool> pools) {
  end();
  // A tool that starts with a host's configuration must not replace the host's file.
  if (std::getenv("RUVO_NO_STATS_FILE") != nullptr) {  // NOLINT: before there are other threads
    return false;
  }
  const std::string name = with_process_id(path);
  const std::string temporary_name = make_temporary_name(name);
  const bool is_made = make(temporary_name.c_str(), pools);
  if (is_made && rename(temporary_name.c_str(), name.c_str()) == 0) {
    hand_out_lanes();
    return true;
  }
  const int error = errno;
  unlink(temporary_name.c_str());
  end();
  RUVO_LOG(ERROR, "ruvo_redis::init | cannot make stats_file %s: %s, left out", name.c_str(),
           std::generic_category().message(error).c_str());
  return false;
}

// Returns false with errno set on failure.
bool statistics_file::make(const char* name, std::span<const counted_pool> pools) {
  std::size_t servers = 0;
  for (const counted_pool& one : pools) {
    servers += one.pool.servers_.size();
  }
  const std::size_t size = sizeof(ruvo_stats_header) + pools.size() * sizeof(pool_stats) +
                           servers * sizeof(server_stats);
  void* const mapping = make_mapped_file(name, size);
  if (mapping == nullptr) {
    return false;
  }
  std::memset(mapping, 0, size);  // maps every page, so that no call waits for one
  head_ = static_cast<ruvo_stats_header*>(mapping);
  std::memcpy(head_->magic, RUVO_STATS_MAGIC, sizeof head_->magic);
  head_->version = RUVO_STATS_VERSION;
  head_->header_size = sizeof(ruvo_stats_header);
  head_->pool_size = sizeof(pool_stats);
  head_->server_size = sizeof(server_stats);
  head_->pool_count = static_cast<std::uint32_t>(pools.size());
  head_->bucket_count = RUVO_STATS_BUCKETS;
  head_->lane_count = RUVO_STATS_LANES;
  head_->file_size = size;
  head_->process_id = getpid();
  head_->start_time = std::chrono::duration_cast<std::chrono::nanoseconds>(
                          std::chrono::system_clock::now().time_since_epoch())
                          .count();
  for (std::uint32_t i = 0; i < pools.size(); ++i) {
    describe(i, pools[i]);
  }
  std::atomic_ref(head_->state).store(RUVO_STATS_LIVE, std::memory_order_release);
  return true;
}

void statistics_file::describe(std::uint32_t number, const counted_pool& from) {
  const server_pool& settings = from.pool;
  pool_stats& to = *pool(number);
  copy_text(to.name, name_of(from.type));
  to.type = static_cast<std::uint32_t>(from.type);
  to.first_server = head_->server_count;
  to.server_count = static_cast<std::uint32_t>(settings.servers_.size());
  to.connections = from.connections;
  to.ejects_servers = settings.auto_eject_ ? 1 : 0;
  to.failure_limit = settings.failure_limit_;
  to.retry_timeout = settings.retry_timeout_;
  head_->server_count += to.server_count;
  for (std::uint32_t i = 0; i < to.server_count; ++i) {
    server_stats& server_to = *server(number, i);
    copy_text(server_to.address, settings.servers_[i].addr_.ip_);
    server_to.port = settings.servers_[i].addr_.port_;
    server_to.pool = number;
    server_to.position = i;
  }
}

void statistics_file::end() noexcept {
  ruvo_stats_header* const head = std::exchange(head_, nullptr);
  if (head == nullptr) {
    return;
  }
  if (head->process_id == getpid()) {  // a forked child does not end its parent's file
    std::atomic_ref(head->state).store(RUVO_STATS_ENDED, std::memory_order_release);
  }
  munmap(head, head->file_size);
}

pool_stats* statistics_file::pool(std::size_t number) noexcept {
  return head_ == nullptr ? nullptr
                          : const_cast<pool_stats*>(  // NOLINT: stats.h is for readers
                                ruvo_stats_pool(head_, static_cast<std::uint32_t>(number)));
}

server_stats* statistics_file::server(std::size_t pool_number, std::size_t position) noexcept {
  if (head_ == nullptr) {
    return nullptr;
  }
  const std::size_t number = pool(pool_number)->first_server + position;
  return const_cast<server_stats*>(  // NOLINT: the same
      ruvo_stats_server(head_, static_cast<std::uint32_t>(number)));
}
