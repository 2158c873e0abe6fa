// Code that must not compile, each with the compiler's message (a regular expression) and, if only
// one compiler reports it, that compiler. scripts/check_cpp.sh sets MISTAKE to each number below; 0
// is the code without a mistake.
#include <ruvo/ruvo.hpp>

using namespace std::chrono_literals;

namespace {

const ruvo::pool temp(eTempServer);
[[maybe_unused]] const std::map<std::string, std::string> fields = {{"f", "v"}};
[[maybe_unused]] const std::vector<std::string> names = {"a", "b"};
enum class Colour { red };
struct Point {};

template <typename T>
void keep(const T&) {}

}  // namespace

void mistake() {
#if MISTAKE == 0
  keep(temp.set("k", "v", 5s));
  keep(temp.set("k", "v", 5ms, ruvo::if_absent));
  keep(temp.set(std::string_view("k"), {"v", 1}, 1500ms));
  keep(temp.expire("k", 0s));
  keep(temp.command("SET", "k", 5, 1.5, names, fields));
  keep(temp.hset("k", fields, 1min));
  keep(temp.mget({"a", "b"}));
  keep(temp.get("k").value_or({}));
  keep(std::string(*temp.get("k")));
  if (temp.exists("k").yes() || temp.sismember("k", "m").no()) {
    (void)temp.remove("k");
  }
  for (const std::string& one : temp.lrange("k", 0, -1).value_or({})) {
    keep(one);
  }
  for (const ruvo::reply_view one : *temp.command("MGET", names)) {
    keep(one.text());
  }
  keep(temp.command("GET", "k")->text() == "v");

// Times
#elif MISTAKE == 1   // the time is too short
  keep(temp.set("k", "v", -5s));
#elif MISTAKE == 2   // the time is too short
  keep(temp.hset("k", "f", "v", 0min));
#elif MISTAKE == 3   // the time is too short
  keep(temp.lpush("k", "v", -1h));
#elif MISTAKE == 4   // the time is too short
  keep(temp.expire("k", -1s));
#elif MISTAKE == 5   // the time is too short
  keep(temp.set("k", "v", 0ms));
#elif MISTAKE == 6   // the time is too short
  keep(temp.set("k", "v", 0s, ruvo::if_absent));
#elif MISTAKE == 7   // the time is too short
  keep(temp.increment("k", 1, 0s));
#elif MISTAKE == 8   // the time is too short
  keep(temp.hset("k", fields, 0s));
#elif MISTAKE == 9   // no matching (member )?function
  keep(temp.set("k", "v", 5));
#elif MISTAKE == 10  // no matching (member )?function
  keep(temp.increment("k", 5s));

// What is no text, no word, no list
#elif MISTAKE == 11  // ruvo: a value is a text
  keep(temp.set("hits", 0));
#elif MISTAKE == 12  // ruvo: a value is a text
  keep(temp.append("k", nullptr));
#elif MISTAKE == 13  // ruvo: a key is a text
  keep(temp.get(0));
#elif MISTAKE == 14  // ruvo: a value is a text
  keep(temp.hset("k", nullptr, "v"));
#elif MISTAKE == 15  // ruvo: a value is a text
  keep(temp.lpush("k", 0));
#elif MISTAKE == 16  // ruvo: a value is a text
  keep(temp.sadd("k", nullptr));
#elif MISTAKE == 17  // ruvo: a value is a text
  keep(temp.mset({{"k", 0}}));
#elif MISTAKE == 18  // ruvo: a word of a command is a text or a number
  keep(temp.command("SET", "k", 'v'));
#elif MISTAKE == 19  // ruvo: a word of a command is a text or a number
  keep(temp.command("SET", "k", true));
#elif MISTAKE == 20  // ruvo: a word of a command is a text or a number
  keep(temp.command("SET", "k", nullptr));
#elif MISTAKE == 21  // ruvo: a word of a command is a text or a number
  keep(temp.ask<void>("SET", "k", Colour::red));
#elif MISTAKE == 22  // ruvo: a word of a command is a text or a number
  keep(ruvo::words("SET", "k").add(nullptr));
#elif MISTAKE == 23  // ruvo: a command has at least one word
  keep(temp.command());
#elif MISTAKE == 24  // ruvo: ask gives void, bool, numbers
  keep(temp.ask<Point>("GET", "k"));
#elif MISTAKE == 25  // ruvo: keys are a range
  keep(temp.mget("k"));
#elif MISTAKE == 26  // ruvo: what is set is a range of pairs
  keep(temp.mset(names));
#elif MISTAKE == 27  // ruvo: what is set is a range of pairs
  keep(temp.hset("k", "f", 5s));

#elif MISTAKE == 48  // ruvo: keys are a range of texts
  keep(temp.remove(fields));
#elif MISTAKE == 49  // ruvo: what is set is a range of pairs
  keep(temp.mset(std::map<std::string, std::vector<std::string> >()));

// Results that are dropped or misread
#elif MISTAKE == 28  // unused-result
  temp.set("k", "v");
#elif MISTAKE == 29  // unused-result
  temp.remove("k");
#elif MISTAKE == 30  // unused-result
  temp.sadd("k", "m");
#elif MISTAKE == 31  // unused-result
  temp.ask<void>("DEL", "k");
#elif MISTAKE == 32  // unused-(result|value)
  ruvo::library("sruvo.conf");
#elif MISTAKE == 33  // deleted function
  if (temp.exists("k")) {
  }
#elif MISTAKE == 34  // deleted function
  if (!temp.sismember("admins", "eve")) {
  }
#elif MISTAKE == 35  // (cannot convert|no viable conversion)
  const bool is_known = temp.exists("k");
  keep(is_known);
#elif MISTAKE == 36  // deleted function
  keep(temp.hexists("k", "f") && temp.hexists("k", "g"));

// Dangling views
#elif MISTAKE == 37  // deleted
  const std::string_view value = *temp.get("k");
  keep(value);
#elif MISTAKE == 38  // deleted
  const std::string_view value = temp.get("k").value();
  keep(value);
#elif MISTAKE == 39  // deleted
  keep((*temp.get("k")).data());
#elif MISTAKE == 40  // deleted
  const ruvo::reply_view answer = *temp.command("GET", "k");
  keep(answer);
#elif MISTAKE == 41  // deleted
  ruvo::reply_view answer;
  answer = *temp.command("GET", "k");
#elif MISTAKE == 42  // deleted
  keep((*temp.command("GET", "k")).text());
#elif MISTAKE == 43  // deleted
  keep((*temp.command("MGET", names))[0]);
#elif MISTAKE == 44  // deleted
  keep(temp.command("MGET", names).value().begin());
#elif MISTAKE == 45  // clang++: (temporary|object backing)
  const std::string_view text = temp.command("GET", "k")->text();
  keep(text);
#elif MISTAKE == 46  // clang++: (temporary|object backing)
  const char* data = temp.get("k")->data();
  keep(data);
#elif MISTAKE == 47  // clang++: (temporary|object backing)
  const std::string_view job = temp.rpop("jobs").value_or("");
  keep(job);
#endif
}
