// The verdict of ruvo_chaos, on runs that break its conditions one by one.
#include "verdict.h"

#include <gtest/gtest.h>

#include <thread>

#include "logger.h"

namespace {

using std::chrono::milliseconds;

constexpr std::int64_t no_call = 0;
const Call typed{strings, "set", eTempServer};

Site site_of_two() {
  class IdleTarget : public Target {
   public:
    using Target::Target;
    void inject(Fault /*fault*/) override {}
    void clear(Fault /*fault*/) override {}
  };
  Site site;
  for (auto& pool : site.pools) {
    pool.push_back(std::make_unique<IdleTarget>("127.0.0.1:1"));
    pool.push_back(std::make_unique<IdleTarget>("127.0.0.1:2"));
  }
  return site;
}

std::string broken_conditions(const RunFacts& run) {
  std::string broken;
  for (const Condition& condition : conditions_of(run)) {
    broken += condition.held ? "" : condition.text;
  }
  return broken;
}

TEST(Verdict, EachConditionCanBeBroken) {
  Site site = site_of_two();
  client_options& options = site.settings.options;
  FaultRecord faults(false);
  const Judge idle(site, faults, 4);
  open_walk_log("");
  testing::internal::CaptureStdout();
  const Totals good{.values_checked = 1};
  const Totals wrong{.values_checked = 9, .wrong_values = 1};
  const Totals unchecked;
  const Totals lost{.values_checked = 1, .increments_lost = 1};
  const Totals extra{.values_checked = 1, .increments_extra = 1};
  Judge slow(site, faults, 4);
  Judge failing(site, faults, 4);
  Judge giving_up(site, faults, 4);
  Judge waiting(site, faults, 4);
  failing.call_begins(typed);
  failing.call_ended(typed, RUVO_ERR_FAILED);
  giving_up.call_begins(typed);
  BaseLib::Logger("x.cpp", 1, BaseLib::Logger::WARN).stream()
      << "ruvo_redis::do_exec_command | key:k, null reply and reset connection to server 127.0.0.1 "
         "port:1 failed.";
  giving_up.call_ended(typed, RUVO_OK);
  site.settings.connect_timeout_ms = site.settings.socket_timeout_ms = 0;
  slow.call_begins(typed);
  std::this_thread::sleep_for(milliseconds(1));
  slow.call_ended(typed, RUVO_OK);
  options.call_timeout = 2;
  faults.begin_outage(eTempServer);
  for (int call = 0; call < 2; ++call) {
    waiting.call_begins(typed);
    std::this_thread::sleep_for(milliseconds(2));
    waiting.call_ended(typed, RUVO_ERR_FAILED);
  }
  site.settings = Settings();
  options.send_once = options.wait_for_servers = true;
  close_walk_log();
  testing::internal::GetCapturedStdout();
  const ServerEvents none;
  const ServerEvents ejected{.ejected = {"127.0.0.1:1"}};
  const Resources held{10, 1L << 20, 1L << 30};
  const Resources descriptors{11, held.allocated, held.resident};
  const Resources tolerated{10, held.allocated + (256L << 10), held.resident + (8L << 20)};
  const Resources allocated{10, tolerated.allocated + 1, held.resident};
  [[maybe_unused]] const Resources resident{10, held.allocated, tolerated.resident + 1};
  // clang-format off
  const struct { RunFacts run; std::string broken; } cases[] = {
      {{site, good, idle, none, false, 0, 1, held, held}, ""},
      {{site, good, idle, none, false, 0, 1, held, tolerated}, ""},
      {{site, wrong, idle, none, false, 0, 1, held, held}, "no wrong value"},
      {{site, unchecked, idle, none, false, 0, 1, held, held}, "no wrong value"},
      {{site, lost, idle, none, false, 0, 1, held, held}, "every acknowledged increment stored"},
      {{site, extra, idle, none, false, 0, 1, held, held}, "no increment counted twice"},
      {{site, good, waiting, none, false, 0, 1, held, held}, "each thread waited at most once in an outage"},
      {{site, good, slow, none, false, 0, 1, held, held}, "every call within its upper bound"},
      {{site, good, failing, none, false, 0, 1, held, held}, "no call failed except where the rules allow it"},
      {{site, good, giving_up, none, false, 0, 1, held, held}, "no server given up while it was up"},
      {{site, good, giving_up, none, true, 0, 1, held, held}, ""},
      {{site, good, idle, ejected, false, 0, 1, held, held}, "every ejection followed by a retry"},
      {{site, good, idle, none, false, 1, 1, held, held}, "calls succeed again after the last fault"},
      {{site, good, idle, none, false, 0, no_call, held, held}, "calls succeed again after the last fault"},
      {{site, good, idle, none, false, 0, 1, held, descriptors}, "descriptors as at the start"},
      {{site, good, idle, none, false, 0, 1, descriptors, held}, "descriptors as at the start"},
      {{site, good, idle, none, false, 0, 1, held, allocated}, "allocated memory as at the start, within 256 KiB"},
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
      {{site, good, idle, none, false, 0, 1, held, resident}, "resident memory as at the start, within 8 MiB"},
#endif
  };
  // clang-format on
  for (const auto& [run, broken] : cases) {
    EXPECT_EQ(broken_conditions(run), broken);
  }
  site.outage_expected = true;
  options.send_once = options.wait_for_servers = false;
  for (const RunFacts& allowed : {RunFacts{site, good, failing, none, false, 0, 1, held, held},
                                  RunFacts{site, good, waiting, none, false, 0, 1, held, held},
                                  RunFacts{site, extra, idle, none, false, 0, 1, held, held}}) {
    EXPECT_EQ(broken_conditions(allowed), "");
  }
}

TEST(Verdict, AWarmUpNeedsCallsAndNoFailure) {
  Totals totals;
  EXPECT_FALSE(condition_without_faults(totals).held);
  totals.operations[sets] = 1;
  EXPECT_TRUE(condition_without_faults(totals).held);
  for (auto* count : {&totals.failed, &totals.wrong_values}) {
    *count = 1;
    EXPECT_FALSE(condition_without_faults(totals).held);
    *count = 0;
  }
}

}  // namespace
