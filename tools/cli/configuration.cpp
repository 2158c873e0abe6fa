#include "configuration.h"

#include <fcntl.h>
#include <ruvo/busin_config.h>
#include <ruvo/sutils.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <system_error>

namespace {

constexpr int default_timeout_ms = 100;

std::string text_of(const char* text) { return text != nullptr ? text : ""; }

}  // namespace

Configuration read_configuration(const std::string& redis_config) {
  vop_config file;
  file.open(redis_config.c_str());
  Configuration configuration;
  configuration.connect_timeout_ms =
      file.get_int_val("common", "connect_timeout", default_timeout_ms);
  configuration.socket_timeout_ms =
      file.get_int_val("common", "socket_timeout", default_timeout_ms);
  for (std::size_t i = 0; i < pool_keys.size(); ++i) {
    PoolSettings& pool = configuration.pools.at(i);
    if (const char* addresses = file.get_str_val("common", pool_keys.at(i).addresses)) {
      pool.addresses = addresses;
    }
    pool.auto_eject = file.get_bool_val("server", pool_keys.at(i).auto_eject, true);
    pool.password = text_of(file.get_str_val("server", pool_keys.at(i).password));
  }
  return configuration;
}

std::string redis_config_of(const std::string& config) {
  vop_config file;
  file.open(config.c_str());
  return text_of(file.get_str_val("redis_cfg", "redis_cfg_path"));
}

std::string open_error(const std::string& path) {
  // A pipe must not be waited for.
  const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd == -1) {
    return std::generic_category().message(errno);
  }
  struct stat info {};
  const bool is_folder = fstat(fd, &info) == 0 && S_ISDIR(info.st_mode);
  close(fd);
  return is_folder ? std::generic_category().message(EISDIR) : "";
}

std::vector<std::string> servers_of(const std::string& addresses) {
  sp::str_arr pieces;
  sp::split_str(addresses.c_str(), pieces, ",");
  for (std::string& piece : pieces) {
    sp::str_arr parts;
    sp::split_str(piece.c_str(), parts, ":");
    if (parts.size() != 2) {
      return {};
    }
    const auto port = static_cast<std::uint32_t>(std::strtol(parts[1].c_str(), nullptr, 0));
    piece = parts[0] + ":" + std::to_string(static_cast<int>(port));
  }
  return pieces;
}
