#include <ruvo/ruvo.hpp>

#include <iostream>

int main() {
  const ruvo::pool temp(eTempServer);
  const auto stored = temp.set("k", "v", std::chrono::minutes(1));
  std::cout << "from C++17: " << stored.error().message() << '\n';
  return stored.code() == RUVO_ERR_NOT_INITIALIZED ? 0 : 1;
}
