// The command `watch`: reads from every server of a pool once a second and tells, from what the
// library logs on the way, how each of them is.
#include <algorithm>
#include <array>
#include <ctime>
#include <nlohmann/json.hpp>
#include <vector>

#include "commands.h"
#include "console.h"
#include "library_log.h"
#include "startup_report.h"

namespace {

constexpr int round_ms = 1000;
constexpr const char* probe_key = "ruvo_cli:watch";

enum class State { unknown, up, failing, ejected };

const char* text_of(State state) {
  switch (state) {
    case State::up:
      return "up";
    case State::failing:
      return "failing";
    case State::ejected:
      return "ejected";
    default:
      return "unknown";
  }
}

struct Server {
  std::string addr;
  State state = State::unknown;
  bool is_retried = false;  // in this round
  long reads = 0;           // that it answered
  long failures = 0;        // visits without a reply
  long ejections = 0;       // times that the library began to leave it alone
  long retries = 0;         // and tried it again
};

// A server that stands twice in the list has two turns and one line.
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

// Follows the library from server to server. A line names the server that it looks at, another says
// that it takes a connection to it; what comes before the next server's line tells how that went.
class ServerWatch {
 public:
  explicit ServerWatch(const PoolReport& pool)
      : turns_(pool.servers.size()),
        servers_(servers_of(pool)),
        listening_(BaseLib::Logger::DEBUG, [this](const LogEvent& event) { read(event); }) {}

  const std::vector<Server>& servers() const { return servers_; }

  // As many reads as the list is long, so that each server has its turn.
  void probe(int pool) {
    for (Server& server : servers_) {
      server.is_retried = false;
    }
    for (std::size_t i = 0; i < turns_; ++i) {
      RUVO_ExistsKey(probe_key, pool, nullptr);
      leave();
    }
  }

 private:
  void read(const LogEvent& event) {
    if (event.kind == EventKind::server_considered) {
      leave();
      const auto server =
          std::find_if(servers_.begin(), servers_.end(),
                       [&event](const Server& one) { return one.addr == event.server(); });
      candidate_ = server != servers_.end() ? &*server : nullptr;
    } else if (candidate_ != nullptr) {
      follow(event.kind);
    }
  }

  void follow(EventKind kind) {
    switch (kind) {
      case EventKind::retry:
        candidate_->is_retried = true;
        ++candidate_->retries;
        break;
      case EventKind::passed_over:
        candidate_->ejections += candidate_->state != State::ejected ? 1 : 0;
        candidate_->state = State::ejected;
        break;
      case EventKind::connection_chosen:
        is_visited_ = true;
        break;
      case EventKind::operation_done:
        candidate_->state = State::up;
        ++candidate_->reads;
        is_visited_ = false;
        break;
      default:
        break;
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

  std::size_t turns_;
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

std::string state_text(const Server& server) {
  return (server.is_retried ? "retried, " : "") + std::string(text_of(server.state));
}

std::string line_of(const Options& options, const Server& server) {
  return format("%s  %s  %s  %-16s  reads %ld  failures %ld  ejections %ld  retries %ld\n",
                time_text().c_str(), pool_name(options.pool), server.addr.c_str(),
                state_text(server).c_str(), server.reads, server.failures, server.ejections,
                server.retries);
}

nlohmann::json json_of(const Options& options, const Server& server) {
  return {{"time", time_text()},          {"pool", pool_name(options.pool)},
          {"server", server.addr},        {"state", text_of(server.state)},
          {"retried", server.is_retried}, {"reads", server.reads},
          {"failures", server.failures},  {"ejections", server.ejections},
          {"retries", server.retries}};
}

// In place of the last round's lines where that is wanted; each stays one line of the terminal.
void show(const Options& options, const std::vector<Server>& servers, bool in_place) {
  std::string text = in_place ? format("\033[%zuA\033[?7l", servers.size()) : "";
  for (const Server& server : servers) {
    if (options.json) {
      print_json(json_of(options, server));
      continue;
    }
    text += (in_place ? "\033[K" : "") + line_of(options, server);
  }
  print(text + (in_place ? "\033[?7h" : ""));
}

}  // namespace

ExitStatus watch(const Options& options, const WatchOptions& watch_options) {
  const auto [library, report] = start_with_report(options.config);
  library->require_ready();
  const PoolReport& pool = report.pools.at(static_cast<std::size_t>(options.pool - 1));
  if (pool.servers.empty()) {
    throw Failure(pools_down, std::string("pool ") + pool_name(options.pool) + " has no servers");
  }
  catch_end_signals();
  ServerWatch all(pool);
  const bool in_place = !options.json && is_terminal(all.servers().size());
  for (int round = 0;; ++round) {
    all.probe(options.pool);
    show(options, all.servers(), in_place && round > 0);
    if (round + 1 == watch_options.rounds || wait_for_end(round_ms)) {
      return succeeded;
    }
  }
}
