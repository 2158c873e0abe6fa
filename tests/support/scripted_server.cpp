#include "scripted_server.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <stdexcept>
#include <utility>

int Peer::read_byte() {
  if (position_ == buffer_.size()) {
    std::array<char, 4096> chunk{};
    const ssize_t length = recv(fd_, chunk.data(), chunk.size(), 0);
    if (length <= 0) {
      return -1;
    }
    buffer_.assign(chunk.data(), static_cast<std::size_t>(length));
    position_ = 0;
  }
  return static_cast<unsigned char>(buffer_[position_++]);
}

std::string Peer::read_line() {
  std::string line;
  for (int byte = read_byte(); byte != -1; byte = read_byte()) {
    if (byte == '\n') {
      line.pop_back();
      return line;
    }
    line += static_cast<char>(byte);
  }
  return "";
}

std::vector<std::string> Peer::read_command() {
  const std::string head = read_line();
  std::vector<std::string> words;
  for (int left = head.empty() ? 0 : std::stoi(head.substr(1)); left > 0; --left) {
    const std::string length = read_line();
    if (length.empty()) {
      return {};
    }
    std::string word;
    for (int byte = std::stoi(length.substr(1)); byte > 0; --byte) {
      word += static_cast<char>(read_byte());
    }
    read_line();
    words.push_back(std::move(word));
  }
  return words;
}

void Peer::send(const std::string& bytes) const {
  for (std::size_t sent = 0; sent < bytes.size();) {
    const ssize_t length = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (length <= 0) {
      return;
    }
    sent += static_cast<std::size_t>(length);
  }
}

void Peer::answer_all(const std::string& bytes) {
  while (!read_command().empty()) {
    send(bytes);
  }
}

void Peer::hang() {
  while (read_byte() != -1) {
  }
}

ScriptedServer::ScriptedServer(Script script) : script_(std::move(script)) {
  listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(addr);
  auto* generic = reinterpret_cast<sockaddr*>(&addr);
  if (bind(listener_, generic, length) != 0 || listen(listener_, 64) != 0 ||
      getsockname(listener_, generic, &length) != 0) {
    throw std::runtime_error("scripted server cannot listen");
  }
  port_ = ntohs(addr.sin_port);
  acceptor_ = std::jthread([this] { accept_all(); });
}

ScriptedServer::~ScriptedServer() {
  shutdown(listener_, SHUT_RDWR);
  acceptor_.join();
  close(listener_);
  {
    const std::scoped_lock lock(mutex_);
    for (const int fd : open_) {
      shutdown(fd, SHUT_RDWR);
    }
  }
  threads_.clear();
}

void ScriptedServer::accept_all() {
  for (;;) {
    const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd == -1) {
      return;
    }
    {
      const std::scoped_lock lock(mutex_);
      open_.insert(fd);
    }
    const int number = connections_++;
    threads_.emplace_back([this, fd, number] {
      Peer peer(fd, number);
      script_(peer);
      const std::scoped_lock lock(mutex_);
      open_.erase(fd);
      close(fd);
    });
  }
}
