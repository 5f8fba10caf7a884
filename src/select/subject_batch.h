// Reading one value below each of many nodes.
#pragma once

#include <goods/reader.h>
#include <tarns/core/TarnData.h>
#include <tarns/core/TarnObject.h>

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tarns {

// The texts of the values at one path below many nodes: as ReadValue() gives them, up to their
// first NUL; empty where there is none.
//
// It takes one step of the path for all nodes before it takes the next one. What a step looks at is
// elsewhere in memory for each node, and independent of the others, so the processor waits for many
// at a time instead of for one after the other.
// Threads: one. The texts are valid until the next call, and no longer than the reader.
class SubjectBatch {
 public:
  // Within goods::cache_manager::read(). `path` is not empty.
  std::span<const std::string_view> read(goods::reader& reader,
                                         std::span<const TarnObject* const> nodes,
                                         std::string_view path);

 private:
  void stepDown(goods::reader& reader, std::string_view branch);
  void readOne(goods::reader& reader, const TarnObject& node, std::string_view path,
               std::size_t at);

  std::vector<const TarnObject*> at_;      // null: there is no more
  std::vector<const TarnObjects*> lists_;  // of their children
  std::vector<goods::ref_word> words_;     // of the next nodes
  std::vector<std::string_view> texts_;
  std::vector<std::string> kept_;  // of values that are no texts
  TarnData value_;
};

}  // namespace tarns
