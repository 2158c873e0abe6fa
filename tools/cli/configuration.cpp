#include "configuration.h"

#include <fcntl.h>
#include <ruvo/busin_config.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

site_settings read_configuration(const std::string& redis_config) {
  vop_config file;
  file.open(redis_config.c_str());
  return read_site_settings(file);
}

std::string redis_config_of(const std::string& config) {
  vop_config file;
  file.open(config.c_str());
  const char* const path = find_redis_config(file);
  return path != nullptr ? path : "";
}

std::string open_error(const std::string& path) {
  // Opening a pipe must not block.
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
  const address_list list = parse_addresses(addresses);
  std::vector<std::string> servers;
  if (!list.malformed) {
    std::ranges::transform(list.servers, std::back_inserter(servers), to_text);
  }
  return servers;
}

const std::string& password_key(std::size_t pool) {
  return std::ranges::find_if(all_settings(),
                              [pool](const setting& key) {
                                return key.kind == setting_kind::text &&
                                       key.pool == static_cast<int>(pool) + 1;
                              })
      ->name;
}
