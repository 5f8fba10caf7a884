// What stands in the value indexes of a node's children, see TarnValueIndex.
#pragma once

#include <goods/B_tree.h>
#include <goods/errors.h>
#include <goods/reader.h>
#include <tarns/core/TarnData.h>
#include <tarns/core/TarnObjects.h>

#include <concepts>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarns {

// The value indexes of one node's children: an entry for each path, whose object is the index of
// that path, a goods::B_tree, or null for one that has been given up. Never changed, but replaced.
//
// A class of its own, so that a store's class layouts tell whether there was ever an index in it.
class TarnValueIndexes : public goods::B_tree {
 public:
  static goods::class_descriptor self_class;
  static goods::ref<goods::B_tree> Create(const goods::ref<TarnObjects>& children);
  TarnValueIndexes(goods::object_handle* handle, goods::class_descriptor& cls)
      : goods::B_tree(handle, cls) {}

 private:
  explicit TarnValueIndexes(const goods::object_ref& children);
};

// What an entry of a value index says; its object is the child.
//
// As a key: a byte for the group; the value's text up to its first NUL, in upper case; a byte 0;
// the name under which the child is listed. Of a text of more than kMostText bytes there are so
// many, with a byte 1 behind them. So within a group the keys are in the order of the texts, those
// of equal texts in the order of the names.
struct ValueIndexEntry {
  static constexpr std::size_t kMostText = 240;
  // TarnData::Type plus 1, or one of these.
  static constexpr unsigned char kEnumeration = 0xFE;  // reads as a text and as a number
  // The value may be any, or none: on the way to it lies a node that has its parent elsewhere, or
  // is what a member refers to, whose class finds children or makes values in its own way, or that
  // cannot be read. What changes there cannot be noticed, so everybody has to look. There is no
  // text then.
  static constexpr unsigned char kElsewhere = 0xFF;

  unsigned char group = 0;
  std::string_view text;
  bool isCut = false;
  std::string_view name;
  bool isNameCut = false;

  // Nothing for what is no key.
  static std::optional<ValueIndexEntry> Parse(std::string_view key);
  // Whether it looks like one; no usual name of a child does.
  static bool IsKey(std::string_view name);
  static constexpr unsigned char GroupOf(TarnData::Type type) {
    return static_cast<unsigned char>(type + 1);
  }
  // What the keys of all texts that begin with `text`, or with as much of it as keys hold, begin
  // with.
  static std::string PrefixFor(unsigned char group, std::string_view text);
};

// Sets `key` to that of the child of `entry` in an index of the values at the path `below`; false
// when the child has none.
bool ReadIndexKey(goods::reader& reader, const goods::index_entry& entry, std::string_view below,
                  std::string& key);

// Whether an error is that of an object that is damaged or gone.
bool IsDamage(const goods::error_info& error);

// Runs `work` as far as it comes; false when it met something damaged.
template <std::invocable Work>
bool PastDamage(const Work& work) {
  try {
    work();
    return true;
  } catch (const goods::error_info& error) {
    if (!IsDamage(error)) throw;
    return false;
  }
}

// One value index of a node's children. An index whose own pages turned out to be damaged while it
// had to be changed is given up: the change goes on, nobody uses the index any more, and a check
// tells that it has to be made anew. Where the list of indexes itself cannot be read, one without a
// path stands for them.
struct ValueIndexRef {
  std::string below;
  goods::ref<goods::B_tree> tree;  // null when it has been given up, or cannot be read
  bool isStored = true;            // false for what only stands for those that cannot be read
};

// In a transaction: makes an index of these children that is filled when that is committed, also in
// the place of one that was given up; false when there is one already.
bool DeclareValueIndex(const goods::ref<TarnObjects>& children, const std::string& below);
// In a transaction; false when there is none.
bool DropValueIndex(const goods::ref<TarnObjects>& children, std::string_view below);
bool RebuildValueIndex(const goods::ref<TarnObjects>& children, const std::string& below);
// In a transaction: all that cannot be read, and the one of that path.
void GiveUpValueIndex(const goods::ref<TarnObjects>& children, std::string_view below);
// The same for all indexes that the children of another node have.
void DeclareValueIndexesOf(const goods::ref<TarnObjects>& model,
                           const goods::ref<TarnObjects>& children);

// Those of `children` as the reader sees it.
std::vector<ValueIndexRef> ValueIndexesOf(goods::reader& reader, const TarnObjects& children);
// The one of the path `below`; null when there is none that can be used.
const goods::B_tree* FindValueIndex(goods::reader& reader, const TarnObjects& children,
                                    std::string_view below);

}  // namespace tarns
