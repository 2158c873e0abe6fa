/// @file
/// vop_config: a reader for sectioned configuration files.
///
///     # comment
///     ; comment
///     [common]
///     connect_timeout = 100
///     url = a=b
///     empty =
///
/// Blanks around a line are ignored. Lines that begin with "#" or ";" are comments; there are no
/// trailing comments. A section header begins with "[", and its first "]" is its last byte; the
/// name is everything in between, blanks included. The first "=" separates key and value; both are
/// trimmed. Quotes are part of the value. Lines that match no rule are skipped.
///
/// Sections and keys keep their order. If a name is repeated, look-ups find the first; they ignore
/// ASCII case. An empty value counts as absent. Lines before the first header are ignored. Lines of
/// a file are split every 2047 bytes, and each part is treated as a line of its own.
///
///     vop_config config;
///     if (config.open("/etc/app/app.conf") == 0) {
///       int timeout_ms = config.get_int_val("common", "connect_timeout", 100);
///     }
///
/// Threads: const member functions may be called concurrently; open and close must not overlap any
/// other call on the same object; cfg_reload must not overlap any on the process-wide reader.
/// Nothing takes a lock, and nothing blocks except on the file itself. Throws std::bad_alloc when
/// out of memory.
#ifndef RUVO_BUSIN_CONFIG_H
#define RUVO_BUSIN_CONFIG_H

#include <ctime>
#include <string>
#include <vector>

/// Marks the classes and functions that the library exports.
#define RUVO_CONFIG_API __attribute__((visibility("default")))

/// One "key = value" line, as stored.
struct attri_value {
  /// Copies both strings.
  attri_value(const char* attri, const char* val) : attri_(attri), val_(val) {}

  std::string attri_;  ///< the key
  std::string val_;    ///< the value
};

/// One section: its name and its pairs in file order. Owns the pairs.
class RUVO_CONFIG_API cfg_section {
 public:
  /// Creates an empty section; a null name stands for "".
  explicit cfg_section(const char* sec_name);
  virtual ~cfg_section();
  cfg_section(const cfg_section&) = delete;
  cfg_section& operator=(const cfg_section&) = delete;

  /// The name as it appears between the brackets; valid as long as the section exists.
  const char* get_sec_name() const;

  /// The value of the first pair with this key. Null if there is none, if its value is empty, or if
  /// `key` is null or empty. The string belongs to the section.
  const char* get_str_val(const char* key) const;

  /// Replaces the contents of `key_arr` with every key, in order, repeated ones included.
  /// Returns 0.
  int enum_key(std::vector<std::string>& key_arr) const;

  /// Appends a copy of the pair as it is. Returns 0, or -1 if either string is null.
  int insert_attr_val(const char* attr, const char* val);

 private:
  std::string sec_name_;
  std::vector<attri_value*> attr_val_arr_;
};

/// A reader for sectioned configuration files, see the top of this file. Owns the sections.
class RUVO_CONFIG_API vop_config {
 public:
  vop_config() noexcept;
  virtual ~vop_config();
  vop_config(const vop_config&) = delete;
  vop_config& operator=(const vop_config&) = delete;

  /// Loads a file, replacing the current contents. Opening the path that is already loaded does
  /// nothing and returns 0, even if the file has changed: close the reader first (for the
  /// process-wide one, cfg_reload does). Returns 0, or -1 if `config_path` is null or the file
  /// cannot be opened; the contents are then unchanged.
  int open(const char* config_path);

  /// With `isCfgContent`, loads the string itself, replacing the current contents; the recorded
  /// path and file time are kept, so that opening that path still does nothing. Otherwise takes the
  /// string as a path. Returns 0, or -1 if the content is empty (reported on standard output) or
  /// the path cannot be opened; the contents are then unchanged.
  int open(const std::string& config_string, bool isCfgContent);

  /// Drops the contents. Returns 0.
  int close();

  /// Loads `config_path` into the process-wide reader (see Busin_Conf_Instance), whichever object
  /// it is called on and even if that path is already loaded. Returns what open returns.
  int cfg_reload(const char* config_path);

  /// Has the modification time of the loaded file changed since it was loaded?
  bool cfg_changed() const;

  /// Modification time of a file in seconds since the epoch; 0 if unknown or `file` is null.
  static time_t file_mtime(const char* file);

  /// Replaces the contents of `sec_arr` with the section names in file order. Returns 0.
  int enum_sec_name(std::vector<std::string>& sec_arr) const;

  /// Replaces the contents of `key_arr` with the keys of the first section of that name. Returns 0,
  /// or -1 if there is no such section (`key_arr` is then empty) or `sec_name` is null (`key_arr`
  /// is then unchanged).
  int enum_sec_key(const char* sec_name, std::vector<std::string>& key_arr) const;

  /// The value; null if section or key is absent, null or empty, or the value is empty. The string
  /// belongs to the reader and is valid until the next open, close or cfg_reload.
  const char* get_str_val(const char* sec_name, const char* key) const;

  /// "1" or "true", "0" or "false" in any letter case; `def_val` for anything else.
  bool get_bool_val(const char* sec_name, const char* key, bool def_val) const;

  /// The decimal number at the beginning of the value, as atoi reads it: "12ms" gives 12, a value
  /// that does not begin with a number gives 0. `def_val` if the value is absent.
  int get_int_val(const char* sec_name, const char* key, int def_val) const;

 private:
  static bool is_sec(const char* buf, std::string& sec_name);
  bool parse_line(const std::string& line_str);

  std::string cfg_path_;
  std::string cfg_content_;  // reserved: part of the layout that other modules were built with
  std::vector<cfg_section*> sec_arr_;
  time_t cfg_file_time_;
};

/// The reader shared by all modules of the process. Never null; lives as long as the library is
/// loaded. It does not hold the library's own settings.
RUVO_CONFIG_API vop_config* Busin_Conf_Instance();

#endif
