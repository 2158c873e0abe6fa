// The command `watch`: reads from every server of a pool once a second and tells, from what the
// library logs on the way, how each of them is.
#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>
#include <regex>
#include <vector>

#include "commands.h"
#include "console.h"
#include "library_log.h"
#include "startup_report.h"

namespace {

constexpr int round_ms = 1000;
constexpr const char* probe_key = "ruvo_cli:watch";

enum class State { unknown, up, failing, ejected, retried };

const char* text_of(State state) {
  switch (state) {
    case State::up:
      return "up";
    case State::failing:
      return "failing";
    case State::ejected:
      return "ejected";
    case State::retried:
      return "retried";
    default:
      return "unknown";
  }
}

struct Server {
  std::string addr;
  State state = State::unknown;
  long reads = 0;      // that it answered
  long failures = 0;   // visits without a reply
  long ejections = 0;  // times that the library began to leave it alone
  long retries = 0;    // and tried it again
};

// Follows the library from server to server. A line names the server that it looks at, another says
// that it takes a connection to it; what comes before the next server's line tells how that went.
class ServerWatch {
 public:
  explicit ServerWatch(std::vector<Server> servers)
      : servers_(std::move(servers)),
        listening_(BaseLib::Logger::DEBUG,
                   [this](LogLevel, const std::string& text) { read(text); }) {}

  const std::vector<Server>& servers() const { return servers_; }

  // One read for each server, so that each has its turn.
  void probe(int pool) {
    for (std::size_t i = 0; i < servers_.size(); ++i) {
      RUVO_ExistsKey(probe_key, pool, nullptr);
      leave();
    }
  }

 private:
  void read(const std::string& text) {
    static const std::regex candidate(
        "ruvo_redis::get_(?:redis_node \\| addr:(.*) |server_node \\| try next server:(.*),)"
        "port:(-?\\d+)");
    std::smatch found;
    if (std::regex_match(text, found, candidate)) {
      leave();
      const std::string addr = found.str(1) + found.str(2) + ":" + found.str(3);
      const auto server = std::find_if(servers_.begin(), servers_.end(),
                                       [&addr](const Server& one) { return one.addr == addr; });
      candidate_ = server != servers_.end() ? &*server : nullptr;
      return;
    }
    if (candidate_ == nullptr) {
      return;
    }
    const auto tells = [&text](const char* part) { return text.find(part) != std::string::npos; };
    if (tells(" start retry")) {
      candidate_->state = State::retried;
      ++candidate_->retries;
    } else if (tells(" invalid, failure count:")) {
      candidate_->ejections += candidate_->state != State::ejected ? 1 : 0;
      candidate_->state = State::ejected;
    } else if (tells("::get_conn | connection index:")) {
      is_visited_ = true;
    } else if (tells(" do_exec_command success!")) {
      candidate_->state = State::up;
      ++candidate_->reads;
      is_visited_ = false;
    }
  }

  // A visit that ends without the line of a success has failed.
  void leave() {
    if (is_visited_) {
      candidate_->state = State::failing;
      ++candidate_->failures;
    }
    is_visited_ = false;
    candidate_ = nullptr;
  }

  std::vector<Server> servers_;
  Server* candidate_ = nullptr;
  bool is_visited_ = false;
  LogListening listening_;
};

std::string time_text() {
  const std::time_t now = std::time(nullptr);
  tm local{};
  localtime_r(&now, &local);
  std::array<char, 16> text{};
  return {text.data(), std::strftime(text.data(), text.size(), "%H:%M:%S", &local)};
}

std::string line_of(const Options& options, const Server& server) {
  return format("%s  %s  %s  %-7s  reads %ld  failures %ld  ejections %ld  retries %ld\n",
                time_text().c_str(), pool_name(options.pool), server.addr.c_str(),
                text_of(server.state), server.reads, server.failures, server.ejections,
                server.retries);
}

nlohmann::json json_of(const Options& options, const Server& server) {
  return {{"time", time_text()},           {"pool", pool_name(options.pool)},
          {"server", server.addr},         {"state", text_of(server.state)},
          {"reads", server.reads},         {"failures", server.failures},
          {"ejections", server.ejections}, {"retries", server.retries}};
}

// On a terminal the lines of a round stand in place of the last round's.
void show(const Options& options, const std::vector<Server>& servers, bool in_place) {
  std::string text = in_place ? "\033[" + std::to_string(servers.size()) + "A" : "";
  for (const Server& server : servers) {
    text += in_place ? "\033[K" : "";
    text += options.json ? json_of(options, server).dump() + "\n" : line_of(options, server);
  }
  print(text);
}

// Once each: a server that stands twice in the list has two turns and one line.
std::vector<Server> servers_of(const PoolReport& pool) {
  std::vector<Server> servers;
  for (const ServerReport& report : pool.servers) {
    if (std::none_of(servers.begin(), servers.end(),
                     [&report](const Server& one) { return one.addr == report.addr; })) {
      servers.push_back({.addr = report.addr});
    }
  }
  return servers;
}

}  // namespace

ExitStatus watch(const Options& options, const WatchOptions& watch_options) {
  block_end_signals();
  const auto [library, report] = start_with_report(options.config);
  library->require_ready();
  std::vector<Server> servers =
      servers_of(report.pools.at(static_cast<std::size_t>(options.pool - 1)));
  if (servers.empty()) {
    throw Failure(pools_down, std::string("pool ") + pool_name(options.pool) + " has no servers");
  }
  ServerWatch all(std::move(servers));
  for (int round = 0;; ++round) {
    all.probe(options.pool);
    show(options, all.servers(), round > 0 && is_terminal() && !options.json);
    if (round + 1 == watch_options.rounds || wait_for_end(round_ms)) {
      return succeeded;
    }
  }
}
