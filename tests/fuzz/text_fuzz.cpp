// The splitter and the trimmer. The first byte of the input is the separator.
#include <cstdint>

#include "require.h"
#include "sutils.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) {
    return 0;
  }
  const std::string separator(1, static_cast<char>(data[0]));
  std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
  text.resize(std::strlen(text.c_str()));
  sp::str_arr pieces;
  sp::split_str(text.c_str(), pieces, separator.c_str());
  sp::str_arr expected;
  for (std::size_t at = 0; !text.empty() && at != std::string::npos;) {
    const std::size_t end = data[0] != 0 ? text.find(separator, at) : std::string::npos;
    // The same trimmer, in place on a buffer of exactly the piece's size.
    std::string piece = text.substr(at, end - at);
    std::vector<char> buffer(piece.c_str(), piece.c_str() + piece.size() + 1);
    sp::trim_str(buffer.data());
    expected.emplace_back(buffer.data());
    at = end == std::string::npos ? end : end + 1;
  }
  require(pieces == expected, "the text is split at each separator");
  for (const std::string& piece : pieces) {
    require(piece.empty() || (static_cast<unsigned char>(piece.front()) > ' ' &&
                              static_cast<unsigned char>(piece.back()) > ' '),
            "each piece is trimmed");
  }
  return 0;
}
