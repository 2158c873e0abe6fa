#include "log_line.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <ostream>

#include "key_format.h"

void write_log_line(const char* file, int line, BaseLib::Logger::LogLevel level, const char* format,
                    ...) noexcept {
  std::array<char, log_buffer_size> text;
  va_list args;
  va_start(args, format);
  if (std::vsnprintf(text.data(), text.size(), format, args) < 0) {
    text[0] = '\0';
  }
  va_end(args);
  try {
    BaseLib::Logger(file, line, level).stream() << text.data();
  } catch (...) {
    // No memory to build the line with: the operation goes on without it.
  }
}

// Deployed systems rely on the bare key at this level, so the text has nothing around it.
void log_key_as_format(const char* key) noexcept {
  if (is_logged(BaseLib::Logger::ERROR)) {
    std::array<char, log_buffer_size> text;
    expand_key_format(key, text);
    RUVO_LOG(ERROR, "%s", text.data());
  }
}
