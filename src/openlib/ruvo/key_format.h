// Expansion of a key that stands in the log as a format.
#ifndef RUVO_KEY_FORMAT_H
#define RUVO_KEY_FORMAT_H

#include <array>

constexpr int log_buffer_size = 1024;  // bytes of one log text, its terminating zero included

// Expands `key` as printf would if every argument that it asks for were zero or a null pointer:
// "%%" gives "%", "%s" "(null)", "%d" "0". "%n" gives nothing and writes nowhere. What is no
// directive stays as it stands. No argument is read, a width or precision is capped at the buffer,
// and no more directives are expanded than the buffer has bytes, so that no key can reach the stack
// or hold the caller.
void expand_key_format(const char* key, std::array<char, log_buffer_size>& text) noexcept;

#endif
