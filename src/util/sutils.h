/// @file
/// Small helpers for strings and paths (namespace sp). Header only.
///
/// A blank is a byte whose unsigned value is at most 0x20. Bytes of 0x80 and above are never
/// blank, so trimming cannot cut a multi-byte character.
///
/// Threads: no function has shared state.
#ifndef RUVO_SUTILS_H
#define RUVO_SUTILS_H

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

/// Helpers for strings and paths.
namespace sp {

/// The pieces of a string.
typedef std::vector<std::string> str_arr;

/// A module handle; unused on this platform.
typedef void* IU_HANDLE;

namespace detail {

const std::size_t max_piece_length = 2097151;  // bytes of one piece that split_str keeps
const std::size_t max_path_length = 260;       // bytes of a path that the path helpers use

inline bool is_blank(char c, char trim_char) {
  return static_cast<unsigned char>(c) < 0x20 || c == trim_char;
}

// The part of [text, text + length) that remains once both ends are trimmed.
inline void trimmed_range(const char* text, std::size_t length, char trim_char, std::size_t& start,
                          std::size_t& end) {
  start = 0;
  end = length;
  while (start < end && is_blank(text[start], trim_char)) ++start;
  while (end > start && is_blank(text[end - 1], trim_char)) --end;
}

// Turns every "\" into "/" and every run of separators into one. A leading pair is kept, since a
// separator in the first position does not start a run. Of two leading backslashes the first is
// skipped.
inline std::string normalise_separators(const std::string& path) {
  std::string result;
  bool in_run = false;
  for (std::size_t i = path.compare(0, 2, "\\\\") == 0 ? 1 : 0; i < path.size(); ++i) {
    const bool separator = path[i] == '/' || path[i] == '\\';
    if (separator && in_run) continue;
    in_run = separator && !result.empty();
    result += separator ? '/' : path[i];
  }
  return result;
}

// Everything up to and including the last "/"; empty if there is none.
inline std::string up_to_last_separator(const std::string& path) {
  return path.substr(0, path.rfind('/') + 1);
}

inline bool is_directory(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

}  // namespace detail

/// Removes bytes below 0x20 and those equal to `trim_char` from both ends; with the default, all
/// blanks. `trim_gb` is ignored.
inline void trim_str(std::string& str, char trim_char = ' ', bool trim_gb = false) {
  (void)trim_gb;
  std::size_t start = 0;
  std::size_t end = 0;
  detail::trimmed_range(str.data(), str.size(), trim_char, start, end);
  str.erase(end);
  str.erase(0, start);
}

/// The same in place for a zero-terminated buffer; does nothing if it is null.
inline void trim_str(char* pstr, char trim_char = ' ', bool trim_gb = false) {
  (void)trim_gb;
  if (pstr == nullptr) return;
  std::size_t start = 0;
  std::size_t end = 0;
  detail::trimmed_range(pstr, std::strlen(pstr), trim_char, start, end);
  std::memmove(pstr, pstr + start, end - start);
  pstr[end - start] = '\0';
}

/// Is this byte a quote character?
inline bool is_quote(char c) { return c == '"' || c == '\''; }

/// Does a full-width character (GB 2312, row 3) begin at `pstr`?
inline bool is_quanjiao(const char* pstr) {
  return pstr != nullptr && static_cast<unsigned char>(pstr[0]) == 0xA3 &&
         static_cast<unsigned char>(pstr[1]) >= 0xA1;
}

/// Splits `str` at every byte that occurs in `spliter`, trims each piece and appends it to
/// `subs_array`, which is not cleared first. Empty pieces are kept: n separators give n + 1 pieces.
/// An empty or null `str` appends nothing. A piece is truncated to 2,097,151 bytes before it is
/// trimmed.
///
/// Only the default options are supported; others are ignored. Returns 0.
inline int split_str(const char* str, str_arr& subs_array, const char* spliter, bool trim = true,
                     bool ignore_blank = false, bool supp_quote = false, bool trim_quote = true,
                     bool supp_quanjiao = false) {
  (void)trim;
  (void)ignore_blank;
  (void)supp_quote;
  (void)trim_quote;
  (void)supp_quanjiao;
  if (str == nullptr || *str == '\0') return 0;
  if (spliter == nullptr) spliter = "";
  for (;;) {
    const std::size_t length = std::strcspn(str, spliter);
    std::string piece(str, length < detail::max_piece_length ? length : detail::max_piece_length);
    trim_str(piece);
    subs_array.push_back(piece);
    if (str[length] == '\0') return 0;
    str += length + 1;
  }
}

/// Copies at most `maxcnt` - 1 bytes of `src` to `dst` and terminates it; a null `src` gives an
/// empty string. If both are the same buffer, only its last byte is set to zero. Returns `dst`.
inline char* strsncpy(char* dst, const char* src, std::size_t maxcnt) {
  if (dst == nullptr || maxcnt == 0) return dst;
  if (dst == src) {
    dst[maxcnt - 1] = '\0';
    return dst;
  }
  const std::size_t length = src != nullptr ? strnlen(src, maxcnt - 1) : 0;
  if (length > 0) std::memmove(dst, src, length);
  dst[length] = '\0';
  return dst;
}

/// The directory of the running executable, with a trailing "/"; empty if it cannot be determined,
/// which is reported on standard error. A path of more than 260 bytes is cut. The handle is unused.
inline std::string get_bin_path(IU_HANDLE hmod = nullptr) {
  (void)hmod;
  char buffer[detail::max_path_length] = {};
  const ssize_t length = readlink("/proc/self/exe", buffer, sizeof(buffer));
  if (length == 0 || length == -1) {
    std::fprintf(stderr, "sp::get_bin_pathname | readlink failed, ret = %d, errno = %d.\n",
                 static_cast<int>(length), errno);
  }
  return detail::up_to_last_separator(
      detail::normalise_separators(std::string(buffer, strnlen(buffer, sizeof(buffer)))));
}

/// The parent directory of `path`, with a trailing "/": "/opt/app/" for the directory
/// /opt/app/bin/; for a file, the parent of its directory. Null or "." stands for the directory of
/// the running executable. A path without a directory, and "/", are returned unchanged; a path of
/// more than 260 bytes is cut.
inline std::string parent_path(const char* path) {
  std::string directory;
  if (path == nullptr || std::strcmp(path, ".") == 0) {
    directory = get_bin_path();
  } else {
    directory =
        detail::normalise_separators(std::string(path, strnlen(path, detail::max_path_length)));
    if (!directory.empty() && directory[directory.size() - 1] != '/' &&
        detail::is_directory(directory)) {
      directory += '/';
    }
    directory = detail::up_to_last_separator(directory);
  }
  if (directory.size() < 2) return path != nullptr ? path : "";
  const std::size_t separator = directory.rfind('/', directory.size() - 2);
  return separator == std::string::npos ? directory : directory.substr(0, separator + 1);
}

}  // namespace sp

#endif
