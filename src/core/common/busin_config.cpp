#include "busin_config.h"

#include <strings.h>
#include <sys/stat.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "sutils.h"

namespace {

constexpr std::size_t line_buffer_size = 2048;  // bytes, including the terminating zero

vop_config process_config;

bool is_empty(const char* text) { return text == nullptr || *text == '\0'; }

// Appends to a vector of owning pointers; nothing leaks if the vector cannot grow.
template <typename T>
void append_owned(std::vector<T*>& owner, std::unique_ptr<T> item) {
  owner.push_back(item.get());
  static_cast<void>(item.release());
}

template <typename T>
void delete_all(std::vector<T*>& owner) {
  for (T* item : owner) {
    delete item;
  }
  owner.clear();
}

// Look-ups use the first section of that name.
const cfg_section* find_section(const std::vector<cfg_section*>& sections, const char* name) {
  for (const cfg_section* section : sections) {
    if (strcasecmp(section->get_sec_name(), name) == 0) {
      return section;
    }
  }
  return nullptr;
}

}  // namespace

vop_config* Busin_Conf_Instance() { return &process_config; }

cfg_section::cfg_section(const char* sec_name) : sec_name_(sec_name != nullptr ? sec_name : "") {}

cfg_section::~cfg_section() { delete_all(attr_val_arr_); }

const char* cfg_section::get_sec_name() const { return sec_name_.c_str(); }

const char* cfg_section::get_str_val(const char* key) const {
  if (is_empty(key)) {
    return nullptr;
  }
  for (const attri_value* pair : attr_val_arr_) {
    if (strcasecmp(pair->attri_.c_str(), key) == 0) {
      return pair->val_.empty() ? nullptr : pair->val_.c_str();
    }
  }
  return nullptr;
}

int cfg_section::enum_key(std::vector<std::string>& key_arr) const {
  key_arr.clear();
  for (const attri_value* pair : attr_val_arr_) {
    key_arr.push_back(pair->attri_);
  }
  return 0;
}

int cfg_section::insert_attr_val(const char* attr, const char* val) {
  if (attr == nullptr || val == nullptr) {
    return -1;
  }
  append_owned(attr_val_arr_, std::make_unique<attri_value>(attr, val));
  return 0;
}

vop_config::vop_config() noexcept : cfg_file_time_(0) {}

vop_config::~vop_config() { delete_all(sec_arr_); }

int vop_config::open(const char* config_path) {
  if (config_path == nullptr) {
    return -1;
  }
  // A copy: the path may be a value of this reader, whose contents are replaced below.
  std::string path(config_path);
  if (!cfg_path_.empty() && cfg_path_ == path) {
    return 0;
  }
  const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path.c_str(), "r"), std::fclose);
  if (!file) {
    return -1;
  }
  vop_config loaded;  // its destructor frees the old sections
  std::array<char, line_buffer_size> line{};
  while (std::fgets(line.data(), static_cast<int>(line.size()), file.get()) != nullptr) {
    loaded.parse_line(line.data());
  }
  sec_arr_.swap(loaded.sec_arr_);
  cfg_path_.swap(path);
  cfg_file_time_ = file_mtime(cfg_path_.c_str());
  return 0;
}

int vop_config::open(const std::string& config_string, bool isCfgContent) {
  if (!isCfgContent) {
    return open(config_string.c_str());
  }
  sp::str_arr lines;
  sp::split_str(config_string.c_str(), lines, "\r\n");
  if (lines.empty()) {
    std::puts("vop_config::open get configure failed!");
    std::fflush(stdout);
    return -1;
  }
  vop_config loaded;
  for (const std::string& line : lines) {
    loaded.parse_line(line);
  }
  sec_arr_.swap(loaded.sec_arr_);
  return 0;
}

int vop_config::close() {
  delete_all(sec_arr_);
  cfg_path_.clear();
  return 0;
}

// Works on the shared reader whatever object it is called on: modules of the process have their own
// readers and refresh the shared one with this call.
int vop_config::cfg_reload(const char* config_path) {
  vop_config* shared = Busin_Conf_Instance();
  shared->cfg_path_.clear();
  return shared->open(config_path);
}

bool vop_config::cfg_changed() const { return file_mtime(cfg_path_.c_str()) != cfg_file_time_; }

time_t vop_config::file_mtime(const char* file) {
  struct stat info {};
  return file != nullptr && stat(file, &info) == 0 ? info.st_mtime : 0;
}

int vop_config::enum_sec_name(std::vector<std::string>& sec_arr) const {
  sec_arr.clear();
  for (const cfg_section* section : sec_arr_) {
    sec_arr.emplace_back(section->get_sec_name());
  }
  return 0;
}

int vop_config::enum_sec_key(const char* sec_name, std::vector<std::string>& key_arr) const {
  if (sec_name == nullptr) {
    return -1;
  }
  key_arr.clear();
  const cfg_section* section = find_section(sec_arr_, sec_name);
  return section != nullptr ? section->enum_key(key_arr) : -1;
}

const char* vop_config::get_str_val(const char* sec_name, const char* key) const {
  if (is_empty(sec_name)) {
    return nullptr;
  }
  const cfg_section* section = find_section(sec_arr_, sec_name);
  return section != nullptr ? section->get_str_val(key) : nullptr;
}

bool vop_config::get_bool_val(const char* sec_name, const char* key, bool def_val) const {
  const char* value = get_str_val(sec_name, key);
  if (value == nullptr) {
    return def_val;
  }
  if (std::strcmp(value, "1") == 0 || strcasecmp(value, "true") == 0) {
    return true;
  }
  if (std::strcmp(value, "0") == 0 || strcasecmp(value, "false") == 0) {
    return false;
  }
  return def_val;
}

int vop_config::get_int_val(const char* sec_name, const char* key, int def_val) const {
  const char* value = get_str_val(sec_name, key);
  // Narrowed to the low 32 bits, as atoi does here: a number that is too large wraps.
  return value != nullptr ? static_cast<int>(std::strtol(value, nullptr, 10)) : def_val;
}

// REQUIRES: `buf` is trimmed.
bool vop_config::is_sec(const char* buf, std::string& sec_name) {
  const char* const end = *buf == '[' ? std::strchr(buf, ']') : nullptr;
  if (end == nullptr || end[1] != '\0') {
    return false;
  }
  sec_name.assign(buf + 1, end);
  return true;
}

// Handles one line of a file or a text. True if it stored a pair.
bool vop_config::parse_line(const std::string& line_str) {
  std::string line(line_str);
  sp::trim_str(line);
  std::string sec_name;
  if (is_sec(line.c_str(), sec_name)) {
    append_owned(sec_arr_, std::make_unique<cfg_section>(sec_name.c_str()));
    return false;
  }
  if (sec_arr_.empty() || line.empty() || line.front() == '#' || line.front() == ';') {
    return false;
  }
  const std::size_t equals = line.find('=');
  if (equals == std::string::npos || equals == 0) {
    return false;
  }
  std::string key = line.substr(0, equals);
  std::string value = line.substr(equals + 1);
  sp::trim_str(key);
  sp::trim_str(value);
  return sec_arr_.back()->insert_attr_val(key.c_str(), value.c_str()) == 0;
}
