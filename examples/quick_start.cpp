// The smallest complete host: stores a value and reads it back.
//
//   quick_start [LOCAL-CONFIGURATION]     (sruvo.conf)
#include <stream_log/logger.h>
#include <ruvo/ruvo.hpp>

#include <iostream>

int main(int argc, char** argv) {
  BaseLib::Logger::setLogLevel(BaseLib::Logger::WARN);
  const ruvo::library library(argc > 1 ? argv[1] : "sruvo.conf");
  if (!library) {
    std::cerr << library.error().message() << '\n';
    return 1;
  }
  const ruvo::pool temp(eTempServer);
  if (const auto stored = temp.set("user:7", "Ada", std::chrono::hours(1)); !stored) {
    std::cerr << "not stored: " << stored.error().message() << '\n';
    return 1;
  }
  if (const auto name = temp.get("user:7")) {
    std::cout << "user:7 is " << *name << '\n';
  }
}
