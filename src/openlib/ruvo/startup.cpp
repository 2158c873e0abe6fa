// Start-up: two configuration files, default addresses, three pools.
#include <arpa/inet.h>
#include <netdb.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <vector>

#include "log_line.h"
#include "ruvo_redis.h"
#include "settings.h"
#include "site_defaults.h"
#include "sutils.h"

vop_config ruvo_cfg;

namespace {

__attribute__((format(printf, 1, 2))) void print_progress(const char* format, ...) {
  va_list args;
  va_start(args, format);
  flockfile(stdout);  // keeps text and newline together if others print
  std::vprintf(format, args);
  std::putchar('\n');
  std::fflush(stdout);
  funlockfile(stdout);
  va_end(args);
}

const char* or_null_text(const char* text) { return text != nullptr ? text : "(null)"; }

timeval to_timeval(int milliseconds) {
  if (milliseconds < 1) {
    return {-1, 0};
  }
  return {milliseconds / 1000, (milliseconds % 1000) * 1000L};
}

// The IPv4 addresses that this host's own name resolves to, as dotted text; empty when unknown.
std::vector<std::string> host_addresses() {
  std::array<char, 255> name{};
  if (gethostname(name.data(), name.size()) != 0) {
    return {};
  }
  name.back() = '\0';
  hostent entry{};
  hostent* found = nullptr;
  int error = 0;
  std::vector<char> buffer(1024);
  while (gethostbyname_r(name.data(), &entry, buffer.data(), buffer.size(), &found, &error) ==
         ERANGE) {
    buffer.resize(buffer.size() * 2);
  }
  std::vector<std::string> addresses;
  for (char** addr = found != nullptr ? found->h_addr_list : nullptr;
       addr != nullptr && *addr != nullptr; ++addr) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (inet_ntop(found->h_addrtype, *addr, text.data(), text.size()) != nullptr) {
      addresses.emplace_back(text.data());
    }
  }
  return addresses;
}

// The group of networks that this host is in.
std::optional<std::size_t> net_seg_group() {
  for (const std::string& address : host_addresses()) {
    for (std::size_t group = 0; group < net_seg_list.size(); ++group) {
      for (const char* prefix : net_seg_list[group]) {
        if (address.starts_with(prefix)) {
          return group;
        }
      }
    }
  }
  return std::nullopt;
}

}  // namespace

int ruvo_redis::init(const char* config) {
  const unlimited_log all_lines;
  if (init_count_.fetch_add(1) != 0) {
    if (is_initialized()) {
      RUVO_LOG(ERROR, "ruvo_redis::init | redis alreadly initialize");
    } else {
      RUVO_LOG(ERROR, "ruvo_redis::init | redis is now in initialize");
    }
    return RUVO_OK;
  }

  int ret = RUVO_ERR_NO_CONFIG;
  if (config == nullptr || *config == '\0') {
    print_progress("ruvo_worker::init | no local config file");
  } else {
    ret = init_config(config);
  }
  print_progress("ruvo_redis::init | init config, ret = %d", ret);
  if (ret != RUVO_OK) {
    RUVO_LOG(ERROR, "ruvo_redis::init | init config failed, ret = %d", ret);
    print_progress("ruvo_redis::init | init config failed, ret = %d", ret);
    return ret;
  }

  read_timeouts();
  options_ = read_options(ruvo_cfg);
  set_log_limit(options_.log_limit);
  watch_forks();
  choose_addresses();
  try {
    return build_pools();
  } catch (...) {
    close_pools();  // start-up is final: nobody could use or close them later
    throw;
  }
}

void ruvo_redis::read_timeouts() {
  const time_limits limits = read_time_limits(ruvo_cfg);
  RUVO_LOG(INFO,
           "ruvo_worker::init | get timeout cfg, connect_timeout:%d (ms), socket_timeout:%d (ms)",
           limits.connect_timeout, limits.socket_timeout);
  conn_timeout_tv_ = to_timeval(limits.connect_timeout);
  socket_timeout_tv_ = to_timeval(limits.socket_timeout);
}

void ruvo_redis::choose_addresses() {
  const auto configured = [](RedisServerType type) {
    return read_pool_settings(ruvo_cfg, type).addresses;
  };
  const auto or_null = [](const std::optional<std::string>& addrs) {
    return or_null_text(addrs ? addrs->c_str() : nullptr);
  };
  // These two diagnostic lines are errors on purpose: deployed systems rely on seeing them at any
  // log level.
  const std::optional<std::string> temp_server = configured(eTempServer);
  RUVO_LOG(ERROR, "t_par_val: %s\n", or_null(temp_server));
  const std::optional<std::string> persist_server = configured(ePersistServer);
  RUVO_LOG(ERROR, "p_par_val: %s\n", or_null(persist_server));

  const auto or_default = [this](const std::optional<std::string>& addrs, RedisServerType type) {
    return addrs ? *addrs : getDefaultAddr(type);
  };
  t_server_addrs_ = or_default(temp_server, eTempServer);
  p_server_addrs_ = or_default(persist_server, ePersistServer);
  personality_server_addrs_ = or_default(configured(ePersonalityServer), ePersonalityServer);
  RUVO_LOG(INFO, "ruvo_redis::init | temp_server addr = %s, persist_server addr = %s.",
           t_server_addrs_.c_str(), p_server_addrs_.c_str());
  print_progress("ruvo_redis::init | temp_server addr = %sp_server_addrs_ = %s",
                 t_server_addrs_.c_str(), p_server_addrs_.c_str());
}

