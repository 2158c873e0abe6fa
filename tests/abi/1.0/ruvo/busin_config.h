// As version 1.0 had it, without comments.
#ifndef RUVO_BUSIN_CONFIG_H
#define RUVO_BUSIN_CONFIG_H
#include <ctime>
#include <string>
#include <vector>
#define RUVO_CONFIG_API __attribute__((visibility("default")))
struct attri_value {
  attri_value(const char* attri, const char* val) : attri_(attri), val_(val) {}
  std::string attri_;
  std::string val_;
};
class RUVO_CONFIG_API cfg_section {
 public:
  explicit cfg_section(const char* sec_name);
  virtual ~cfg_section();
  cfg_section(const cfg_section&) = delete;
  cfg_section& operator=(const cfg_section&) = delete;
  const char* get_sec_name() const;
  const char* get_str_val(const char* key) const;
  int enum_key(std::vector<std::string>& key_arr) const;
  int insert_attr_val(const char* attr, const char* val);

 private:
  std::string sec_name_;
  std::vector<attri_value*> attr_val_arr_;
};
class RUVO_CONFIG_API vop_config {
 public:
  vop_config() noexcept;
  virtual ~vop_config();
  vop_config(const vop_config&) = delete;
  vop_config& operator=(const vop_config&) = delete;
  int open(const char* config_path);
  int open(const std::string& config_string, bool isCfgContent);
  int close();
  int cfg_reload(const char* config_path);
  bool cfg_changed() const;
  static time_t file_mtime(const char* file);
  int enum_sec_name(std::vector<std::string>& sec_arr) const;
  int enum_sec_key(const char* sec_name, std::vector<std::string>& key_arr) const;
  const char* get_str_val(const char* sec_name, const char* key) const;
  bool get_bool_val(const char* sec_name, const char* key, bool def_val) const;
  int get_int_val(const char* sec_name, const char* key, int def_val) const;

 private:
  static bool is_sec(const char* buf, std::string& sec_name);
  bool parse_line(const std::string& line_str);
  std::string cfg_path_;
  std::string cfg_content_;
  std::vector<cfg_section*> sec_arr_;
  time_t cfg_file_time_;
};
RUVO_CONFIG_API vop_config* Busin_Conf_Instance();
#endif
