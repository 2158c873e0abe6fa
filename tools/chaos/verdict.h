// The conditions that a run must meet.
#ifndef RUVO_TOOLS_CHAOS_VERDICT_H
#define RUVO_TOOLS_CHAOS_VERDICT_H

#include <vector>

#include "judge.h"
#include "resources.h"

struct Condition {
  bool held;
  const char* text;
};

// For the warm-up, when no server has a fault.
Condition condition_without_faults(const Totals& totals);

struct RunFacts {
  const Site& site;
  const Totals& totals;
  const Judge& judge;
  const ServerEvents& events;
  bool has_outside_faults;  // others inject the faults
  // In the quiet period after the last fault:
  std::int64_t failed_late;
  std::int64_t done_late;
  // At the start and at the end:
  Resources before;
  Resources after;
};
std::vector<Condition> conditions_of(const RunFacts& run);

#endif
