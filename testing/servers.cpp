#include "servers.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "sockets.h"

long Peer::read_number(char mark) {
  std::array<char, 64> line{};
  return fgets(line.data(), line.size(), input_) != nullptr && line[0] == mark
             ? std::strtol(line.data() + 1, nullptr, 10)
             : -1;
}

std::vector<std::string> Peer::read_command() {
  std::vector<std::string> words;
  for (long left = read_number('*'); left > 0; --left) {
    const long length = read_number('$');
    std::string word(static_cast<std::size_t>(length < 0 ? 0 : length) + 2, '\0');
    if (length < 0 || fread(word.data(), 1, word.size(), input_) != word.size()) {
      return {};
    }
    word.resize(word.size() - 2);
    words.push_back(std::move(word));
  }
  return words;
}

void Peer::send(const std::string& bytes) const {
  ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

void Peer::answer_all(const std::string& bytes) {
  while (!read_command().empty()) {
    send(bytes);
  }
}

void Peer::drip(const std::string& bytes, std::chrono::milliseconds pause) const {
  for (const char byte : bytes) {
    send({byte});
    std::this_thread::sleep_for(pause);
  }
}

void Peer::reset() const {
  reset_on_close(fd_);
  const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
  dup3(null, fd_, O_CLOEXEC);  // closes the connection and keeps its number taken
  close(null);
}

ScriptedServer::Script hang_at_later_login(int first_connections) {
  return [first_connections](Peer& peer) {
    if (peer.number() >= first_connections) {
      peer.hang();
      return;
    }
    peer.read_command();
    peer.send("+OK\r\n");
    peer.read_command();
  };
}

void Peer::vanish() const {
  shutdown(fd_, SHUT_WR);
  reset();
}

ScriptedServer::ScriptedServer(Script script) : script_(std::move(script)) {
  if (listen(fd_, 64) != 0) {
    throw std::runtime_error("scripted server cannot listen");
  }
  acceptor_ = std::jthread([this] { accept_all(); });
}

ScriptedServer::ScriptedServer(const Answer& answer)
    : ScriptedServer([answer](Peer& peer) {
        for (auto words = peer.read_command(); !words.empty(); words = peer.read_command()) {
          peer.send(answer(words));
        }
      }) {}

void ScriptedServer::refuse() { shutdown(fd_, SHUT_RDWR); }

ScriptedServer::~ScriptedServer() {
  refuse();
  acceptor_.join();
  std::map<int, std::jthread> running;
  {
    const std::scoped_lock lock(mutex_);
    for (const int fd : open_) {
      shutdown(fd, SHUT_RDWR);
    }
    running.swap(threads_);
  }
}

void ScriptedServer::accept_all() {
  for (int fd = 0; (fd = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC)) != -1;) {
    std::vector<std::jthread> ended;  // joined without the lock, which their last step acquires
    const std::scoped_lock lock(mutex_);
    ended.swap(ended_);
    open_.insert(fd);
    const int number = connections_++;
    threads_[number] = std::jthread([this, fd, number] {
      Peer peer(fd, number);
      script_(peer);
      const std::scoped_lock at_end(mutex_);
      open_.erase(fd);
      if (auto own = threads_.extract(number)) {
        ended_.push_back(std::move(own.mapped()));
      }
    });
  }
}

namespace {

bool accepts_connections(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const bool accepted = connect_to_loopback(fd, port);
  close(fd);
  return accepted;
}

}  // namespace

Nutcracker::Nutcracker(const std::vector<std::string>& shards) : shards_(shards) {
  for (int attempt = 0; attempt < 5; ++attempt) {  // another process may take the ports first
    port_ = DownServer().port();
    if (start()) {
      return;
    }
  }
  throw std::runtime_error("nutcracker does not start");
}

bool Nutcracker::start() {
  std::string pool =
      "pool:\n  listen: " + addr() +
      "\n  redis: true\n  hash: murmur\n  distribution: ketama\n  timeout: 1000\n  servers:\n";
  for (const std::string& shard : shards_) {
    pool += "    - " + shard + ":1\n";
  }
  process_.start("nutcracker --conf-file=" + dir_.write("proxy.yml", pool) +
                 " --stats-addr=127.0.0.1 --stats-port=" + std::to_string(DownServer().port()) +
                 " 2>&1");
  while (!process_.ended_within(10)) {  // it prints nothing when it is ready
    if (accepts_connections(port_)) {
      return true;
    }
  }
  return false;
}

void Nutcracker::restart() {
  if (!start()) {
    throw std::runtime_error("nutcracker does not start again");
  }
}
