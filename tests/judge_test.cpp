// The judge of ruvo_chaos, on walks that break its rules one by one.
#include <gtest/gtest.h>

#include <functional>
#include <iostream>
#include <thread>

#include "judge.h"
#include "logger.h"

namespace {

using std::chrono::milliseconds;

const std::string one = "127.0.0.1:1";  // the two servers of each pool
const std::string two = "127.0.0.1:2";
const Call typed{strings, "set", eTempServer};
const Call raw_call{raw, "ask", eTempServer};

class IdleTarget : public Target {
 public:
  using Target::Target;
  void inject(Fault /*fault*/) override {}
  void clear(Fault /*fault*/) override {}
};

// ---- Lines as the library writes them ----

using Step = std::function<void(FaultRecord&)>;

Step line(const std::string& text) {
  return [text](FaultRecord&) {
    BaseLib::Logger("x.cpp", 1, BaseLib::Logger::WARN).stream() << "ruvo_redis::" << text;
  };
}
std::string place(const std::string& server) {
  return server.substr(0, server.find(':')) + " port:" + server.substr(server.find(':') + 1);
}
Step broken() { return line("do_exec_command | key:k, connection err,try reset,ret:1, err:x"); }
Step rebuild(const std::string& server) {
  return line("reset_connection | reset connection,ip:" + place(server));
}
Step no_rebuild(const std::string& server) {
  return line("do_exec_command | key:k, null reply and reset connection to server " +
              place(server) + " failed.");
}
Step skipped(const std::string& server) {
  return line("is_server_valid | server,ip:" + place(server) +
              " invalid, failure count:5, retry after 3 seconds");
}
Step retried(const std::string& server) {
  return line("is_server_valid | server, ip:" + place(server) + " start retry");
}
Step not_sent_again() { return line("do_exec_command | key:k, not sent again: it may have run"); }
Step timed_out() { return line("do_exec_command | key:k, call time-out of 9 ms has passed"); }
template <auto record, typename Argument>
Step recorded(Argument argument) {
  return [argument](FaultRecord& faults) { (faults.*record)(argument); };
}
constexpr auto fault_in = recorded<&FaultRecord::begin, std::string>;
constexpr auto end_of_fault = recorded<&FaultRecord::end, std::string>;
constexpr auto extra_reply_in = recorded<&FaultRecord::note_extra_reply, int>;
Step outage() { return recorded<&FaultRecord::begin_outage>(eTempServer); }
Step end_of_outage() { return recorded<&FaultRecord::end_outage>(eTempServer); }
Step wait_a_moment() {  // until the clock has moved on
  return [](FaultRecord&) {
    for (const Clock::time_point begin = Clock::now(); Clock::now() == begin;) {
    }
  };
}

class Judging : public testing::Test {
 protected:
  Judging() {
    for (auto& pool : site_.pools) {
      pool.push_back(std::make_unique<IdleTarget>(one));
      pool.push_back(std::make_unique<IdleTarget>(two));
    }
    open_walk_log("");
    testing::internal::CaptureStdout();
  }
  ~Judging() override {
    for (const std::string& server : {one, two}) {
      retried(server)(*faults_);
    }
    close_walk_log();
    printed();
    testing::internal::GetCapturedStdout();
  }
  // Runs `before`, then a call during which `during` happens.
  void judge(const std::vector<Step>& before, const std::vector<Step>& during,
             const Call& call = typed, int result = RUVO_ERR_FAILED) {
    for (const Step& step : before) {
      step(*faults_);
    }
    judge_->call_begins(call);
    for (const Step& step : during) {
      step(*faults_);
    }
    judge_->call_ended(call, result);
  }
  // The output since the last call, including the failures.
  static std::string printed() {
    std::string text = testing::internal::GetCapturedStdout();
    std::cerr << (HasFailure() ? text : "");
    testing::internal::CaptureStdout();
    return text;
  }