int ruvo_redis::build_pools() {
  struct pool_start {
    RedisServerType type;
    const std::string& addrs;
    server_pool& pool;
    const char* progress_name;
    const char* failed_name;
    const char* success_name;
    int failed_result;  // what the pool's failure adds to the result
  };
  const std::array starts{
      pool_start{eTempServer, t_server_addrs_, t_pool_, "tempsever", "temp", "temp",
                 RUVO_INIT_TEMP_POOL_FAILED},
      pool_start{ePersistServer, p_server_addrs_, p_pool_, "persist", "persist", "persist",
                 RUVO_INIT_PERSIST_POOL_FAILED},
      // The last name is the persistent pool's: deployed systems rely on the text as it is.
      pool_start{ePersonalityServer, personality_server_addrs_, personality_pool_, "personality",
                 "personality", "persist", 0},
  };
  int ret_sum = 0;
  for (const pool_start& start : starts) {
    const int ret = init_server_pool(start.addrs, start.pool, start.type);
    print_progress("ruvo_redis::init | %s init_server_pool ret = %d", start.progress_name, ret);
    if (ret > 0) {
      RUVO_LOG(ERROR, "ruvo_redis::init | %s server pool init failed, %d", start.failed_name, ret);
      ret_sum += start.failed_result;
    } else {
      RUVO_LOG(INFO, "ruvo_redis::init | %s server pool init success", start.success_name);
    }
  }
  keep_statistics();
  if (ret_sum != RUVO_INIT_BOTH_POOLS_FAILED) {
    initialized_.store(true, std::memory_order_release);
  }
  print_progress("ret_sum = %d", ret_sum);
  return ret_sum;
}

void ruvo_redis::keep_statistics() {
  if (options_.stats_file.empty()) {
    return;
  }
  const std::array pools{&t_pool_, &p_pool_, &personality_pool_};
  std::vector<statistics_file::counted_pool> counted;
  counted.reserve(pools.size());
  for (const server_pool* pool : pools) {
    counted.push_back({static_cast<RedisServerType>(pool->number_), *pool, t_pool_.conn_num_});
  }
  if (!statistics_.begin(options_.stats_file, counted)) {
    return;
  }
  for (std::size_t i = 0; i < pools.size(); ++i) {
    pools[i]->stats_ = statistics_.pool(i);
    for (server_node& server : pools[i]->servers_) {
      server.stats_ = statistics_.server(i, server.index_);
    }
  }
}

int ruvo_redis::init_config(const char* config) {
  print_progress("ruvo_redis::init_config config = %s", or_null_text(config));
  if (ruvo_cfg.open(config) != 0) {
    print_progress("ruvo_worker::init_config | cannot open config file:%s", or_null_text(config));
    return RUVO_ERR_CONFIG_FILE;
  }
  const char* path = find_redis_config(ruvo_cfg);
  RUVO_LOG(ERROR, "ruvo_redis::init_config redis_cfg_path = %s", or_null_text(path));
  print_progress("ruvo_redis::init_config redis_cfg_path = %s", or_null_text(path));
  if (path == nullptr) {
    RUVO_LOG(ERROR, "ruvo_worker::init_config | no redis_cfg_path.");
    print_progress("ruvo_worker::init_config | no redis_cfg_path.");
    return RUVO_ERR_NO_REDIS_CONFIG;
  }
  return ruvo_cfg.open(path);
}

std::string ruvo_redis::getDefaultAddr(RedisServerType type) const {
  const std::optional<std::size_t> group = net_seg_group();
  if (!group || *group >= site_default_addrs.size()) {
    RUVO_LOG(ERROR, "invalid ip or no redis server on the area.");
    return "";
  }
  const site_addr_table& table = site_default_addrs[*group];
  const auto row = static_cast<std::size_t>(type);
  return row < table.size() ? table[row] : "";
}

std::string ruvo_redis::get_cfg() const {
  const std::string name = "sruvo.conf";
  const std::string directory = sp::get_bin_path();
  std::string path = directory + name;
  struct stat info {};
  if (stat(path.c_str(), &info) != 0 || S_ISDIR(info.st_mode)) {
    path = sp::parent_path(directory.c_str()) + "conf/" + name;
  }
  return path;
}
