#include "stopped_server.h"

#include <ruvo/ruvo.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <numeric>
#include <stdexcept>

namespace {

long calls_in(const std::vector<SecondOfCalls>& seconds, int from, int to) {
  return std::accumulate(seconds.begin() + from, seconds.begin() + to, 0L,
                         [](long sum, const SecondOfCalls& one) { return sum + one.calls; });
}

}  // namespace

std::vector<SecondOfCalls> calls_with_a_stopped_server(const StoppedServer& run) {
  const RedisServer good;
  const RedisServer hangs;
  const std::string addrs = good.addr() + "," + hangs.addr();
  const HostConfig config("connect_timeout = 200\nsocket_timeout = 500\n" + run.keys +
                              pools_at(addrs, good.addr(), good.addr()),
                          "p_connect_num = 2");
  const std::chrono::seconds stop_at(run.before);
  const std::chrono::seconds go_on_at = stop_at + std::chrono::seconds(run.stopped);
  const std::chrono::seconds end = go_on_at + std::chrono::seconds(run.after);
  CallingHost host(config.path(), run.threads,
                   [](int) { return RUVO_ExistsKey("key", eTempServer, nullptr); });
  if (host.start_result() != RUVO_OK) {
    throw std::runtime_error(std::string("RUVO_Init: ") + ruvo_result_text(host.start_result()));
  }
  host.wait_until(stop_at);
  hangs.signal(SIGSTOP);
  host.wait_until(go_on_at);
  hangs.signal(SIGCONT);
  host.wait_until(end);
  host.stop();
  return host.seconds(static_cast<int>(end.count()));
}

double worst_share(const std::vector<SecondOfCalls>& seconds, int until, int from, int to,
                   int window) {
  const double usual = static_cast<double>(calls_in(seconds, 0, until)) / until * window;
  double worst = static_cast<double>(calls_in(seconds, from, from + window));
  for (int second = from; second + window <= to; ++second) {
    worst = std::min(worst, static_cast<double>(calls_in(seconds, second, second + window)));
  }
  return worst / usual;
}
