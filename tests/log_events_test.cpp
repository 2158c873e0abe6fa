// The reader of the library's log.
#include "log_events.h"

#include <gtest/gtest.h>

namespace {

using Fields = std::vector<std::pair<Field, std::string>>;

TEST(LogEvents, ALineBecomesAnEventWithItsServerAndItsNumbers) {
  using F = Field;
  using K = EventKind;
  // The fields are those besides address and port. The last rows are almost lines of the library.
  // clang-format off
  struct { const char* level; std::string text; K kind; std::string server; Fields others; }
      const cases[] = {
      {"ERROR", "t_par_val: 10.0.0.1:1\n", K::configured_servers, "",
       {{F::temp_servers, "10.0.0.1:1"}}},
      {"INFO",
       "ruvo_worker::init | get timeout cfg, connect_timeout:-1 (ms), socket_timeout:20 (ms)",
       K::timeouts, "", {{F::connect_timeout, "-1"}, {F::socket_timeout, "20"}}},
      {"INFO", "ruvo_redis::init | auto_pipelining:true, eject_silent_servers:false, "
       "try_ejected_servers:true, log_limit:10, call_timeout:0 (ms)", K::options, "",
       {{F::auto_pipelining, "true"}, {F::eject_silent_servers, "false"},
        {F::try_ejected_servers, "true"}, {F::log_limit, "10"}, {F::call_timeout, "0"}}},
      {"INFO", "ruvo_redis::init | raw_commands_stay_in_pool:true, start_without_servers:false, "
       "failover_replies:ERR max, number,READONLY, send_once:false, wait_for_servers:true, "
       "stats_file:-, slow_call_log:9 (ms)", K::options, "",
       {{F::raw_commands_stay_in_pool, "true"}, {F::start_without_servers, "false"},
        {F::failover_replies, "ERR max, number,READONLY"}, {F::send_once, "false"},
        {F::wait_for_servers, "true"}, {F::stats_file, "-"}, {F::slow_call_log, "9"}}},
      {"INFO", "ruvo_redis::init | temp_server addr = a:1,b:2, persist_server addr = c:3.",
       K::addresses, "", {{F::temp_servers, "a:1,b:2"}, {F::persist_servers, "c:3"}}},
      {"INFO", "ruvo_redis::init | temp_server addr = a:1,b", K::addresses, "",
       {{F::temp_servers, "a:1,b"}}},
      {"ERROR",
       "ruvo_redis::init_server_pool | connect to node h port:-2 failed, error code : port: none "
       "failed. Retry.", K::connect_failed, "h:-2", {{F::error, "port: none failed. Retry"}}},
      {"ERROR", "ruvo_redis::init | temp server pool init failed, 10405", K::pool_failed, "",
       {{F::pool, "temp"}, {F::code, "10405"}}},
      {"DEBUG", "ruvo_redis::get_server_node | try next server:10.0.0.1,port:6379",
       K::server_considered, "10.0.0.1:6379", {}},
      {"DEBUG", "ruvo_redis::get_conn | connection index: 3/16", K::connection_chosen, "",
       {{F::connection, "3"}, {F::connections, "16"}}},
      {"WARN",
       "ruvo_redis::is_server_valid | server,ip:h port:1 invalid, failure count:5, retry after 30 "
       "seconds", K::skipped, "h:1", {{F::failures, "5"}, {F::seconds, "30"}}},
      {"WARN", "ruvo_redis::is_server_valid | server, ip:h port:1 start retry", K::retry, "h:1",
       {}},
      {"WARN", "ruvo_redis::reset_connection | reset connection,ip:h port:1", K::rebuild, "h:1",
       {}},
      {"ERROR",
       "ruvo_redis::exec_redis_cmd | key:a key, null reply and reset connection to server h port:1 "
       "failed.", K::visit_failed, "h:1", {{F::origin, "exec_redis_cmd"}, {F::key, "a key"}}},
      {"INFO", "ruvo_redis::hash_set | do_exec_command success!", K::operation_done, "",
       {{F::origin, "ruvo_redis::hash_set"}}},
      {"WARN", "ruvo_redis::do_exec_command | key:k, call time-out of 50 ms has passed",
       K::call_timed_out, "",
       {{F::origin, "do_exec_command"}, {F::key, "k"}, {F::call_timeout, "50"}}},
      {"WARN",
       "ruvo_redis::log_limit | 18446744073709551615 lines like the next one were kept back",
       K::lines_suppressed, "", {{F::lines, "18446744073709551615"}}},
      {"WARN", "ruvo_redis::reset_connection | reset connection,ip:h port:", K::other, "", {}},
      {"WARN", "ruvo_redis::reset_connection | reset connection,ip:h port:1 ", K::other, "", {}},
      {"WARN", "ruvo_redis::log_limit | -", K::other, "", {}},
      {"ERROR", "a key that somebody chose", K::other, "", {}}, {"FATAL", "", K::other, "", {}},
  };
  // clang-format on
  const std::vector<std::string> levels{"TRACE", "DEBUG", "INFO", "WARN", "ERROR", "FATAL"};
  for (const auto& one : cases) {
    const LogEvent event = read_event("2026-01-02 03:04:05.000006 77 " + std::string(one.level) +
                                      " routing.cpp:1 " + one.text + "\n");
    EXPECT_EQ(event.text, one.text);
    EXPECT_EQ(event.kind, one.kind) << one.text;
    EXPECT_EQ(levels.at(static_cast<std::size_t>(event.level)), one.level) << one.text;
    EXPECT_EQ(event.server(), one.server) << one.text;
    Fields others = event.fields;
    std::erase_if(others,
                  [](const auto& field) { return field.first == F::ip || field.first == F::port; });
    EXPECT_EQ(others, one.others) << one.text;
  }
  for (const std::string cut : {"", "\n", "2026-01-02", "2026-01-02 03:04:05 77 WARN"}) {
    EXPECT_EQ(read_event(cut).kind, K::other) << cut;
  }
  EXPECT_EQ(read_event("").number(F::failures), 0);
}

}  // namespace
