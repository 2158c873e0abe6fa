// Calls that share a connection over a socket pair. At its other end a server follows the input: it
// cuts and delays its replies, which may be of any type, sends stray bytes, hangs or closes. No
// call gets another's reply unless stray bytes were sent on its connection, every call ends by its
// deadline, and afterwards the slot serves again.
#include <fuzzer/FuzzedDataProvider.h>
#include <sys/socket.h>

#include <algorithm>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "connection.h"
#include "pipeline.h"
#include "require.h"
#include "server_pool.h"

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using clock_type = std::chrono::steady_clock;

constexpr milliseconds socket_timeout{10};
constexpr std::chrono::seconds late{3};  // beyond the deadline, on a machine under load

class Server {
 public:
  Server(const std::uint8_t* data, std::size_t size) : script_(data, size) {}

  context_ptr connect() {
    std::array<int, 2> ends{};
    require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) == 0, "there is a socket pair");
    constexpr int small = 4096;  // so that large commands are written in parts
    setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
    const std::scoped_lock lock(mutex_);
    const long number = next_number_++;
    connections_.emplace_back([this, number, fd = ends[1]] { serve(number, fd); });
    context_ptr context(redisConnectFd(ends[0]));
    redisSetTimeout(context.get(), {0, microseconds(socket_timeout).count()});
    return context;
  }

  // A number of the script, from 0 to `most`; 0 once the script has ended.
  unsigned choose(unsigned most) {
    const std::scoped_lock lock(mutex_);
    return script_.ConsumeIntegralInRange(0U, most);
  }

  // From now on every command is answered.
  void end_script() {
    const std::scoped_lock lock(mutex_);
    script_.ConsumeRemainingBytes<char>();
  }

  // Were stray bytes sent on this connection? -1: on any.
  bool has_sent_noise(long connection) {
    const std::scoped_lock lock(mutex_);
    return connection < 0 ? !noisy_.empty() : noisy_.contains(connection);
  }

 private:
  void serve(long number, int fd) {
    redisReader* const commands = redisReaderCreate();
    std::vector<char> bytes(std::size_t{16} << 10U);
    bool hangs = false;
    for (bool goes_on = true; goes_on;) {
      const ssize_t count = recv(fd, bytes.data(), bytes.size(), 0);
      goes_on = count > 0;
      void* command = nullptr;
      if (goes_on && !hangs) {
        redisReaderFeed(commands, bytes.data(), static_cast<std::size_t>(count));
      }
      while (goes_on && !hangs && redisReaderGetReply(commands, &command) == REDIS_OK &&
             command != nullptr) {
        const reply_ptr owner(static_cast<redisReply*>(command));
        std::string reply = "*3\r\n$5\r\n" + std::string(owner->element[1]->str, 5) +
                            "\r\n:" + std::to_string(number) + "\r\n";
        switch (choose(15)) {
          case 1:
            goes_on = false;
            break;
          case 2:
            hangs = true;
            break;
          case 3:
            reply = noise(number);
            [[fallthrough]];
          default:
            append_value(reply, 0);
            goes_on = send_in_pieces(fd, reply);
        }
      }
    }
    redisReaderFree(commands);
    close(fd);
  }

  std::string noise(long connection) {
    const std::scoped_lock lock(mutex_);
    noisy_.insert(connection);
    return script_.ConsumeRandomLengthString(40);
  }

  void append_value(std::string& reply, int depth) {
    static const std::array<const char*, 16> values{"+OK\r\n",
                                                    ":7\r\n",
                                                    "-ERR no\r\n",
                                                    "$-1\r\n",
                                                    "*-1\r\n",
                                                    "*0\r\n",
                                                    "_\r\n",
                                                    "#t\r\n",
                                                    ",1.5\r\n",
                                                    "(12345678901234567890\r\n",
                                                    "%1\r\n:1\r\n:2\r\n",
                                                    "~1\r\n:1\r\n",
                                                    "=7\r\ntxt:abc\r\n",
                                                    ">1\r\n+x\r\n",
                                                    "$999999999\r\n",
                                                    "*999999999\r\n"};
    switch (const unsigned kind = choose(20); kind) {
      case 17: {
        const std::string text(choose(20000), 'v');
        reply += "$" + std::to_string(text.size()) + "\r\n" + text + "\r\n";
        break;
      }
      case 18:
      case 19: {
        const unsigned elements = depth < 10 ? choose(4) : 0;
        reply += "*" + std::to_string(elements) + "\r\n";
        for (unsigned i = 0; i < elements; ++i) {
          append_value(reply, depth + 1);
        }
        break;
      }
      default:
        reply += values[kind % values.size()];
    }
  }

  // False if the other end has been closed.
  bool send_in_pieces(int fd, const std::string& bytes) {
    for (std::size_t sent = 0; sent < bytes.size();) {
      const unsigned cut = choose(64);
      const std::size_t length = std::min(bytes.size() - sent, std::size_t{cut} - (cut == 0));
      const ssize_t count = ::send(fd, bytes.data() + sent, length, MSG_NOSIGNAL);
      if (count <= 0) {
        return false;
      }
      sent += static_cast<std::size_t>(count);
      std::this_thread::sleep_for(microseconds(sent < bytes.size() ? choose(400) : 0));
    }
    return true;
  }

  std::mutex mutex_;  // guards all below but the threads
  FuzzedDataProvider script_;
  std::set<long> noisy_;
  long next_number_ = 0;
  std::vector<std::jthread> connections_;
};

