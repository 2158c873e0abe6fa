// The configuration reader: any text loads, from memory and from a file, and every look-up is safe.
#include <unistd.h>

#include <cstdint>
#include <cstdio>

#include "busin_config.h"
#include "require.h"

namespace {

using strings = std::vector<std::string>;

// Everything that can be read from a loaded configuration.
strings contents(const vop_config& config) {
  strings found;
  strings names;
  config.enum_sec_name(names);
  for (const std::string& name : names) {
    strings keys;
    require(config.enum_sec_key(name.c_str(), keys) == 0, "each section has its keys");
    for (const std::string& key : keys) {
      const char* value = config.get_str_val(name.c_str(), key.c_str());
      const int number = config.get_int_val(name.c_str(), key.c_str(), 7);
      found.push_back(name + "|" + key + "|" + (value != nullptr ? value : "") + "|" +
                      std::to_string(number) +
                      (config.get_bool_val(name.c_str(), key.c_str(), true) ? "t" : "f"));
    }
  }
  return found;
}

// Only if both forms see the same lines.
bool reads_alike(const std::string& text) {
  return text.find_first_of(std::string("\r\0", 2)) == std::string::npos && text.size() < 2047;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  if (text.c_str()[0] == '\0') {
    return 0;  // refused, with a line on the console
  }
  static const std::string path = "/tmp/ruvo-fuzz-" + std::to_string(getpid());
  FILE* file = std::fopen(path.c_str(), "w");
  require(file != nullptr && std::fwrite(data, 1, size, file) == size && std::fclose(file) == 0,
          "the file is written");
  vop_config from_file;
  vop_config from_text;
  require(from_file.open(path.c_str()) == 0 && from_text.open(text, true) == 0, "any text loads");
  unlink(path.c_str());
  const strings first = contents(from_file);
  const strings second = contents(from_text);
  require(!reads_alike(text) || first == second, "a file and a text are read alike");
  return 0;
}
