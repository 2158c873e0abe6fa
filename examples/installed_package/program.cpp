#include <ruvo/busin_config.h>
#include <ruvo/ruvo.h>
#include <ruvo/sutils.h>
#include <stream_log/logger.h>

#include <cstdio>

namespace {

int error_lines = 0;

void count(BaseLib::Logger::LogLevel level, const char*, std::size_t) {
  error_lines += level == BaseLib::Logger::ERROR ? 1 : 0;
}

bool check(bool right, const char* what) {
  if (!right) std::printf("program: failed: %s\n", what);
  return right;
}

}  // namespace

int main() {
  BaseLib::Logger::setOutput(count);
  bool good = check(RUVO_Fini() == RUVO_ERR_NOT_INITIALIZED, "Fini before Init");
  good &= check(error_lines == 1, "the library writes through the host's output");
  vop_config config;
  good &= check(config.open("[s]\nk = 7", true) == 0 && config.get_int_val("s", "k", 0) == 7,
                "the reader reads");
  good &= check(Busin_Conf_Instance() != nullptr, "the shared reader is there");
  sp::str_arr pieces;
  sp::split_str("a,b", pieces, ",");
  good &= check(pieces.size() == 2, "the splitter splits");
  return good ? 0 : 1;
}
