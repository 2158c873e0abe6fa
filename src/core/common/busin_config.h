/// @file
/// vop_config: a reader for sectioned configuration files.
///
///     # comment
///     ; comment
///     [common]
///     its connect_timeout = 100
///     url = a=b
///     empty =
///
/// Lines that begin with "#" or ";" are comments; there are no trailing ones. A header is a line
/// that begins with "[" and whose first "]" is its last byte; the name is what stands between,
/// blanks included. The first "=" splits key and value; both are trimmed. Quotes are part of the
/// text. Lines that fit no rule are skipped.
///
/// Sections and keys keep their order and may stand twice; the first of a name answers. Look-ups
/// ignore ASCII case. An empty value reads as if it were absent. Lines before the first header are
/// ignored. A line of a file is cut every 2047 bytes, and each cut is handled as a line of its own.
///
///     vop_config config;
///     if (config.open("/etc/app/app.conf") == 0) {
///       int timeout_ms = config.get_int_val("common", "connect_timeout", 100);
///     }
///
/// Threads: the const operations may run side by side; open, close and cfg_reload must not overlap
/// any other call on the same object. Nothing here takes a lock. Nothing blocks but on the file
/// itself. Memory that runs out is reported with std::bad_alloc.
#ifndef RUVO_BUSIN_CONFIG_H
#define RUVO_BUSIN_CONFIG_H

#include <ctime>
#include <string>
#include <vector>

/// What the library lets out.
#define RUVO_CONFIG_API __attribute__((visibility("default")))

/// One "key = value" line, as it was stored.
struct attri_value {
  /// Copies both texts.
  attri_value(const char* attri, const char* val) : attri_(attri), val_(val) {}

  std::string attri_;  ///< the key
  std::string val_;    ///< the value
};

/// One section: its name and its pairs in file order. Owns the pairs.
class RUVO_CONFIG_API cfg_section {
 public:
  /// An empty section; a null name gives the empty one.
  explicit cfg_section(const char* sec_name);
  virtual ~cfg_section();
  cfg_section(const cfg_section&) = delete;
  cfg_section& operator=(const cfg_section&) = delete;

  /// The name as it stands between the brackets; valid as long as the section.
  const char* get_sec_name() const;

  /// The value of the first pair with this key. Null when there is none, when its value is empty,
  /// or when `key` is null or empty. The text belongs to the section.
  const char* get_str_val(const char* key) const;

  /// Replaces the contents of `key_arr` with every key, in order, repeated ones included.
  /// Returns 0.
  int enum_key(std::vector<std::string>& key_arr) const;

  /// Appends a pair; both texts are copied as they are. Returns 0, or -1 when one of them is null.
  int insert_attr_val(const char* attr, const char* val);

 private:
  std::string sec_name_;
  std::vector<attri_value*> attr_val_arr_;
};

/// A reader for sectioned configuration files, see the head of this file. Owns the sections.
class RUVO_CONFIG_API vop_config {
 public:
  vop_config() noexcept;
  virtual ~vop_config();
  vop_config(const vop_config&) = delete;
  vop_config& operator=(const vop_config&) = delete;

  /// Loads a file in place of everything loaded before. Opening the path that is already loaded
  /// does nothing, even when the file has changed: cfg_reload reads it again. Returns 0, or -1 when
  /// `config_path` is null or the file cannot be opened; what was loaded then stays.
  int open(const char* config_path);

  /// With `isCfgContent`, loads the text itself in place of everything loaded before; the recorded
  /// path and file time stay. Without it, takes the text as a path. Returns 0, or -1 when the text
  /// is empty (said on standard output; what was loaded then stays).
  int open(const std::string& config_string, bool isCfgContent);

  /// Drops everything that is loaded. Returns 0.
  int close();

  /// Loads `config_path` into the process-wide reader (see Busin_Conf_Instance) whichever object it
  /// is called on, also when that path is loaded already. Returns what open returns.
  int cfg_reload(const char* config_path);

  /// Does the modification time of the loaded file differ from the one recorded when it was loaded?
  bool cfg_changed() const;

  /// Modification time of a file in seconds since the epoch; 0 for null and where it is unknown.
  static time_t file_mtime(const char* file);

  /// Replaces the contents of `sec_arr` with the section names in file order. Returns 0.
  int enum_sec_name(std::vector<std::string>& sec_arr) const;

  /// Replaces the contents of `key_arr` with the keys of the first section of that name. Returns 0,
  /// or -1 when there is no such section (`key_arr` is then empty) or `sec_name` is null (`key_arr`
  /// is then left alone).
  int enum_sec_key(const char* sec_name, std::vector<std::string>& key_arr) const;

  /// The value, or null when section or key is absent, null or empty, or the value is empty. The
  /// text belongs to the reader and is valid until the next open, close or cfg_reload.
  const char* get_str_val(const char* sec_name, const char* key) const;

  /// "1" or "true" and "0" or "false" in any letter case; `def_val` for everything else.
  bool get_bool_val(const char* sec_name, const char* key, bool def_val) const;

  /// The number that the value begins with, in base 10, as atoi reads it: "12ms" gives 12, text
  /// that begins with no number gives 0. `def_val` when the value is absent.
  int get_int_val(const char* sec_name, const char* key, int def_val) const;

 private:
  static bool is_sec(const char* buf, std::string& sec_name);
  bool parse_line(const std::string& line_str);

  std::string cfg_path_;
  std::string cfg_content_;  // reserved: part of the layout that other modules were built with
  std::vector<cfg_section*> sec_arr_;
  time_t cfg_file_time_;
};

/// The reader that all modules of the process share. Never null; lives as long as the library is
/// loaded. The library's own settings are not in it.
RUVO_CONFIG_API vop_config* Busin_Conf_Instance();

#endif
