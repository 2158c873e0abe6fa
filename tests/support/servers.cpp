#include "servers.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <utility>

DownServer::DownServer() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)), port_(0) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(addr);
  auto* generic = reinterpret_cast<sockaddr*>(&addr);
  if (bind(fd_, generic, length) != 0 || getsockname(fd_, generic, &length) != 0) {
    throw std::runtime_error("no free port");
  }
  port_ = ntohs(addr.sin_port);
}

DownServer::~DownServer() { close(fd_); }

RedisServer::RedisServer(std::string options) : options_(std::move(options)) {
  for (int attempt = 0; attempt < 5; ++attempt) {  // another process may take the port first
    port_ = DownServer().port();
    if (start()) { return; }
  }
  throw std::runtime_error("redis-server does not start");
}

bool RedisServer::start() {
  // The shell becomes the server, so that its number is the server's; a test that crashes takes the
  // server along.
  output_ = popen(("cd /tmp && echo $$ && exec setpriv --pdeathsig KILL redis-server --port " + std::to_string(port_) +
                   " --bind 127.0.0.1 --save '' " + options_)
                      .c_str(),
                  "re");
  std::array<char, 512> line{};
  if (output_ != nullptr && fgets(line.data(), line.size(), output_) != nullptr) {
    pid_ = static_cast<pid_t>(std::strtol(line.data(), nullptr, 10));
    while (fgets(line.data(), line.size(), output_) != nullptr) {
      if (std::strstr(line.data(), "Ready to accept") != nullptr) { return true; }
    }
  }
  kill();
  return false;
}

void RedisServer::kill() {
  if (pid_ > 0) {
    ::kill(std::exchange(pid_, -1), SIGKILL);
    pclose(output_);
  }
}

void RedisServer::restart() {
  kill();
  if (!start()) { throw std::runtime_error("redis-server does not start again"); }
}

std::string RedisServer::ask(const std::string& command) const {
  FILE* pipe = popen(("redis-cli -p " + std::to_string(port_) + " " + command).c_str(), "re");
  std::array<char, 4096> answer{};
  const std::size_t length = fread(answer.data(), 1, answer.size(), pipe);
  pclose(pipe);
  return std::string(answer.data(), length > 0 ? length - 1 : 0);
}

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
    if (length < 0 || fread(word.data(), 1, word.size(), input_) != word.size()) { return {}; }
    word.resize(word.size() - 2);
    words.push_back(std::move(word));
  }
  return words;
}

void Peer::send(const std::string& bytes) const { ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL); }

void Peer::answer_all(const std::string& bytes) {
  while (!read_command().empty()) { send(bytes); }
}

ScriptedServer::ScriptedServer(Script script) : script_(std::move(script)) {
  if (listen(fd_, 64) != 0) { throw std::runtime_error("scripted server cannot listen"); }
  acceptor_ = std::jthread([this] { accept_all(); });
}

ScriptedServer::~ScriptedServer() {
  shutdown(fd_, SHUT_RDWR);
  acceptor_.join();
  {
    const std::scoped_lock lock(mutex_);
    for (const int fd : open_) { shutdown(fd, SHUT_RDWR); }
  }
  threads_.clear();
}

void ScriptedServer::accept_all() {
  for (int fd = 0; (fd = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC)) != -1;) {
    const std::scoped_lock lock(mutex_);
    open_.insert(fd);
    const int number = connections_++;
    threads_.emplace_back([this, fd, number] {
      Peer peer(fd, number);
      script_(peer);
      const std::scoped_lock at_end(mutex_);
      open_.erase(fd);
    });
  }
}
