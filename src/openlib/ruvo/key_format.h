// Expansion of a key that the log uses as a format.
#ifndef RUVO_KEY_FORMAT_H
#define RUVO_KEY_FORMAT_H

#include <array>

constexpr int log_buffer_size = 1024;  // bytes of one log text, including its terminating zero

// Expands `key` as printf would if every argument were zero or a null pointer: "%%" gives "%", "%s"
// "(null)", "%d" "0". "%n" gives nothing and writes nowhere. All other text stays unchanged. No
// argument is read, widths and precisions are capped at the buffer size, and no more directives are
// expanded than the buffer has bytes, so that no key can reach the stack or block the caller.
void expand_key_format(const char* key, std::array<char, log_buffer_size>& text) noexcept;

#endif
