#include "Report.h"

#include <fmt/format.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

#include "BenchStore.h"

namespace tarns::bench {
namespace {

constexpr const char* kOurs = "tarns";

// Four digits that mean something, thousands apart.
std::string Shown(std::optional<double> figure) {
  if (!figure) return "-";
  if (*figure < 100) return fmt::format("{:.2f}", *figure);
  std::string digits = fmt::format("{:.0f}", *figure);
  for (auto at = static_cast<std::ptrdiff_t>(digits.size()) - 3; at > 0; at -= 3) {
    digits.insert(static_cast<std::size_t>(at), 1, ',');
  }
  return digits;
}

std::optional<double> Find(const std::map<std::string, double>& figures, const std::string& peer) {
  const auto found = figures.find(peer);
  return found == figures.end() ? std::nullopt : std::optional(found->second);
}

std::string ShownTarget(const Row& row) {
  if (!row.target) return "";
  const Target& target = *row.target;
  const char* sign = target.kind == Target::kAtLeast ? ">=" : "<=";
  const auto met = row.isMet();
  return fmt::format("{} {:g}x {}: {}", sign, target.bound,
                     target.against.empty() ? target.what : target.against,
                     !met   ? "not measured"
                     : *met ? "met"
                            : "NOT MET");
}

}  // namespace

std::optional<double> Row::ratio() const {
  const auto ours = Find(figures, kOurs);
  const auto other = target && target->against.empty()
                         ? std::optional(target->reference)
                         : Find(figures, target ? target->against : "sqlite");
  if (!ours || !other || *other == 0) return std::nullopt;
  return *ours / *other;
}

std::optional<bool> Row::isMet() const {
  const auto value = ratio();
  if (!target || !value) return std::nullopt;
  return target->kind == Target::kAtLeast ? *value >= target->bound : *value <= target->bound;
}

void Report::printHead() const {
  fmt::print("{}, {} cores, {:.0f} GiB, {}\n{}, {}, load {}\n{}\n\n", machine_.processor,
             machine_.cores, std::ceil(static_cast<double>(machine_.memoryBytes) / (1 << 30)),
             machine_.kernel, machine_.compiler, machine_.buildType, machine_.load, data_);
  fmt::print("{:<30} {:<12}", "item", "unit");
  for (const std::string& peer : BenchStore::Peers()) fmt::print(" {:>13}", peer);
  fmt::print("  {:>7}  {}\n", "ratio", "target");
}

void Report::add(Row row) {
  fmt::print("{:<30} {:<12}", row.item, row.unit);
  for (const std::string& peer : BenchStore::Peers()) {
    fmt::print(" {:>13}", Shown(Find(row.figures, peer)));
  }
  const auto ratio = row.ratio();
  fmt::print("  {:>7}  {}\n", ratio ? fmt::format("{:.2f}x", *ratio) : "-", ShownTarget(row));
  std::fflush(stdout);
  rows_.push_back(std::move(row));
}

void Report::note(const std::string& text) {
  fmt::print("({})\n", text);
  notes_.push_back(text);
}

void Report::printTargets() const {
  int met = 0, missed = 0, unmeasured = 0;
  for (const Row& row : rows_) {
    if (!row.target) continue;
    const auto answer = row.isMet();
    ++(!answer ? unmeasured : *answer ? met : missed);
  }
  fmt::print("\ntargets: {} met, {} not met, {} not measured\n", met, missed, unmeasured);
}

void Report::save(const std::filesystem::path& jsonFile) const {
  nlohmann::ordered_json json;
  json["machine"] = {{"processor", machine_.processor},
                     {"cores", machine_.cores},
                     {"memoryBytes", machine_.memoryBytes},
                     {"kernel", machine_.kernel},
                     {"compiler", machine_.compiler},
                     {"buildType", machine_.buildType},
                     {"load", machine_.load}};
  json["data"] = data_;
  json["notes"] = notes_;
  for (const Row& row : rows_) {
    nlohmann::ordered_json item = {
        {"item", row.item}, {"unit", row.unit}, {"figures", row.figures}};
    if (const auto ratio = row.ratio()) item["ratio"] = *ratio;
    if (row.target) {
      item["target"] = {
          {row.target->kind == Target::kAtLeast ? "atLeast" : "atMost", row.target->bound},
          {"against", row.target->against.empty() ? row.target->what : row.target->against}};
    }
    if (const auto met = row.isMet()) item["target"]["met"] = *met;
    json["items"].push_back(std::move(item));
  }
  std::ofstream out(jsonFile);
  out << json.dump(2) << '\n' << std::flush;
  if (!out) throw std::runtime_error("Cannot write " + jsonFile.string());
}

std::optional<double> Report::figure(const std::string& item, const std::string& peer) const {
  for (const Row& row : rows_) {
    if (row.item == item) return Find(row.figures, peer);
  }
  return std::nullopt;
}

}  // namespace tarns::bench
