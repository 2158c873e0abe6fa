#include "verdict.h"

namespace {

constexpr long allocated_tolerance = 256L * 1024;      // the C library's caches of the main thread
constexpr long resident_tolerance = 8L * 1024 * 1024;  // pages that it keeps for itself

}  // namespace

Condition condition_without_faults(const Totals& totals) {
  return {totals.failed + totals.wrong_values == 0 && totals.all_operations() > 0,
          "no failed call and no wrong value without faults"};
}

std::vector<Condition> conditions_of(const RunFacts& run) {
  std::vector<Condition> conditions{
      {run.totals.wrong_values == 0 && run.totals.values_checked > 0, "no wrong value"},
      {run.totals.increments_lost == 0, "every acknowledged increment stored"},
      {run.judge.too_long() == 0, "every call within its upper bound"},
  };
  const client_options& options = run.site.settings.options;
  if (options.send_once) {
    conditions.push_back({run.totals.increments_extra == 0, "no increment counted twice"});
  }
  if (options.wait_for_servers) {
    conditions.push_back(
        {run.judge.waited_again() == 0, "each thread waited at most once in an outage"});
  }
  if (!run.site.outage_expected) {
    conditions.push_back(
        {run.judge.failures(unexplained) == 0, "no call failed except where the rules allow it"});
  }
  if (!run.has_outside_faults) {
    conditions.push_back(
        {run.judge.failed_without_fault() == 0, "no server given up while it was up"});
  }
  if (!options.try_ejected_servers) {  // with it, a reply may end an ejection without a log line
    conditions.push_back({run.events.ejected.empty(), "every ejection followed by a retry"});
  }
  conditions.insert(
      conditions.end(),
      {{run.failed_late == 0 && run.done_late > 0, "calls succeed again after the last fault"},
       {run.after.descriptors == run.before.descriptors, "descriptors as at the start"},
       {run.after.allocated <= run.before.allocated + allocated_tolerance,
        "allocated memory as at the start, within 256 KiB"}});
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // they keep what is freed
  conditions.push_back({run.after.resident <= run.before.resident + resident_tolerance,
                        "resident memory as at the start, within 8 MiB"});
#endif
  return conditions;
}