  Site site_;
  std::optional<FaultRecord> faults_{std::in_place, false};
  std::optional<Judge> judge_{std::in_place, site_, *faults_, 4};
};

TEST_F(Judging, AFailedCallIsAllowedOnlyByTheRulesOfFailover) {
  const Settings default_settings;
  Settings one_server_suffices;
  client_options& options = one_server_suffices.options;
  options.eject_silent_servers = options.try_ejected_servers = options.wait_for_servers = true;
  options.call_timeout = 60000;  // an outage of a moment counts as short
  Settings stays_in_pool = one_server_suffices;
  stays_in_pool.options.raw_commands_stay_in_pool = true;
  Settings does_not_wait = one_server_suffices;
  does_not_wait.options.wait_for_servers = false;
  Settings retries_at_once;
  retries_at_once.connect_timeout_ms = retries_at_once.socket_timeout_ms = 0;
  retries_at_once.retry_timeout_s = 0;
  const std::vector<Step> both_faulty{fault_in(one), fault_in(two)};
  const std::vector<Step> past_fault{fault_in(two), end_of_fault(two), wait_a_moment(),
                                     fault_in(one)};
  const std::vector<Step> both_tried{broken(), rebuild(one), no_rebuild(one), rebuild(two)};
  const std::vector<Step> one_tried{rebuild(one), skipped(two)};
  // clang-format off
  const struct { Settings settings; std::vector<Step> before; std::vector<Step> during; Call call; Failure why; } cases[] = {
      {default_settings, {}, {}, typed, unexplained},
      {default_settings, both_faulty, {}, typed, unexplained},
      {default_settings, both_faulty, both_tried, typed, each_had_a_fault},
      {default_settings, {}, {fault_in(one), rebuild(one), rebuild(two), fault_in(two)}, typed, each_had_a_fault},
      {default_settings, {}, both_tried, typed, unexplained},
      {default_settings, {fault_in(one)}, both_tried, typed, unexplained},
      {default_settings, both_faulty, {rebuild(one)}, typed, unexplained},
      {default_settings, both_faulty, {rebuild(one), rebuild(two), rebuild(one), rebuild(two)}, typed, visits_used_up},
      {default_settings, both_faulty, {rebuild(one), rebuild(two), rebuild(one)}, typed, each_had_a_fault},
      {default_settings, both_faulty, one_tried, typed, still_ejected},
      {default_settings, past_fault, one_tried, typed, still_ejected},
      {default_settings, {fault_in(one)}, one_tried, typed, unexplained},
      {retries_at_once, past_fault, one_tried, typed, unexplained},
      {default_settings, {fault_in(one)}, {rebuild(one), timed_out()}, typed, out_of_time},
      {default_settings, {fault_in(two)}, {rebuild(one), timed_out()}, typed, unexplained},
      {default_settings, {fault_in(one)}, {broken()}, raw_call, raw_back_at_start},
      {default_settings, {fault_in(one)}, {rebuild(one)}, raw_call, raw_back_at_start},
      {default_settings, {fault_in(one)}, {broken()}, typed, unexplained},
      {default_settings, {fault_in(one)}, {rebuild(two)}, raw_call, unexplained},
      {default_settings, {fault_in(one)}, {}, raw_call, unexplained},
      {one_server_suffices, both_faulty, both_tried, typed, unexplained},
      {one_server_suffices, both_faulty, {broken()}, raw_call, raw_back_at_start},
      {one_server_suffices, both_faulty, {broken(), outage()}, typed, unexplained},
      {one_server_suffices, past_fault, {broken(), not_sent_again()}, typed, may_have_run},
      {one_server_suffices, {}, {broken(), not_sent_again()}, typed, unexplained},
      {one_server_suffices, {extra_reply_in(eTempServer)}, {}, typed, out_of_step},
      {one_server_suffices, {}, {extra_reply_in(eTempServer)}, typed, out_of_step},
      {one_server_suffices, {extra_reply_in(ePersistServer)}, {}, typed, unexplained},
      {stays_in_pool, both_faulty, {broken()}, raw_call, unexplained},
      {does_not_wait, past_fault, one_tried, typed, still_ejected},
  };
  // clang-format on
  for (const auto& one_case : cases) {
    SCOPED_TRACE(&one_case - cases);
    site_.settings = one_case.settings;
    faults_.emplace(false);
    judge_.emplace(site_, *faults_, 4);
    judge(one_case.before, one_case.during, one_case.call);
    for (int why = 0; why < failure_count; ++why) {
      EXPECT_EQ(judge_->failures(static_cast<Failure>(why)), why == one_case.why)
          << failure_names[static_cast<std::size_t>(why)];
    }
    EXPECT_EQ(printed().find("FAILED WITHOUT REASON: ") != std::string::npos,
              one_case.why == unexplained);
  }
  site_.outage_expected = true;
  judge({}, {});
  EXPECT_EQ(judge_->failures(in_an_outage), 1);
}

TEST_F(Judging, OnlyAFailedCallIsAFailure) {
  for (const int result : {RUVO_OK, RUVO_ERR_NOT_FOUND, RUVO_NOTHING_DONE, RUVO_ABSENT}) {
    judge({}, {}, typed, result);
  }
  EXPECT_EQ(judge_->failures(unexplained), 0);
  judge({}, {rebuild(one), skipped(two)}, {lists, "push", ePersistServer});
  EXPECT_EQ(judge_->failures(unexplained), 1);
  const std::string output = printed();
  EXPECT_EQ(output.find("FAILED WITHOUT REASON: push, pool 2, after "), 0U) << output;
  EXPECT_TRUE(output.ends_with(" s; tried 127.0.0.1:1 skipped 127.0.0.1:2\n")) << output;
}

TEST_F(Judging, AServerMayBeGivenUpOnlyInAFault) {
  judge({fault_in(one)}, {rebuild(one), no_rebuild(one)}, typed, RUVO_OK);
  EXPECT_EQ(judge_->failed_without_fault(), 0);
  judge({}, {rebuild(two), no_rebuild(two), no_rebuild(one)}, typed, RUVO_OK);
  EXPECT_EQ(judge_->failed_without_fault(), 1);
  EXPECT_EQ(printed().find("NO CONNECTION TO A SERVER THAT IS UP: set, pool 1"), 0U);
  judge({end_of_fault(one), wait_a_moment()}, {no_rebuild(one)}, typed, RUVO_OK);
  EXPECT_EQ(judge_->failed_without_fault(), 2);
  const FaultRecord outside(true);
  EXPECT_TRUE(outside.touches(two, Clock::now(), Clock::now()));
}

TEST_F(Judging, AFaultExplainsNothingThatWasBeforeIt) {
  const Clock::time_point before = Clock::now() - std::chrono::hours(1);
  EXPECT_FALSE(faults_->may_be_out_of_step(eTempServer, Clock::time_point(), Clock::now()));
  for (const Step& step : {fault_in(two), outage(), extra_reply_in(eTempServer)}) {
    step(*faults_);
  }
  const Clock::time_point now = Clock::now();
  EXPECT_FALSE(faults_->touches(two, before, before));
  EXPECT_FALSE(faults_->outage_before(eTempServer, before, before));
  EXPECT_FALSE(faults_->may_be_out_of_step(eTempServer, before, before));
  EXPECT_TRUE(faults_->may_be_out_of_step(eTempServer, before, now));
  EXPECT_FALSE(faults_->may_be_out_of_step(eTempServer, now + 2 * out_of_step_window,
                                           now + 3 * out_of_step_window));
}

TEST_F(Judging, AfterALongOutageCallsFailUntilOneIsServed) {
  site_.settings.options.call_timeout = 100;
  const Step half_a_deadline = [](FaultRecord&) { std::this_thread::sleep_for(milliseconds(51)); };
  judge({outage(), half_a_deadline}, {});  // at once: the pool has been given up
  judge({}, {half_a_deadline});
  EXPECT_EQ(judge_->waited_again(), 0);
  judge({}, {half_a_deadline}, typed, RUVO_OK);
  EXPECT_EQ(judge_->waited_again(), 1);
  EXPECT_NE(printed().find("WAITED AGAIN IN THE SAME OUTAGE: set, pool 1"), std::string::npos);
  judge({end_of_outage(), wait_a_moment()}, {});
  EXPECT_EQ(judge_->failures(in_a_long_outage), 3);
  judge({}, {}, {strings, "set", ePersistServer});
  EXPECT_EQ(judge_->failures(unexplained), 1);
  judge({}, {}, typed, RUVO_ERR_NOT_FOUND);
  judge({}, {});
  EXPECT_EQ(judge_->failures(unexplained), 2);
  judge({outage(), half_a_deadline}, {half_a_deadline});  // another one
  EXPECT_EQ(judge_->failures(in_a_long_outage), 4);
  EXPECT_EQ(judge_->waited_again(), 1);
  judge({end_of_outage(), outage()}, {});  // still the same outage: no call was served in between
  EXPECT_EQ(judge_->failures(in_a_long_outage), 5);
  judge({end_of_outage(), wait_a_moment()}, {}, typed, RUVO_OK);
  judge({outage()}, {});
  EXPECT_EQ(judge_->failures(unexplained), 3);
}

TEST_F(Judging, ACallHasAnUpperBound) {
  const int late = static_cast<int>(scheduling_tolerance.count());
  // clang-format off
  const struct { int connect_ms; int socket_ms; int connections; int threads; bool pipelining; bool stays_in_pool; int call_ms; Call call; int bound_ms; } cases[] = {
      {400, 300, 2, 4, false, false, 0, typed, 2200 * 2 * 2 * 2},
      {400, 300, 2, 4, false, false, 0, raw_call, 2200 * 6 * 2 * 2},
      {400, 300, 2, 4, false, true, 0, raw_call, 2200 * 2 * 2 * 2},
      {400, 300, 2, 4, false, false, 0, {strings, "increase", 3}, 2 * 2200 * 2 * 2 * 2},
      {100, 0, 2, 5, false, false, 0, typed, 100 * 2 * 2 * 3},
      {400, 300, 1, 9, false, false, 0, typed, 2200 * 2 * 2 * 9},
      {400, 300, 1, 9, true, false, 0, typed, 2200 * 2 * 2 * 2},
      {400, 300, 9, 9, true, false, 0, typed, 2200 * 2 * 2},
      {400, 300, 1, 9, true, false, 1000, typed, 1000 + late},
      {400, 300, 1, 9, false, false, 1000, {strings, "increase", 1}, 1000 + late},
      {400, 300, 9, 9, true, false, 1000, raw_call, 1000 + late},
  };
  // clang-format on
  client_options& options = site_.settings.options;
  for (const auto& one_case : cases) {
    site_.settings.connect_timeout_ms = one_case.connect_ms;
    site_.settings.socket_timeout_ms = one_case.socket_ms;
    site_.settings.connections = one_case.connections;
    options.auto_pipelining = one_case.pipelining;
    options.raw_commands_stay_in_pool = one_case.stays_in_pool;
    options.call_timeout = one_case.call_ms;
    const Judge judge(site_, *faults_, one_case.threads);
    EXPECT_EQ(std::chrono::duration_cast<milliseconds>(judge.bound(one_case.call)).count(),
              one_case.bound_ms)
        << &one_case - cases;
  }
  EXPECT_EQ(Judge(site_, *faults_, 9).explain_bound(),
            "2 s: call_timeout, and 1000 ms to schedule the thread");
  options = {};
  EXPECT_EQ(Judge(site_, *faults_, 10).explain_bound(),
            "17.6 s for a typed command, 52.8 s for a raw one: 2 visits x servers x (C + 6 S) x 2 "
            "threads on a connection; C = 400 ms, S = 300 ms");
}

TEST_F(Judging, ALateCallAndOneThatHangsAreFound) {
  judge({}, {}, typed, RUVO_OK);
  EXPECT_EQ(judge_->too_long(), 0);
  judge_->call_begins(raw_call);
  EXPECT_FALSE(judge_->finds_hang());
  site_.settings.connect_timeout_ms = 1;
  site_.settings.socket_timeout_ms = 0;
  std::this_thread::sleep_for(judge_->bound(raw_call) + milliseconds(1));
  EXPECT_TRUE(judge_->finds_hang());
  EXPECT_EQ(judge_->longest_raw(), 0);
  judge_->call_ended(raw_call, RUVO_OK);
  EXPECT_FALSE(judge_->finds_hang());
  EXPECT_EQ(judge_->too_long(), 1);
  EXPECT_EQ(printed().find("TOO LONG: ask, pool 1"), 0U);
  const double longest = judge_->longest_raw();
  EXPECT_GT(longest, 0);
  EXPECT_LT(longest, 60);
  EXPECT_NE(judge_->longest_typed(), longest);
}

TEST_F(Judging, EachThreadsCallIsItsOwn) {
  const Clock::time_point before = Clock::now();
  wait_a_moment()(*faults_);
  judge_->call_begins(typed);
  rebuild(one)(*faults_);
  std::thread([this] { judge({}, {}, typed, RUVO_OK); }).join();
  EXPECT_FALSE(judge_->has_call_from_before(before));
  EXPECT_TRUE(judge_->has_call_from_before(Clock::now() + milliseconds(1)));
  EXPECT_TRUE(judge_->may_have_left_pool());
  judge_->call_ended(typed, RUVO_OK);
  EXPECT_FALSE(judge_->has_call_from_before(Clock::now() + milliseconds(1)));
  judge_->call_begins(typed);
  EXPECT_FALSE(judge_->may_have_left_pool());
  broken()(*faults_);
  EXPECT_TRUE(judge_->may_have_left_pool());
  judge_->call_ended(typed, RUVO_OK);
}

TEST_F(Judging, EjectionsAreFollowedFromTheLog) {
  const TempDir dir;
  const std::string path = dir.path("log");
  EXPECT_FALSE(open_walk_log(dir.path("none/log")));
  ASSERT_TRUE(open_walk_log(path));
  EXPECT_EQ(BaseLib::Logger::logLevel(), BaseLib::Logger::WARN);
  const ServerEvents before = server_events();
  judge({}, {skipped(one), skipped(one), skipped(two), retried(two)}, typed, RUVO_OK);
  ServerEvents events = server_events();
  EXPECT_EQ(events.ejected, std::set<std::string>{one});
  EXPECT_EQ(events.ejections - before.ejections, 2);
  EXPECT_EQ(events.retries - before.retries, 1);
  judge({fault_in(one)}, {rebuild(one), no_rebuild(one)}, typed, RUVO_OK);
  events = server_events();
  EXPECT_EQ(events.ejected, std::set<std::string>{one});
  EXPECT_EQ(events.rebuilds - before.rebuilds, 0);
  EXPECT_EQ(events.failed_rebuilds - before.failed_rebuilds, 1);
  judge({}, {rebuild(one), no_rebuild(one), rebuild(one)}, typed, RUVO_OK);  // up again
  events = server_events();
  EXPECT_TRUE(events.ejected.empty());
  EXPECT_EQ(events.rebuilds - before.rebuilds, 1);
  EXPECT_EQ(events.ended_by_rebuild - before.ended_by_rebuild, 1);
  close_walk_log();
  const std::string lines = content_of(path);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 4 + 2 + 3);
  open_walk_log("");
}

}  // namespace
