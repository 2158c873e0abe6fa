#include "servers.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <utility>

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
