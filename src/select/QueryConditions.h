// A query as it is evaluated against many nodes.
#pragma once

#include <goods/reader.h>
#include <tarns/core/TarnObject.h>
#include <tarns/select/TarnQuery.h>

#include <span>
#include <string>
#include <vector>

#include "select/subject_batch.h"

namespace tarns {

// The conditions of a TarnQuery, read once. Means what TarnQuery::evaluate(node) means, but that
// subjects are found by findChild() and readValue() also where a class overrides get(), and that
// what cannot change the result any more is not read.
// Threads: any, as long as each has a Subject of its own.
class QueryConditions {
 public:
  // Room for the texts that are compared, kept from one node to the next.
  struct Subject {
    TarnData value;
    std::string text;
  };

  struct Condition {
    std::string path;       // empty: never true
    std::string reference;  // in upper case; empty: never true
    std::uint32_t op;
    TarnQueryElement::LogicType logic;  // joins it to the next one
    bool isAnything;                    // whatever the subject is
  };

  explicit QueryConditions(const TarnQuery& query);

  // In their order; joined from left to right.
  const std::vector<Condition>& all() const { return conditions_; }
  // Whether the whole holds as soon as one of those does that And or Or joins.
  bool isAnyOf() const;

  // Within goods::cache_manager::read().
  bool hold(goods::reader& reader, const TarnObject& node, Subject& subject) const;
  // The same for many nodes; null ones count as those for which nothing holds.
  void hold(goods::reader& reader, std::span<const TarnObject* const> nodes, SubjectBatch& subjects,
            std::vector<char>& results) const;

 private:
  static void Join(const Condition& condition, goods::reader& reader,
                   std::span<const TarnObject* const> nodes, SubjectBatch& subjects,
                   std::vector<char>& results);
  static bool Holds(const Condition& condition, goods::reader& reader, const TarnObject& node,
                    Subject& subject);

  std::vector<Condition> conditions_;
};

// The result of all conditions so far, joined with that of the next one.
bool JoinResults(bool left, TarnQueryElement::LogicType logic, bool right);

}  // namespace tarns
