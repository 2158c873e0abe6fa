// What must not compile, each with the sentence that tells why. scripts/check_cpp.sh sets MISTAKE
// to each number below; 0 is the same without a mistake.
#include <ruvo/ruvo.hpp>

using namespace std::chrono_literals;

namespace {

[[maybe_unused]] ruvo::pool temp(eTempServer);
enum class Colour { red };

}  // namespace

void mistake() {
#if MISTAKE == 0
  temp.set("k", "v", 5s);
  temp.expire("k", 0s);
  temp.command("SET", "k", 5);
#elif MISTAKE == 1   // the time is too short
  temp.set("k", "v", -5s);
#elif MISTAKE == 2   // the time is too short
  temp.hset("k", "f", "v", 0min);
#elif MISTAKE == 3   // the time is too short
  temp.lpush("k", "v", -1h);
#elif MISTAKE == 4   // the time is too short
  temp.expire("k", -1s);
#elif MISTAKE == 5   // a word of a command is a text or a whole number
  temp.command("SET", "k", 1.5);
#elif MISTAKE == 6   // a word of a command is a text or a whole number
  temp.command("SET", "k", 'v');
#elif MISTAKE == 7   // a word of a command is a text or a whole number
  temp.command("SET", "k", true);
#elif MISTAKE == 8   // a word of a command is a text or a whole number
  temp.command("SET", "k", nullptr);
#elif MISTAKE == 9   // a word of a command is a text or a whole number
  temp.command("SET", "k", Colour::red);
#elif MISTAKE == 10  // a command has at least one word
  temp.command();
#endif
}
