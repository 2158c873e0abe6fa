// Code that must not compile: the lines with the mark "//!", each by itself. What follows the mark
// is the compiler's message (a regular expression), after its name if only one compiler reports it.
// scripts/check_cpp.sh compiles the file without a mistake first, which shows what must compile.
#include <ruvo/ruvo.hpp>

using namespace std::chrono_literals;

namespace {

const ruvo::pool temp(eTempServer);
[[maybe_unused]] const std::map<std::string, std::string> fields = {{"f", "v"}};
[[maybe_unused]] const std::map<std::string, std::vector<std::string>> nested;
[[maybe_unused]] const std::vector<std::string> names = {"a", "b"};
enum class Colour { red };
struct Point {};

template <typename T>
void keep(const T&) {}

}  // namespace

#ifndef MISTAKE
void no_mistake() {
  keep(temp.set(std::string_view("k"), {"v", 1}, 1500ms));
  keep(temp.expire("k", 0s));
  keep(temp.command("SET", "k", 5, 1.5, names, fields));
  keep(temp.hset("k", fields, 1min));
  keep(temp.mget({"a", "b"}));
  for (const ruvo::reply_view one : *temp.command("MGET", names)) {
    keep(one.text());
  }
  keep(temp.command("GET", "k")->text() == "v");
}
#endif

void mistakes() {
  [[maybe_unused]] ruvo::reply_view view;
  // Times
  keep(temp.set("k", "v", -5s));                  //! the time is too short
  keep(temp.hset("k", "f", "v", 0min));           //! the time is too short
  keep(temp.lpush("k", "v", -1h));                //! the time is too short
  keep(temp.expire("k", -1s));                    //! the time is too short
  keep(temp.set("k", "v", 0ms));                  //! the time is too short
  keep(temp.set("k", "v", 0s, ruvo::if_absent));  //! the time is too short
  keep(temp.increment("k", 1, 0s));               //! the time is too short
  keep(temp.hset("k", fields, 0s));               //! the time is too short
  keep(temp.set("k", "v", 5));                    //! no matching (member )?function
  keep(temp.increment("k", 5s));                  //! no matching (member )?function
  // What is no text, no word, no list
  keep(temp.set("hits", 0));                      //! a value is a text
  keep(temp.append("k", nullptr));                //! a value is a text
  keep(temp.get(0));                              //! a key is a text
  keep(temp.hset("k", nullptr, "v"));             //! a value is a text
  keep(temp.lpush("k", 0));                       //! a value is a text
  keep(temp.sadd("k", nullptr));                  //! a value is a text
  keep(temp.mset({{"k", 0}}));                    //! a value is a text
  keep(temp.command("SET", "k", 'v'));            //! a word of a command is a text or a number
  keep(temp.command("SET", "k", true));           //! a word of a command is a text or a number
  keep(temp.command("SET", "k", nullptr));        //! a word of a command is a text or a number
  keep(temp.ask<void>("SET", "k", Colour::red));  //! a word of a command is a text or a number
  keep(ruvo::words("SET", "k").add(nullptr));     //! a word of a command is a text or a number
  keep(temp.command());                           //! a command has at least one word
  keep(temp.ask<Point>("GET", "k"));              //! ask gives void, bool, numbers
  keep(temp.mget("k"));                           //! keys are a range
  keep(temp.remove(fields));                      //! keys are a range of texts
  keep(temp.mset(names));                         //! what is set is a range of pairs
  keep(temp.mset(nested));                        //! what is set is a range of pairs
  keep(temp.hset("k", "f", 5s));                  //! what is set is a range of pairs
  // Results that are dropped or misread
  temp.set("k", "v");                                      //! unused-result
  temp.remove("k");                                        //! unused-result
  temp.sadd("k", "m");                                     //! unused-result
  temp.ask<void>("DEL", "k");                              //! unused-result
  ruvo::library("sruvo.conf");                             //! unused-(result|value)
  keep(temp.exists("k") ? 1 : 2);                          //! deleted function
  keep(!temp.sismember("admins", "eve"));                  //! deleted function
  keep(temp.hexists("k", "f") && temp.hexists("k", "g"));  //! deleted function
  const bool is_known = temp.exists("k");                  //! (cannot convert|no viable conversion)
  // Dangling views
  const std::string_view value = *temp.get("k");              //! deleted
  const std::string_view text = temp.get("k").value();        //! deleted
  keep((*temp.get("k")).data());                              //! deleted
  const ruvo::reply_view answer = *temp.command("GET", "k");  //! deleted
  view = *temp.command("GET", "k");                           //! deleted
  keep((*temp.command("GET", "k")).text());                   //! deleted
  keep((*temp.command("MGET", names))[0]);                    //! deleted
  keep(temp.command("MGET", names).value().begin());          //! deleted
  const auto answer = temp.command("GET", "k")->text();   //! clang++: (temporary|object backing)
  const char* data = temp.get("k")->data();               //! clang++: (temporary|object backing)
  std::string_view job = temp.rpop("jobs").value_or("");  //! clang++: (temporary|object backing)
}
