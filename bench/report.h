// Reports the measured cases: lines on the console, rows of a file.
#ifndef RUVO_BENCH_REPORT_H
#define RUVO_BENCH_REPORT_H

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "measurement.h"

// Prints the column heads for cases of these sides.
void print_head(const char* title, const std::vector<Side>& sides);
void print(const Case& one, const Result& result);

// A row for each side of a case, with quartiles; bench/tables.py makes the tables from it.
class Csv {
 public:
  explicit Csv(const std::string& path);  // no path: nothing is written
  void write(const Case& one, const Result& result);

 private:
  void write(const Spread& spread, int digits);

  std::unique_ptr<FILE, decltype(&std::fclose)> file_;
};

#endif
