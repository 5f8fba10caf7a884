#pragma once

#include <tarns/core/TarnBranches.h>
#include <tarns/tarns_api.h>
#include <tarns/util/XString.h>
#include <tarns/util/XStringList.h>

#include <compare>
#include <string_view>

namespace tarns {

// A place in the node tree: branch names from the outermost in, joined by "~".
//
// The empty path names the node that it is applied to; it has no text (null, capacity 0). A path is
// a plain value: copying one copies its text, and it never refers to the database. Text is bytes;
// UTF-8 passes through untouched. Lengths and depths are 16-bit: paths are meant to stay below
// 65,536 characters. Longer ones work all the same, only getLength, getDepth and getBranchNameLen
// give their results modulo 65,536.
//
// What XString offers beyond conversion and comparison works on the text as such: trimming a path
// or changing it through an XString& may leave an empty text of its own where a path has none.
// isEmpty() holds for both.
//
// What adds a branch by name checks it and throws TarnException 8 for a name that is null, empty or
// contains "~" (or NUL), leaving the path as it was. What takes a whole text takes it as it stands.
//
// Order: a node comes directly before its descendants, and those before any name that merely
// continues the node's own (a, a~z, a!). Locks are taken in this order, so do not "fix" it.
// Threads: not shared; each thread uses its own. To walk a path without copying: TarnBranches.
class TARNS_API TarnPath : public XString {
 public:
  TarnPath() noexcept = default;
  TarnPath(const TarnPath& other) = default;
  TarnPath(TarnPath&& other) noexcept = default;
  // NOLINTNEXTLINE(google-explicit-constructor): a text is taken for a path wherever one is wanted
  TarnPath(const char* text) { *this = text; }
  // NOLINTNEXTLINE(google-explicit-constructor): as above
  TarnPath(const XString& text) { *this = text.getText(); }
  template <StringViewLike T>
  // NOLINTNEXTLINE(google-explicit-constructor): as above
  TarnPath(const T& text) {
    *this = text;
  }
  // The text `first` as it stands, then branches; of b3 to b10 those that are not null.
  TarnPath(const char* first, const char* b2, const char* b3 = nullptr, const char* b4 = nullptr,
           const char* b5 = nullptr, const char* b6 = nullptr, const char* b7 = nullptr,
           const char* b8 = nullptr, const char* b9 = nullptr, const char* b10 = nullptr);
  virtual ~TarnPath();

  TarnPath& operator=(const TarnPath& other) = default;
  TarnPath& operator=(TarnPath&& other) noexcept = default;
  TarnPath& operator=(const char* text);
  TarnPath& operator=(const XString& text) { return *this = text.getText(); }
  template <StringViewLike T>
  TarnPath& operator=(const T& text) {
    assign(text);
    return *this;
  }

  // Building.
  void addBranch(const char* name) { addBranch(ViewOf(name)); }
  void addBranch(std::string_view name);
  TarnPath& operator<<(const char* name) {
    addBranch(name);
    return *this;
  }
  TarnPath& operator<<(std::string_view name) {
    addBranch(name);
    return *this;
  }
  // Adds all branches of `other`, unchecked.
  void appendPath(const TarnPath& other) { append(other.view()); }
  TarnPath& operator+=(const TarnPath& other) {
    appendPath(other);
    return *this;
  }
  void prependBranch(const char* name);
  // Adds each text of the list as a branch. Unlike the other operations, one that is refused leaves
  // those before it added.
  void buildPathFromList(const XStringList& list);
  TarnPath subBranch(const char* name) const;

  // Reading.
  unsigned short getLength() const noexcept;
  unsigned short getDepth() const noexcept;
  // Of the n-th branch from 0; 0 when there are fewer.
  unsigned short getBranchNameLen(unsigned short n) const noexcept;
  void getFirstBranch(TarnPath& out) const { out = getBranch(0); }
  void getLastBranch(TarnPath& out) const { out = getBranch(-1); }
  // From 0 at the front, from -1 at the back; empty when there is no such branch.
  void getBranch(int n, TarnPath& out) const { out = getBranch(n); }
  TarnPath getBranch(int n) const;
  // Whether `name` is the first of several branches; false when it is the whole path.
  bool hasFirstBranch(const char* name) const noexcept;
  // Whether `other` lies strictly below this path; a path is not its own ancestor, and the empty
  // one is an ancestor of a null `other` only.
  bool isAncestorOf(const char* other) const noexcept;
  static char GetSeparator() noexcept { return TarnBranches::kSeparator; }

  // Shortening. `removed`, another path, receives the branch; an empty path stays as it is.
  void removeFirstBranch(TarnPath* removed = nullptr);
  void removeLastBranch(TarnPath* removed = nullptr);
  // n from the front, or -n from the back; at most all.
  void removeBranches(int n);
  // Nothing when there are no more than n branches. Checks the remaining ones again.
  void removeBranchAt(unsigned short n);
  // Takes `name` as it stands.
  void replaceFirstBranch(const char* name);
  // Checks `name`. On an empty path it becomes the only branch.
  void replaceLastBranch(const char* name);

  // -1, 0 or 1 in the order described above; null counts as the empty path.
  int compare(const char* other) const noexcept { return Compare(view(), ViewOf(other)); }
  int compare(std::string_view other) const noexcept { return Compare(view(), other); }
  static int Compare(std::string_view left, std::string_view right) noexcept;

  bool operator==(const char* other) const noexcept { return compare(other) == 0; }
  bool operator==(const TarnPath& other) const noexcept { return view() == other.view(); }
  bool operator==(const XString& other) const noexcept { return view() == other.view(); }
  template <StringViewLike T>
  bool operator==(const T& other) const noexcept {
    return view() == std::string_view(other);
  }
  std::strong_ordering operator<=>(const char* other) const noexcept {
    return compare(other) <=> 0;
  }
  std::strong_ordering operator<=>(const TarnPath& other) const noexcept {
    return compare(other.view()) <=> 0;
  }
  std::strong_ordering operator<=>(const XString& other) const noexcept {
    return compare(other.view()) <=> 0;
  }
  template <StringViewLike T>
  std::strong_ordering operator<=>(const T& other) const noexcept {
    return compare(std::string_view(other)) <=> 0;
  }

 private:
  void assign(std::string_view text);
  void append(std::string_view branches);
};

}  // namespace tarns