class Client final : public rebuilder {
 public:
  explicit Client(Server& server) : server_(server) {
    node_.context_arr_.resize(1);
    slot().lock_ = new ACE_Thread_Mutex;
    slot().context_ = server_.connect().release();
  }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;
  ~Client() {
    replace_context(slot(), nullptr);
    delete slot().lock_;
  }

  context_ptr rebuild() override { return server_.choose(7) == 1 ? nullptr : server_.connect(); }

  // Returns whether it got a reply.
  bool get(unsigned number, std::size_t more, milliseconds limit, bool must_not_resend) {
    const time_point deadline = clock_type::now() + limit;
    const std::string padding(more, 'p');
    const wire_command wire =
        format_command("GET k%04u %b", number % 10000, padding.data(), padding.size());
    pipelined_call call(node_, slot(), wire,
                        {{socket_timeout, deadline}, false, must_not_resend, nullptr});
    send_end end = call.send();
    if (end == send_end::unanswered && !(must_not_resend && call.outcome().was_sent)) {
      end = call.send_again(*this);
    } else if (end == send_end::replied && server_.choose(9) == 1) {  // as if it were READONLY
      call.take_reply();
      call.give_up("refused");
      end = call.send_again(*this);
    }
    require(clock_type::now() <= deadline + late, "a call ends by its deadline");
    if (end != send_end::replied) {
      return false;
    }
    check(*call.take_reply(), number);
    return true;
  }

  void check_idle() {
    const pipeline_state& state = slot().pipeline_;
    require(state.unsent.empty() && state.alone.empty() && state.in_flight.empty() &&
                state.users == (state.replies_to_skip > 0 ? 1 : 0),
            "no call is left");
    require(!state.is_reading && !state.is_writing && !state.is_rebuilding, "no duty is left");
  }

 private:
  conn_node& slot() { return node_.context_arr_.front(); }

  void check(const redisReply& reply, unsigned number) {
    const bool is_whole = reply.type == REDIS_REPLY_ARRAY && reply.elements == 3 &&
                          reply.element[0]->type == REDIS_REPLY_STRING &&
                          reply.element[1]->type == REDIS_REPLY_INTEGER;
    std::array<char, 6> key{};
    std::snprintf(key.data(), key.size(), "k%04u", number % 10000);
    const bool is_own = is_whole && std::string(reply.element[0]->str) == key.data();
    require(is_own || server_.has_sent_noise(is_whole ? reply.element[1]->integer : -1),
            "a call gets its own reply");
  }

  Server& server_;
  server_node node_;
};

}  // namespace

// As the library's limit for arrays does: clearing gigabytes would take longer than a deadline.
extern "C" const char* __asan_default_options() {  // NOLINT(bugprone-reserved-identifier)
  return "allocator_may_return_null=1:max_allocation_size_mb=512";
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Server server(data, size);
  Client client(server);
  {
    std::vector<std::jthread> callers;
    const unsigned count = 2 + server.choose(4);
    for (unsigned caller = 0; caller < count; ++caller) {
      callers.emplace_back([&, caller] {
        for (unsigned call = 0; call < 4; ++call) {
          const std::size_t more = server.choose(7) == 1 ? server.choose(60000) : 0;
          const milliseconds limit(2 + server.choose(60));
          client.get(caller * 10 + call, more, limit, server.choose(3) == 1);
        }
      });
    }
  }
  server.end_script();
  // On a busy machine even a server that answers may miss the socket timeout.
  bool serves = false;
  for (int attempt = 0; attempt < 20 && !serves; ++attempt) {
    serves = client.get(9999, 0, std::chrono::seconds(5), false);
  }
  require(serves, "the slot serves again");
  client.check_idle();
  return 0;
}
