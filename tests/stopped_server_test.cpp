// One of two servers stops below a host with the keys of a new site.
#include "stopped_server.h"

#include <gtest/gtest.h>

namespace {

struct Worst {
  double share;
  SecondOfCalls second;
};

Worst run_once() {
  StoppedServer run;
  run.before = 2;
  run.stopped = 5;
  run.after = 1;
  run.keys = keys_of_a_new_site;
  const std::vector<SecondOfCalls> seconds = calls_with_a_stopped_server(run);
  return {worst_share(seconds, run.before, run.before + 2, run.before + run.stopped, 3),
          worst_of(seconds)};
}

TEST(StoppedServer, CostsAHostTwoSeconds) {
  constexpr double longest_ms = new_site_call_timeout_ms + stopped_socket_timeout_ms;
  Worst worst = run_once();
  // What else the machine does may spoil a run; it does not spoil three.
  for (int i = 0; i < 2 && (worst.share < 0.9 || worst.second.slowest_ms > longest_ms); ++i) {
    worst = run_once();
  }
  EXPECT_GE(worst.share, 0.9);
  EXPECT_LE(worst.second.slowest_ms, longest_ms);
  EXPECT_LE(worst.second.lines, 100);
  EXPECT_EQ(worst.second.failed, 0);
}

}  // namespace
