#include "startup_report.h"

#include <utility>

#include "library_log.h"

namespace {

// Why a connection failed, in an operator's words instead of hiredis'.
std::string reason_of(const std::string& error) {
  if (error.find("refused") != std::string::npos) {
    return "refused";
  }
  if (error.find("timed out") != std::string::npos) {
    return "timed out";
  }
  // The socket timeout, in the words of hiredis 0.14 and 1.x: only the password waits for a reply.
  if (error == "Resource temporarily unavailable" || error == "recv timeout") {
    return "password not answered";
  }
  return error == "null redisContext" ? "no such port" : error;
}

// Receives the log lines of a start-up.
class StartupReader {
 public:
  StartupReader();
  StartupReport report() const;

 private:
  void read(const LogEvent& event);
  void read_of_pool(const LogEvent& event);

  struct Outcome {
    std::string addr;
    std::string reason;  // empty: up
  };

  StartupReport report_;
  std::array<std::string, 2> main_addresses_;  // as in the library's log
  bool builds_pools_ = false;
  std::size_t pool_ = 0;                          // the one that is being built
  std::array<std::vector<Outcome>, 3> outcomes_;  // of connections, in order
  LogListening listening_;
};

StartupReader::StartupReader()
    : listening_(BaseLib::Logger::INFO, [this](const LogEvent& event) { read(event); }) {
  for (std::size_t i = 0; i < report_.pools.size(); ++i) {
    report_.pools[i].name = pool_name(static_cast<int>(i) + 1);
  }
}

void StartupReader::read(const LogEvent& event) {
  switch (event.kind) {
    case EventKind::configuration_path:
      report_.redis_config = event.field(Field::path);
      break;
    case EventKind::addresses:
      builds_pools_ = true;
      if (event.fields.size() == main_addresses_.size()) {  // else the line was cut in the log
        main_addresses_ = {event.field(Field::temp_servers), event.field(Field::persist_servers)};
      }
      break;
    default:
      if (pool_ < report_.pools.size()) {
        read_of_pool(event);
      }
  }
}

void StartupReader::read_of_pool(const LogEvent& event) {
  PoolReport& pool = report_.pools[pool_];
  const auto add_outcome = [&](const std::string& reason) {
    outcomes_[pool_].push_back({event.server(), reason});
  };
  switch (event.kind) {
    case EventKind::pool_settings:
      pool.connections = static_cast<int>(event.number(Field::connections));
      pool.failure_limit = static_cast<unsigned long>(event.number(Field::failure_limit));
      pool.retry_seconds = static_cast<int>(event.number(Field::retry_timeout));
      break;
    case EventKind::connected:
      add_outcome("");
      break;
    case EventKind::connect_failed:
      add_outcome(reason_of(event.field(Field::error)));
      break;
    case EventKind::auth_refused:
      add_outcome("wrong password");
      break;
    case EventKind::pool_ready:
    case EventKind::pool_failed:
      pool.result = static_cast<int>(event.number(Field::code));  // 0 on success
      ++pool_;
      break;
    default:
      if (event.level >= BaseLib::Logger::ERROR && reports_fault(event)) {
        (builds_pools_ ? pool.errors : report_.errors).push_back(event.text);
      }
  }
}

// The library logs each connection that comes up or fails, but not one that its server closes on
// the password. So the list of servers comes from the configuration, or else from the line that
// shows the addresses, and a connection that no line shows was closed.
StartupReport StartupReader::report() const {
  StartupReport report = report_;
  report.configuration = read_configuration(report.redis_config);
  for (std::size_t i = 0; i < report.pools.size(); ++i) {
    PoolReport& pool = report.pools[i];
    const pool_settings& settings = report.configuration.pools.at(i);
    pool.is_configured = settings.addresses.has_value();
    pool.addresses =
        settings.addresses.value_or(i < main_addresses_.size() ? main_addresses_[i] : "");
    pool.auto_eject = settings.auto_eject_server;
    auto outcome = outcomes_[i].begin();
    for (const std::string& addr : servers_of(pool.addresses)) {
      ServerReport server;
      server.addr = addr;
      int known = 0;
      for (; known < pool.connections && outcome != outcomes_[i].end() && outcome->addr == addr;
           ++known, ++outcome) {
        ++(outcome->reason.empty() ? server.up : server.down[outcome->reason]);
      }
      if (known < pool.connections) {
        server.down["closed after the password"] = pool.connections - known;
      }
      pool.servers.push_back(server);
    }
    for (; outcome != outcomes_[i].end(); ++outcome) {  // the list is not completely known
      if (pool.servers.empty() || pool.servers.back().addr != outcome->addr) {
        pool.servers.emplace_back().addr = outcome->addr;
      }
      ServerReport& server = pool.servers.back();
      ++(outcome->reason.empty() ? server.up : server.down[outcome->reason]);
    }
    if (pool.result.value_or(0) != 0 && outcomes_[i].empty()) {
      pool.servers.clear();  // the list was refused before any connection was tried
    }
  }
  return report;
}

}  // namespace

ReportedStart start_with_report(const std::string& config) {
  const StartupReader reader;
  auto library = std::make_unique<Library>(config);
  return {std::move(library), reader.report()};
}

void probe_servers(StartupReport& report) {
  for (std::size_t i = 0; i < report.pools.size(); ++i) {
    for (ServerReport& server : report.pools[i].servers) {
      server.probe = probe_server(server.addr, report.configuration, i);
    }
  }
}
