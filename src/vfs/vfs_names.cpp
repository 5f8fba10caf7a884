#include "vfs/vfs_names.h"

#include <tarns/util/FileFP.h>
#include <tarns/util/Stringer.h>

#include <algorithm>
#include <limits>
#include <string>
#include <vector>

namespace tarns {

namespace {

constexpr std::size_t kNamesAtATime = 1000;

XString Joined(const XString& base, const XString& ext) {
  XString name(base.view());
  name << ext.view();
  return name;
}

XString Joined(const XString& base, long number, const XString& ext) {
  XString name(base.view());
  name << "(" << number << ")" << ext.view();
  return name;
}

// Looks for the highest number among the names that have a base and an extension.
class NumberSearch {
 public:
  NumberSearch(const TarnRef& items, const XString& base, const XString& ext)
      : items_(items), base_(base), ext_(ext) {}

  // -1 when there is no such name.
  long highest() {
    if (items_->hasChild(Joined(base_, ext_))) highest_ = 0;
    // A name that has the base once its "(number)" is taken out begins with some of the base and a
    // bracket. With few names it is less work to look at all.
    if (items_->getNumAbstractChildren() <= base_.getLength() * 4) {
      lookAtAll({});
    } else {
      for (std::size_t length = 0; length <= base_.getLength(); ++length) {
        lookAtAll(std::string(base_.view().substr(0, length)) + '(');
      }
    }
    return highest_;
  }

 private:
  // At names that begin with `prefix`.
  void lookAtAll(const std::string& prefix) {
    std::vector<std::string> names;
    std::string after = prefix;
    do {
      names = items_->getChildNames(after, kNamesAtATime);
      for (const std::string& name : names) {
        if (!name.starts_with(prefix)) return;
        lookAt(name);
      }
      if (!names.empty()) after = names.back();
    } while (names.size() == kNamesAtATime);
  }

  void lookAt(const std::string& name) {
    XString base, ext;
    long number = 0;
    SplitItemName(XString(name), base, ext, number);
    if (base == base_ && ext == ext_) highest_ = std::max(highest_, number);
  }

  const TarnRef& items_;
  const XString &base_, &ext_;
  long highest_ = -1;
};

}  // namespace

void SplitItemName(const XString& name, XString& base, XString& ext, long& number) {
  base = name.view();
  ext = std::string_view();
  number = 0;
  if (const char* const extension = FileFP::FindExtension(base)) {
    ext << "." << extension;
    FileFP::SetExtension(base, nullptr);
  }
  XString between(base.view());
  if (!between.trimTo("(", 1) || !between.trimPast(")", 1)) return;
  number = Stringer::Atol(between);
  XString bracketed;
  bracketed << "(" << number << ")";
  Stringer::Replace(base, bracketed.view(), "");
}

XString NumberedName(const TarnRef& items, std::string_view name) {
  XString base, ext;
  long number = 0;
  SplitItemName(XString(name), base, ext, number);
  const long highest = NumberSearch(items, base, ext).highest();
  XString candidate = highest < 0 ? Joined(base, ext) : XString();
  if (candidate.isEmpty() && highest < 0) candidate = XString(name);  // it is but a number
  // Numbers so large that there is no next one, and brackets within the base, leave gaps.
  long next = highest == std::numeric_limits<long>::max() ? 0 : highest;
  if (highest >= 0) candidate = Joined(base, ++next, ext);
  while (items->hasChild(candidate)) candidate = Joined(base, ++next, ext);
  return candidate;
}

XString FreeName(const TarnRef& items, std::string_view name) {
  XString text(name);
  return items.is_null() || !items->hasChild(text) ? text : NumberedName(items, name);
}

}  // namespace tarns
