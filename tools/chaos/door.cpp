#include "door.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <system_error>
#include <vector>

namespace {

constexpr int waiting_connections = 1024;  // more than any run has, so that none is turned away

struct Connection {
  int client;
  int redis;
};

// What the handler of SIGCONT needs.
volatile std::sig_atomic_t listener = -1;
volatile std::sig_atomic_t continued = -1;  // an eventfd
volatile std::sig_atomic_t highest_fd = 0;

// Runs before anything else does when the process goes on: from here no byte of old reaches Redis.
void cut_all(int /*signal*/) {
  const int error = errno;
  for (int fd = 0; fd <= highest_fd; ++fd) {
    if (fd != listener) {
      shutdown(fd, SHUT_RDWR);
    }
  }
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = write(continued, &one, sizeof(one));
  errno = error;
}

void say(const char* text) {
  std::puts(text);
  std::fflush(stdout);
}

sockaddr_in loopback(int port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(static_cast<std::uint16_t>(port));
  return addr;
}

void set_option(int fd, int level, int option) {
  const int yes = 1;
  setsockopt(fd, level, option, &yes, sizeof(yes));
}

void reset(int fd) {
  const linger at_once{1, 0};
  setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
  close(fd);
}

class Door {
 public:
  explicit Door(int redis_port) : redis_(loopback(redis_port)) {}

  // False when the port cannot be had.
  bool open(int port) {
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    set_option(listener_, SOL_SOCKET, SO_REUSEADDR);
    const sockaddr_in addr = loopback(port);
    if (bind(listener_, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0 ||
        listen(listener_, waiting_connections) != 0) {
      std::fprintf(stderr, "door: %s\n", std::generic_category().message(errno).c_str());
      return false;
    }
    continued_ = eventfd(0, EFD_CLOEXEC);
    listener = listener_;
    continued = continued_;
    sigset_t commands;
    sigemptyset(&commands);
    for (const int signal : {SIGUSR1, SIGUSR2, SIGHUP}) {
      sigaddset(&commands, signal);
    }
    pthread_sigmask(SIG_BLOCK, &commands, nullptr);
    commands_ = signalfd(-1, &commands, SFD_CLOEXEC);
    struct sigaction action {};
    action.sa_handler = cut_all;
    action.sa_flags = SA_RESTART;
    sigaction(SIGCONT, &action, nullptr);
    return true;
  }

  [[noreturn]] void serve() {
    for (;;) {
      std::vector<pollfd> waits{
          {continued_, POLLIN, 0}, {commands_, POLLIN, 0}, {listener_, POLLIN, 0}};
      for (const Connection& one : connections_) {
        waits.push_back({one.client, POLLIN | POLLRDHUP, 0});
        waits.push_back({one.redis, POLLIN, 0});
      }
      if (poll(waits.data(), waits.size(), -1) <= 0) {
        continue;
      }
      if (waits[0].revents != 0) {
        std::uint64_t times = 0;
        [[maybe_unused]] const ssize_t length = read(continued_, &times, sizeof(times));
        drop_all();
      } else if (waits[1].revents != 0) {
        obey();
      } else {
        forward_all(waits.data() + 3);
        if (waits[2].revents != 0) {
          take_connection();
        }
      }
    }
  }

 private:
  void obey() {
    signalfd_siginfo command{};
    [[maybe_unused]] const ssize_t length = read(commands_, &command, sizeof(command));
    paused_ = command.ssi_signo == SIGUSR1;
    if (paused_) {
      say(door_has_paused);
    } else {
      drop_all();
    }
  }

  // Also those that the system has taken and this process has not seen yet.
  void drop_all() {
    for (const Connection& one : connections_) {
      reset(one.client);
      close(one.redis);
    }
    connections_.clear();
    for (int fd = 0; (fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) != -1;) {
      reset(fd);
    }
    say(door_has_dropped);
  }

  void take_connection() {
    const int client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (client == -1) {
      return;
    }
    const int redis = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    highest_fd = std::max({static_cast<int>(highest_fd), client, redis});
    if (connect(redis, reinterpret_cast<const sockaddr*>(&redis_), sizeof(redis_)) != 0) {
      close(redis);
      reset(client);
      return;
    }
    set_option(client, IPPROTO_TCP, TCP_NODELAY);
    set_option(redis, IPPROTO_TCP, TCP_NODELAY);
    connections_.push_back({client, redis});
  }

  void forward_all(const pollfd* events) {
    std::erase_if(connections_, [this, &events](const Connection& one) {
      const pollfd& client = *events++;
      const pollfd& redis = *events++;
      // A client that has gone has given its command up and may have sent it elsewhere.
      const bool goes_on = (client.revents & (POLLRDHUP | POLLHUP | POLLERR)) == 0 &&
                           (client.revents == 0 || forward(one.client, one.redis)) &&
                           (redis.revents == 0 || forward(one.redis, one.client));
      if (!goes_on) {
        close(one.client);
        close(one.redis);
      }
      return !goes_on;
    });
  }

  bool forward(int from, int to) {
    const ssize_t length = read(from, buffer_.data(), buffer_.size());
    for (ssize_t sent = 0; sent < length && !paused_;) {
      const ssize_t written =
          send(to, buffer_.data() + sent, static_cast<std::size_t>(length - sent), MSG_NOSIGNAL);
      if (written <= 0) {
        return false;
      }
      sent += written;
    }
    return length > 0;
  }

  sockaddr_in redis_;
  int listener_ = -1;
  int continued_ = -1;
  int commands_ = -1;
  bool paused_ = false;
  std::vector<Connection> connections_;
  std::array<char, 65536> buffer_{};
};

}  // namespace

int run_door(int port, int redis_port) {
  Door door(redis_port);
  if (!door.open(port)) {
    return 1;
  }
  say(door_is_ready);
  door.serve();
}
