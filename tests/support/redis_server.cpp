#include "redis_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <utility>

int free_port() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(addr);
  auto* generic = reinterpret_cast<sockaddr*>(&addr);
  if (bind(fd, generic, length) != 0 || getsockname(fd, generic, &length) != 0) {
    throw std::runtime_error("no free port");
  }
  close(fd);
  return ntohs(addr.sin_port);
}

RedisServer::RedisServer(std::vector<std::string> options) : options_(std::move(options)) {
  for (int attempt = 0; attempt < 5; ++attempt) {  // another process may take the port first
    port_ = free_port();
    if (start()) {
      return;
    }
  }
  throw std::runtime_error("redis-server does not start");
}

RedisServer::~RedisServer() { kill(); }

bool RedisServer::start() {
  std::vector<std::string> words{
      "redis-server", "--port", std::to_string(port_), "--bind", "127.0.0.1", "--save", "",
      "--appendonly", "no",     "--logfile",           ""};
  words.insert(words.end(), options_.begin(), options_.end());
  std::vector<char*> argv;
  for (std::string& word : words) {
    argv.push_back(word.data());
  }
  argv.push_back(nullptr);
  std::array<int, 2> out{};
  if (pipe2(out.data(), O_CLOEXEC) != 0) {
    return false;
  }
  pid_ = fork();
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that crashes leaves no server behind
    dup2(out[1], STDOUT_FILENO);
    if (chdir("/tmp") == 0) {
      execvp(argv[0], argv.data());
    }
    _exit(127);
  }
  close(out[1]);
  const std::unique_ptr<FILE, int (*)(FILE*)> log(fdopen(out[0], "r"), fclose);
  std::array<char, 512> line{};
  while (fgets(line.data(), line.size(), log.get()) != nullptr) {
    if (std::string_view(line.data()).find("Ready to accept") != std::string_view::npos) {
      return true;
    }
  }
  kill();
  return false;
}

void RedisServer::kill() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }
}

void RedisServer::restart() {
  kill();
  if (!start()) {
    throw std::runtime_error("redis-server does not start again");
  }
}
