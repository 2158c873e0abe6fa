// Throwaway surroundings for the library: a Redis on loopback, the two configuration files, a quiet
// console. Tests, benchmarks, simulations and ruvo_chaos run in them. A failure throws
// std::runtime_error; everything is removed with its object.
#ifndef RUVO_TESTING_FIXTURES_H
#define RUVO_TESTING_FIXTURES_H

#include <sys/types.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>

struct NoCopy {
  NoCopy() = default;
  NoCopy(const NoCopy&) = delete;
  NoCopy& operator=(const NoCopy&) = delete;
};

// Waits until the condition holds; false if it does not within 30 seconds.
template <typename Condition>
bool eventually(Condition condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) {
      return false;
    }
    std::this_thread::yield();
  }
  return true;
}

// Of a whole file; empty if there is none.
std::string content_of(const std::string& path);

// A folder that is removed with the object.
class TempDir : NoCopy {
 public:
  TempDir();
  ~TempDir();

  // Writes a file and returns its path.
  std::string write(const std::string& name, const std::string& content) const;
  std::string path(const std::string& name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

// The two configuration files of a host. `common` and `server` are lines for those sections; the
// lines of RUVO_TEST_COMMON in the environment follow the former, so that the same tests run with
// and without an option.
class HostConfig {
 public:
  explicit HostConfig(const std::string& common, const std::string& server = "");
  const char* path() const { return path_.c_str(); }

 private:
  TempDir dir_;
  std::string path_;
};

// Lines for section `common`: the servers of each pool.
std::string pools_at(const std::string& temp, const std::string& persist,
                     const std::string& personality);

// All three pools at the same servers, and timeouts of a second.
std::string all_pools_at(const std::string& addrs);

// Keeps the progress lines of start-up out of the output while it exists.
class QuietConsole : NoCopy {
 public:
  QuietConsole();
  ~QuietConsole();

 private:
  int console_;
};

// A port that refuses connections while the object exists, and that no other process can take.
class DownServer : NoCopy {
 public:
  DownServer();
  ~DownServer();
  int port() const { return port_; }
  std::string addr() const { return "127.0.0.1:" + std::to_string(port_); }

 protected:
  int fd_;
  int port_;
};

// A program that runs beside this one. The object reads its output. The program ends with the
// object, or with this process if that crashes.
class ServerProcess : NoCopy {
 public:
  ~ServerProcess() { kill(); }
  void start(const std::string& command);
  void kill();  // with SIGKILL, as a crash would end it
  void signal(int number) const;
  bool says(const char* text);          // waits for a line with this text; false when it has ended
  bool ended_within(int milliseconds);  // waits for its end

 private:
  pid_t pid_ = -1;
  FILE* output_ = nullptr;
};

// A redis-server that saves nothing by itself.
class RedisServer : NoCopy {
 public:
  explicit RedisServer(std::string options = "");
  int port() const { return port_; }
  std::string addr() const { return "127.0.0.1:" + std::to_string(port_); }
  void kill() { process_.kill(); }
  void signal(int number) const { process_.signal(number); }
  // What completes a start: the server serves, or it answers although it may still load its data.
  enum class Until { ready, started };
  void restart(const std::string& more_options = "", Until until = Until::ready);  // on its port
  // The output of redis-cli for a command, without the newline.
  std::string ask(const std::string& command) const;

 private:
  bool start(const std::string& options, Until until);

  TempDir dir_;  // a replica saves its copy of the data
  std::string options_;
  int port_ = 0;
  ServerProcess process_;
};

#endif
