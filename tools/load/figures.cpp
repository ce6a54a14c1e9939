#include "figures.h"

#include <fmt/format.h>

#include <algorithm>

namespace load {
namespace {

float share(const std::vector<float>& sorted, double part) {
  if (sorted.empty()) return 0;
  return sorted[std::min(sorted.size() - 1, static_cast<std::size_t>(part * static_cast<double>(sorted.size())))];
}

}  // namespace

Figures::Figures(std::FILE* csv) : csv_(csv) {
  if (csv_ != nullptr) fmt::print(csv_, "seconds,camera,path,status,milliseconds,error\n");
}

void Figures::note(double at_s, const std::string& hid, const std::string& path, const Outcome& outcome) {
  const std::lock_guard lock(mutex_);
  Row& row = rows_[path];
  if (outcome.status == 0) {
    ++row.failed;
    ++errors_[outcome.error];
  } else {
    row.took_ms.push_back(static_cast<float>(outcome.took_s * 1000));
    ++(outcome.status == 200 ? row.done : outcome.status == 401 ? row.challenged : row.refused);
  }
  if (csv_ != nullptr)
    fmt::print(csv_, "{:.3f},{},{},{},{:.1f},{}\n", at_s, hid, path, outcome.status, outcome.took_s * 1000,
               outcome.error);
}

Figures::Sum Figures::sum() const {
  const std::lock_guard lock(mutex_);
  Sum sum;
  for (const auto& [path, row] : rows_) {
    sum.all += row.took_ms.size() + row.failed;
    sum.failed += row.failed;
  }
  return sum;
}

std::string Figures::line(const std::string& name, Row row) {
  std::sort(row.took_ms.begin(), row.took_ms.end());
  return fmt::format("{:<18}{:>9}{:>9}{:>9}{:>9}{:>10.1f}{:>10.1f}{:>10.1f}{:>10.1f}\n", name, row.done, row.challenged,
                     row.refused, row.failed, share(row.took_ms, 0.5), share(row.took_ms, 0.9),
                     share(row.took_ms, 0.99), row.took_ms.empty() ? 0 : row.took_ms.back());
}

std::string Figures::table() const {
  const std::lock_guard lock(mutex_);
  std::string text = fmt::format("{:<18}{:>9}{:>9}{:>9}{:>9}{:>10}{:>10}{:>10}{:>10}\n", "PATH", "200", "401", "OTHER",
                                 "FAILED", "MEDIAN ms", "90 %", "99 %", "LONGEST");
  Row all;
  for (const auto& [path, row] : rows_) {
    text += line(path, row);
    all.took_ms.insert(all.took_ms.end(), row.took_ms.begin(), row.took_ms.end());
    all.done += row.done;
    all.challenged += row.challenged;
    all.refused += row.refused;
    all.failed += row.failed;
  }
  text += line("all", all);
  for (const auto& [error, count] : errors_) text += fmt::format("{} times: {}\n", count, error);
  return text;
}

}  // namespace load
