#include "fixtures.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <utility>

#include "sockets.h"

TempDir::TempDir() {
  std::string name = std::filesystem::temp_directory_path() / "ruvo-test-XXXXXX";
  if (mkdtemp(name.data()) == nullptr) {
    throw std::runtime_error("no temporary folder");
  }
  path_ = name;
}

TempDir::~TempDir() { std::filesystem::remove_all(path_); }

std::string TempDir::write(const std::string& name, const std::string& content) const {
  std::ofstream(path(name), std::ios::binary) << content;
  return path(name);
}

std::string content_of(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

HostConfig::HostConfig(const std::string& common, const std::string& server) {
  const char* more = std::getenv("RUVO_TEST_COMMON");
  std::string text = "[common]\n" + common + "\n";
  if (more != nullptr) {
    text += more + std::string("\n");
  }
  const std::string redis_conf = dir_.write("ruvo_redis.conf", text + "[server]\n" + server + "\n");
  path_ = dir_.write("sruvo.conf", "[redis_cfg]\nredis_cfg_path = " + redis_conf + "\n");
}

std::string pools_at(const std::string& temp, const std::string& persist,
                     const std::string& personality) {
  return "temp_server = " + temp + "\npersist_server = " + persist +
         "\npersonality_server = " + personality + "\n";
}

std::string all_pools_at(const std::string& addrs) {
  return "connect_timeout = 1000\nsocket_timeout = 1000\n" + pools_at(addrs, addrs, addrs);
}

QuietConsole::QuietConsole() : console_(dup(STDOUT_FILENO)) {
  std::fflush(stdout);
  const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  dup2(null, STDOUT_FILENO);
  close(null);
}

QuietConsole::~QuietConsole() {
  std::fflush(stdout);
  dup2(console_, STDOUT_FILENO);
  close(console_);
}

namespace {

int bound_socket(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int yes = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
  const sockaddr_in addr = loopback_address(port);
  if (bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0) {
    throw std::runtime_error("no free port");
  }
  return fd;
}

}  // namespace

// The second socket is bound to the port that the system chose for the first. It keeps the port
// after it has listened and been shut down; the first socket would lose it.
DownServer::DownServer() {
  const int chosen = bound_socket(0);
  sockaddr_in addr{};
  socklen_t length = sizeof(addr);
  getsockname(chosen, reinterpret_cast<sockaddr*>(&addr), &length);
  port_ = ntohs(addr.sin_port);
  fd_ = bound_socket(port_);
  close(chosen);
}

DownServer::~DownServer() { close(fd_); }

void ServerProcess::start(const std::string& command) {
  kill();
  // The shell becomes the program, so that its process id is the program's.
  // NOLINTNEXTLINE(cert-env33-c): the command is the caller's own text
  output_ = popen(("cd /tmp && echo $$ && exec setpriv --pdeathsig KILL " + command).c_str(), "re");
  std::array<char, 32> line{};
  if (output_ == nullptr || fgets(line.data(), line.size(), output_) == nullptr) {
    throw std::runtime_error("cannot start " + command);
  }
  pid_ = static_cast<pid_t>(std::strtol(line.data(), nullptr, 10));
}

void ServerProcess::kill() {
  if (pid_ > 0) {
    ::kill(std::exchange(pid_, -1), SIGKILL);
    pclose(output_);
  }
}

void ServerProcess::signal(int number) const { ::kill(pid_, number); }

bool ServerProcess::says(const char* text) {
  std::array<char, 512> line{};
  while (fgets(line.data(), line.size(), output_) != nullptr) {
    if (std::strstr(line.data(), text) != nullptr) {
      return true;
    }
  }
  return false;
}

bool ServerProcess::ended_within(int milliseconds) {
  pollfd output{fileno(output_), 0, 0};  // an end of output is always reported
  return poll(&output, 1, milliseconds) > 0;
}

RedisServer::RedisServer(std::string options) : options_(std::move(options)) {
  for (int attempt = 0; attempt < 5; ++attempt) {  // another process may take the port first
    port_ = DownServer().port();
    if (start(options_, Until::ready)) {
      return;
    }
  }
  throw std::runtime_error("redis-server does not start");
}

bool RedisServer::start(const std::string& options, Until until) {
  process_.start("redis-server --port " + std::to_string(port_) + " --bind 127.0.0.1 --dir " +
                 dir_.path("") + " --save '' " + options);
  return process_.says(until == Until::ready ? "Ready to accept" : "Server initialized");
}

void RedisServer::restart(const std::string& more_options, Until until) {
  if (!start(options_ + " " + more_options, until)) {
    throw std::runtime_error("redis-server does not start again");
  }
}

std::string RedisServer::ask(const std::string& command) const {
  // NOLINTNEXTLINE(cert-env33-c): the command is the caller's own text
  FILE* pipe = popen(("redis-cli -p " + std::to_string(port_) + " " + command).c_str(), "re");
  if (pipe == nullptr) {
    throw std::runtime_error("redis-cli does not start");
  }
  std::array<char, 4096> answer{};
  const std::size_t length = fread(answer.data(), 1, answer.size(), pipe);
  pclose(pipe);
  return std::string(answer.data(), length > 0 ? length - 1 : 0);
}
