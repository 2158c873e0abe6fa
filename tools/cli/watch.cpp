// The command `watch`: reads from every server of a pool once a second, and derives the state of
// each from the library's log lines. A server that is not up is probed directly, for the cause.
//
// A failed start-up is final for a process. So while no server of the temporary or the persistent
// pool answers, the library is not started, and all servers are probed directly.
#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <vector>

#include "commands.h"
#include "configuration.h"
#include "console.h"
#include "host_view.h"
#include "library_log.h"
#include "server_probe.h"
#include "startup_report.h"

namespace {

constexpr int round_ms = 1000;
constexpr std::size_t main_pools = 2;
constexpr const char* probe_key = "ruvo_cli:watch";

enum class State { not_started, unknown, up, failing, ejected };

const char* text_of(State state) {
  switch (state) {
    case State::not_started:
      return "not started";
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
  bool is_visited = false;  // by this read
  long reads = 0;           // that it answered
  long failures = 0;        // visits without a reply
  long ejections = 0;       // times that the library ejected it
  long retries = 0;         // times that its ejection ended with a retry
  std::string cause = {};   // what a direct probe found, if it is not up
};

// A server that is in the list twice is visited twice and has one line.
std::vector<Server> lines_of(const std::vector<std::string>& addresses, State state) {
  std::vector<Server> servers;
  for (const std::string& addr : addresses) {
    if (std::ranges::none_of(servers, [&addr](const Server& one) { return one.addr == addr; })) {
      servers.push_back({.addr = addr, .state = state});
    }
  }
  return servers;
}

// Follows the library from server to server. One line names the server that it considers, another
// the connection that it takes; the lines until the next server's show how the visit went.
class ServerWatch {
 public:
  explicit ServerWatch(const std::vector<std::string>& addresses)
      : reads_per_round_(addresses.size()),
        servers_(lines_of(addresses, State::unknown)),
        listening_(BaseLib::Logger::DEBUG, [this](const LogEvent& event) { read(event); }) {}

  std::vector<Server>& servers() { return servers_; }

  // As many reads as the list has servers, so that each is read once.
  void probe(int pool) {
    for (Server& server : servers_) {
      server.is_retried = false;
    }
    for (std::size_t i = 0; i < reads_per_round_; ++i) {
      for (Server& server : servers_) {
        server.is_visited = false;
      }
      [[maybe_unused]] const int ret = RUVO_ExistsKey(probe_key, pool, nullptr);  // see read()
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
      case EventKind::connection_chosen:
        is_under_way_ = true;
        candidate_->is_visited = true;
        break;
      case EventKind::operation_done:
        candidate_->state = State::up;
        ++candidate_->reads;
        is_under_way_ = false;
        break;
      case EventKind::all_servers_invalid:
        leave();  // a server that is visited nevertheless stays ejected
        break;
      case EventKind::call_timed_out:
        candidate_ = nullptr;
        break;
      default:
        break;
    }
  }

  // A visit that ends without a line of success has failed. A server that was considered but not
  // visited is ejected, unless the walk is back at it: log_limit may suppress the lines that say
  // so.
  void leave() {
    if (candidate_ != nullptr && is_under_way_) {
      candidate_->state = State::failing;
      ++candidate_->failures;
    } else if (candidate_ != nullptr && !candidate_->is_visited) {
      candidate_->ejections += candidate_->state != State::ejected ? 1 : 0;
      candidate_->state = State::ejected;
    }
    is_under_way_ = false;
    candidate_ = nullptr;
  }

  std::size_t reads_per_round_;
  std::vector<Server> servers_;
  Server* candidate_ = nullptr;
  bool is_under_way_ = false;  // a visit
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

std::string line_of(const Options& options, const Server& server, const HostView* host) {
  return format("%s  %s  %s  %-16s  reads %ld  failures %ld  ejections %ld  retries %ld%s%s%s%s\n",
                time_text().c_str(), pool_name(options.pool), server.addr.c_str(),
                state_text(server).c_str(), server.reads, server.failures, server.ejections,
                server.retries, server.cause.empty() ? "" : "  ", server.cause.c_str(),
                host != nullptr ? "  " : "",
                host != nullptr ? host->text_of(server.addr).c_str() : "");
}

nlohmann::json json_of(const Options& options, const Server& server, const HostView* host) {
  nlohmann::json json{{"time", time_text()},          {"pool", pool_name(options.pool)},
                      {"server", server.addr},        {"state", text_of(server.state)},
                      {"retried", server.is_retried}, {"reads", server.reads},
                      {"failures", server.failures},  {"ejections", server.ejections},
                      {"retries", server.retries},    {"cause", server.cause}};
  if (host != nullptr) {
    json["host"] = host->json_of(server.addr);
  }
  return json;
}

bool is_up(const Server& server) {
  return server.state == State::up ||
         (server.state == State::not_started && server.cause == text_of(State::up));
}

// Overwrites the previous round's lines on a terminal, so that each server keeps its line.
void show(const Options& options, const std::vector<Server>& servers, const HostView* host,
          bool in_place) {
  std::string text = in_place ? format("\033[%zuA\033[?7l", servers.size()) : "";
  for (const Server& server : servers) {
    if (options.json) {
      print_json(json_of(options, server, host));
      continue;
    }
    text += (in_place ? "\033[K" : "") + line_of(options, server, host);
  }
  print(text + (in_place ? "\033[?7h" : ""));
}

// Watches a pool, with or without the library.
class Watch {
 public:
  explicit Watch(const Options& options)
      : options_(options), pool_(static_cast<std::size_t>(options.pool - 1)) {
    // A pipe can be read only once, and the library needs its contents.
    const auto is_file = [](const std::string& path) {
      std::error_code none;
      return std::filesystem::is_regular_file(path, none);
    };
    if (const std::string path = is_file(options.config) ? redis_config_of(options.config) : "";
        is_file(path)) {
      configuration_ = read_configuration(path);
      addresses_ = servers_of(configuration_->pools.at(pool_).addresses.value_or(""));
      servers_before_start_ = lines_of(addresses_, State::not_started);
    }
    if (may_start()) {
      start();
    } else {
      std::fprintf(stderr,
                   "ruvo_cli: watch: no server of the temporary or the persistent pool answers: "
                   "the library is started when one does\n");
    }
    if (addresses_.empty()) {
      throw Failure(pools_down, std::string("pool ") + pool_name(options.pool) + " has no servers");
    }
  }

  std::vector<Server>& servers() {
    return server_watch_ ? server_watch_->servers() : servers_before_start_;
  }

  void run_round() {
    if (!library_ && may_start()) {
      start();
    }
    if (server_watch_) {
      server_watch_->probe(options_.pool);
    }
    for (Server& server : servers()) {
      server.cause = server.state == State::up
                         ? ""
                         : probe_server(server.addr, configuration_.value(), pool_).state;
    }
  }

  ExitStatus status() {
    const auto up = std::ranges::count_if(servers(), is_up);
    return up == 0                                              ? pools_down
           : up < static_cast<std::ptrdiff_t>(servers().size()) ? connections_down
                                                                : succeeded;
  }

 private:
  // Will the start-up find a server? With default addresses of the site, only the library knows.
  bool may_start() const {
    if (!configuration_) {
      return true;
    }
    for (std::size_t pool = 0; pool < main_pools; ++pool) {
      const std::optional<std::string>& addresses = configuration_->pools.at(pool).addresses;
      if (!addresses) {
        return true;
      }
      for (const std::string& addr : servers_of(*addresses)) {
        if (probe_server(addr, *configuration_, pool).answers()) {
          return true;
        }
      }
    }
    return false;
  }

  void start() {
    auto [library, report] = start_with_report(options_.config);
    library_ = std::move(library);
    if (library_->result() != RUVO_INIT_BOTH_POOLS_FAILED) {
      library_->require_ready();
    }
    configuration_ = report.configuration;
    addresses_.clear();
    for (const ServerReport& server : report.pools.at(pool_).servers) {
      addresses_.push_back(server.addr);
    }
    if (library_->is_ready()) {
      server_watch_ = std::make_unique<ServerWatch>(addresses_);
    } else {
      std::fprintf(stderr,
                   "ruvo_cli: watch: the library could not start: from now on servers "
                   "are probed directly\n");
      servers_before_start_ = lines_of(addresses_, State::not_started);
    }
  }

  const Options& options_;
  std::size_t pool_;
  std::optional<site_settings> configuration_;
  std::vector<std::string> addresses_;
  std::unique_ptr<Library> library_;
  std::unique_ptr<ServerWatch> server_watch_;
  std::vector<Server> servers_before_start_;  // while the library is not started
};

}  // namespace

ExitStatus watch(const Options& options, const WatchOptions& watch_options) {
  catch_end_signals();
  std::optional<HostView> host;
  if (!watch_options.stats_file.empty()) {
    host.emplace(watch_options.stats_file, pool_name(options.pool));
  }
  Watch all(options);
  const bool in_place = !options.json && is_terminal(all.servers().size());
  for (int round = 0;; ++round) {
    all.run_round();
    if (host && round > 0) {
      host->read_again();
    }
    show(options, all.servers(), host ? &*host : nullptr, in_place && round > 0);
    if (round + 1 == watch_options.rounds || wait_for_end(round_ms)) {
      return all.status();
    }
  }
}
