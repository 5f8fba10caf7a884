#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Machine.h"

namespace tarns::bench {

// What a figure of tarns is held against, and how it must compare.
struct Target {
  enum Kind { kAtLeast, kAtMost };

  Kind kind;
  double bound;         // of tarns' figure divided by the other
  std::string against;  // a peer, or empty: `reference`
  double reference = 0;
  std::string what = {};  // names `reference`
};

struct Row {
  std::string item;
  std::string unit;
  std::map<std::string, double> figures;  // by peer
  std::optional<Target> target = {};

  // tarns against the target's other side, SQLite where there is no target.
  std::optional<double> ratio() const;
  // Whether the target is met; nothing where there is none or a figure is missing.
  std::optional<bool> isMet() const;
};

// What a run found out, shown line by line as it goes and once more as a whole.
class Report {
 public:
  Report(Machine machine, std::string data)
      : machine_(std::move(machine)), data_(std::move(data)) {}

  void printHead() const;
  void add(Row row);                   // prints it as well
  void note(const std::string& text);  // prints it as well
  void printTargets() const;
  void save(const std::filesystem::path& jsonFile) const;

  // What an item found for a peer.
  std::optional<double> figure(const std::string& item, const std::string& peer) const;

 private:
  Machine machine_;
  std::string data_;
  std::vector<Row> rows_;
  std::vector<std::string> notes_;
};

}  // namespace tarns::bench
