// A host that answers requests from its input, one on each line: login, who and logout, for any
// number of users.
//
//   login_host [LOCAL-CONFIGURATION]     (sruvo.conf)
#include <stream_log/logger.h>

#include <iostream>
#include <ruvo/ruvo.hpp>

#include "login_service.h"

int main(int argc, char** argv) {
  BaseLib::Logger::setLogLevel(BaseLib::Logger::WARN);
  const ruvo::library library(argc > 1 ? argv[1] : "sruvo.conf");
  if (!library) {
    std::cerr << library.error().message() << '\n';
    return 1;
  }
  const login_service<ruvo::pool> service{ruvo::pool(eTempServer)};
  for (std::string line; std::getline(std::cin, line);) {
    std::cout << service.answer(line) << std::endl;
  }
}
