#include <tarns/core/TarnException.h>
#include <tarns/core/TarnPath.h>

#include <algorithm>
#include <functional>

namespace tarns {

namespace {

constexpr char kSeparator = TarnBranches::kSeparator;

[[noreturn]] void ThrowEmptyBranch(const TarnPath& path) {
  TarnException error;
  error << "An empty branch name cannot be added to a path \"" << path.view() << "\".";
  error.setErrorID(ErrorID::BadBranch);
  throw error;
}

[[noreturn]] void ThrowCharacterInBranch(std::string_view name, std::string_view character) {
  TarnException error;
  error << "The string \"" << name << "\" is not allowed to contain the character \"" << character
        << "\".";
  error.setErrorID(ErrorID::BadBranch);
  throw error;
}

// What follows the first branch.
std::string_view BehindFirst(std::string_view path) {
  const std::size_t separator = path.find(kSeparator);
  return separator == std::string_view::npos ? std::string_view() : path.substr(separator + 1);
}

bool IsWithin(std::string_view piece, const XString& text) {
  const std::less<> before;
  return !before(piece.data(), text.getText()) &&
         before(piece.data(), text.getText() + text.getCapacity());
}

}  // namespace

TarnPath::TarnPath(const char* first, const char* b2, const char* b3, const char* b4,
                   const char* b5, const char* b6, const char* b7, const char* b8, const char* b9,
                   const char* b10) {
  *this = first;
  addBranch(b2);
  for (const char* branch : {b3, b4, b5, b6, b7, b8, b9, b10}) {
    if (branch != nullptr) addBranch(branch);
  }
}

TarnPath::~TarnPath() = default;

TarnPath& TarnPath::operator=(const char* text) {
  assign(ViewOf(text));
  return *this;
}

void TarnPath::assign(std::string_view text) {
  if (text.empty()) {
    setCapacity(0);
  } else {
    XString::operator=(text);
  }
}

void TarnPath::append(std::string_view branches) {
  if (branches.empty()) return;
  if (isEmpty()) {
    assign(branches);
    return;
  }
  TarnPath copy;
  if (IsWithin(branches, *this)) {  // its text is about to move
    copy.assign(branches);
    branches = copy.view();
  }
  const std::size_t needed = view().size() + branches.size() + 2;
  // Short paths take the room that they need. Long ones grow by more, so that one of a hundred
  // thousand branches is not copied as often.
  if (needed < 1024) {
    setCapacity(needed);
  } else if (needed > getCapacity()) {
    setCapacity(std::max(needed, 2 * getCapacity()));
  }
  XString::operator<<(kSeparator);
  XString::operator<<(branches);
}

void TarnPath::addBranch(std::string_view name) {
  if (name.empty()) ThrowEmptyBranch(*this);
  if (name.find(kSeparator) != std::string_view::npos) {
    ThrowCharacterInBranch(name, std::string_view(&kSeparator, 1));
  }
  const std::size_t nul = name.find('\0');
  if (nul != std::string_view::npos) ThrowCharacterInBranch(name.substr(0, nul), "NUL");
  append(name);
}

void TarnPath::prependBranch(const char* name) {
  TarnPath longer;
  longer.addBranch(name);
  longer.append(view());
  exchange(longer);
}

void TarnPath::buildPathFromList(const XStringList& list) {
  for (const XString& branch : list) addBranch(branch.view());
}

TarnPath TarnPath::subBranch(const char* name) const {
  TarnPath longer = *this;
  longer.addBranch(name);
  return longer;
}

unsigned short TarnPath::getLength() const noexcept {
  return static_cast<unsigned short>(view().size());
}

unsigned short TarnPath::getDepth() const noexcept {
  if (isEmpty()) return 0;
  return static_cast<unsigned short>(std::ranges::count(view(), kSeparator) + 1);
}

unsigned short TarnPath::getBranchNameLen(unsigned short n) const noexcept {
  for (const std::string_view branch : TarnBranches(view())) {
    if (n-- == 0) return static_cast<unsigned short>(branch.size());
  }
  return 0;
}

TarnPath TarnPath::getBranch(int n) const {
  std::string_view rest = view();
  if (n < 0) {
    for (; n < -1 && !rest.empty(); ++n) rest = TarnBranches::ParentOf(rest);
    return TarnBranches::LastOf(rest);
  }
  for (; n > 0 && !rest.empty(); --n) rest = BehindFirst(rest);
  return rest.substr(0, rest.find(kSeparator));
}

bool TarnPath::hasFirstBranch(const char* name) const noexcept {
  const std::string_view first = ViewOf(name);
  return !first.empty() && view().size() > first.size() && view()[first.size()] == kSeparator &&
         view().substr(0, first.size()) == first;
}

bool TarnPath::isAncestorOf(const char* other) const noexcept {
  if (other == nullptr || isEmpty()) return other == nullptr && isEmpty();
  const std::string_view below = other;
  return below.size() > view().size() && below[view().size()] == kSeparator &&
         below.substr(0, view().size()) == view();
}

void TarnPath::removeFirstBranch(TarnPath* removed) {
  if (removed != nullptr) getFirstBranch(*removed);
  assign(BehindFirst(view()));
}

void TarnPath::removeLastBranch(TarnPath* removed) {
  if (removed != nullptr) getLastBranch(*removed);
  assign(TarnBranches::ParentOf(view()));
}

void TarnPath::removeBranches(int n) {
  std::string_view rest = view();
  for (; n > 0 && !rest.empty(); --n) rest = BehindFirst(rest);
  for (; n < 0 && !rest.empty(); ++n) rest = TarnBranches::ParentOf(rest);
  assign(rest);
}

void TarnPath::removeBranchAt(unsigned short n) {
  XStringList branches;
  for (const std::string_view branch : TarnBranches(view())) branches.addLast(branch);
  if (branches.getCount() <= n) return;
  branches.removeAt(n);
  TarnPath shorter;
  shorter.buildPathFromList(branches);
  exchange(shorter);
}

void TarnPath::replaceFirstBranch(const char* name) {
  TarnPath replaced;
  const std::string_view rest = BehindFirst(view());
  replaced.XString::operator<<(name);
  if (!rest.empty()) {
    replaced.XString::operator<<(kSeparator);
    replaced.XString::operator<<(rest);
  }
  exchange(replaced);
}

void TarnPath::replaceLastBranch(const char* name) {
  TarnPath replaced = TarnBranches::ParentOf(view());
  replaced.addBranch(name);
  exchange(replaced);
}

int TarnPath::Compare(std::string_view left, std::string_view right) noexcept {
  const auto [mine, theirs] = std::ranges::mismatch(left, right);
  const bool ended = mine == left.end();
  if (ended && theirs == right.end()) return 0;
  if (ended) return -1;
  if (theirs == right.end()) return 1;
  if (*mine == kSeparator) return -1;
  if (*theirs == kSeparator) return 1;
  return static_cast<signed char>(*mine) < static_cast<signed char>(*theirs) ? -1 : 1;
}

}  // namespace tarns
