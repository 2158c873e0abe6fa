// The smallest host, complete: stores a value and reads it back.
//
//   quick_start [LOCAL-CONFIGURATION]     (sruvo.conf)
#include <ruvo/ruvo.h>
#include <stream_log/logger.h>

#include <cstdio>

int main(int argc, char** argv) {
  BaseLib::Logger::setLogLevel(BaseLib::Logger::WARN);
  if (const int ret = RUVO_Init(argc > 1 ? argv[1] : "sruvo.conf")) {
    std::printf("RUVO_Init: %s\n", ruvo_result_text(ret));
    return 1;
  }
  RUVO_InsertKey("user:7", "Ada", 3, 3600, eTempServer, nullptr);

  const char* data = nullptr;
  unsigned long len = 0;
  if (RUVO_QueryKey("user:7", &data, &len, eTempServer, nullptr) == RUVO_OK) {
    std::printf("user:7 is %.*s\n", static_cast<int>(len), data);
    RUVO_FreeResult(data);
  }
  return RUVO_Fini();
}
