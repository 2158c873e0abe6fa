// A host that keeps the library's log in a file of its own, with the sink and the lock that the
// library provides.
//
//   log_file_host /tmp/app.log /etc/ruvo/sruvo.conf
#include <ruvo/log_io.h>
#include <stream_log/logger.h>
#include <ruvo/ruvo.hpp>

#include <cstdio>
#include <system_error>

namespace {

constexpr long largest_log = 10L * 1024 * 1024;  // bytes; a larger one is emptied

Log_Thread_Mutex lock;
Log_IO_FILE sink;

// Called from every thread that logs. The sink takes no lock by itself, so its user does.
void to_file(BaseLib::Logger::LogLevel level, const char* line, std::size_t length) {
  sink.mutex()->acquire(0);
  if (sink.size() > largest_log) {
    sink.empty();
  }
  sink.write(line, length);
  if (level >= BaseLib::Logger::ERROR) {
    sink.flush();
  }
  sink.mutex()->release();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: log_file_host LOG-FILE LOCAL-CONFIGURATION\n");
    return 2;
  }
  lock.open(nullptr);
  if (const int error = sink.open(argv[1], &lock, 0, 0)) {
    std::fprintf(stderr, "log_file_host: %s: %s\n", argv[1],
                 std::generic_category().message(error).c_str());
    return 1;
  }
  BaseLib::Logger::setOutput(to_file);

  int code = 0;
  {
    const ruvo::library library(argv[2]);
    std::printf("start-up: %s; the log is in %s\n", library.error().message().c_str(), argv[1]);
    code = library.code();
  }  // the library ends here, before the log

  BaseLib::Logger::setOutput(nullptr);
  sink.close();
  lock.close(false);
  return code == RUVO_OK ? 0 : 1;
}
