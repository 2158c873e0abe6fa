#include "report.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <stdexcept>

namespace {

struct RatioColumn {
  const char* title;
  Side of;
  Side to;
};
constexpr std::array ratio_columns{
    RatioColumn{"library / hiredis", Side::library, Side::hiredis},
    RatioColumn{"library / pool", Side::library, Side::pool},
    RatioColumn{"pipelined / hiredis", Side::pipelined, Side::hiredis},
};

bool is_shown(const RatioColumn& column, const std::vector<Side>& sides) {
  const auto has = [&sides](Side side) {
    return std::find(sides.begin(), sides.end(), side) != sides.end();
  };
  return has(column.of) && has(column.to);
}

const SideResult& of(const Result& result, Side side) { return result[index_of(side)]; }

double us(const SideResult& side, double percent) {
  return static_cast<double>(side.latency.percentile(percent)) / 1000;
}

}  // namespace

void print_head(const char* title, const std::vector<Side>& sides) {
  std::printf("\n%s\n%-11s %7s %3s %4s %6s", title, "operation", "bytes", "thr", "conn", "RTT ms");
  for (const Side side : sides) {
    std::printf(" %9s/s %6s %6s", side_names[index_of(side)], "p50", "p99");
  }
  for (const RatioColumn& column : ratio_columns) {
    if (is_shown(column, sides)) {
      std::printf("  %-19s", column.title);
    }
  }
  std::puts("");
}

void print(const Case& one, const Result& result) {
  const std::chrono::duration<double, std::milli> round_trip = one.round_trip;
  std::printf("%-11s %7zu %3zu %4zu %6g", one.operation->name.c_str(), one.operation->bytes,
              one.threads, one.connections, round_trip.count());
  for (const Side side : one.sides) {
    const SideResult& row = of(result, side);
    std::printf(" %11.0f %6.0f %6.0f", row.calls_per_second.median, us(row, 50), us(row, 99));
  }
  for (const RatioColumn& column : ratio_columns) {
    if (is_shown(column, one.sides)) {
      const SideResult& to = of(result, column.to);
      const Spread& ratio = column.of == Side::library ? to.library_ratio : to.pipelined_ratio;
      std::printf("  %5.3f [%5.3f %5.3f]", ratio.median, ratio.lower, ratio.upper);
    }
  }
  std::puts("");
  std::fflush(stdout);
}

Csv::Csv(const std::string& path)
    : file_(std::fopen(path.empty() ? "/dev/null" : path.c_str(), "w"), std::fclose) {
  if (!file_) {
    throw std::runtime_error(path + " cannot be written");
  }
  std::fputs(
      "operation,bytes,threads,connections,log,round_trip_ms,side,calls_per_s,calls_per_s_q1,"
      "calls_per_s_q3,library_ratio,library_ratio_q1,library_ratio_q3,pipelined_ratio,"
      "pipelined_ratio_q1,pipelined_ratio_q3,cpu_us,library_cpu_us_more,p50_us,p90_us,p99_us,"
      "p999_us\n",
      file_.get());
}

void Csv::write(const Case& one, const Result& result) {
  const std::chrono::duration<double, std::milli> round_trip = one.round_trip;
  for (const Side side : one.sides) {
    const SideResult& row = of(result, side);
    std::fprintf(file_.get(), "%s,%zu,%zu,%zu,%s,%g,%s", one.operation->name.c_str(),
                 one.operation->bytes, one.threads, one.connections, one.info_log ? "INFO" : "WARN",
                 round_trip.count(), side_names[index_of(side)]);
    write(row.calls_per_second, 0);
    write(row.library_ratio, 4);
    write(row.pipelined_ratio, 4);
    std::fprintf(file_.get(), ",%.3f,%.3f,%.1f,%.1f,%.1f,%.1f\n", row.cpu_us.median,
                 row.cpu_us_difference.median, us(row, 50), us(row, 90), us(row, 99),
                 us(row, 99.9));
  }
  std::fflush(file_.get());
}

void Csv::write(const Spread& spread, int digits) {
  std::fprintf(file_.get(), ",%.*f,%.*f,%.*f", digits, spread.median, digits, spread.lower, digits,
               spread.upper);
}
