#include <tarns/util/XStringList.h>

#include <algorithm>
#include <iterator>

namespace tarns {

XStringList::XStringList(std::initializer_list<const char*> texts)
    : strings_(texts.begin(), texts.end()) {}

void XStringList::removeAt(std::size_t index) {
  strings_.erase(std::next(strings_.begin(), static_cast<std::ptrdiff_t>(index)));
}

std::size_t XStringList::split(std::string_view text, char separator) {
  const std::size_t before = strings_.size();
  while (!text.empty()) {
    const std::size_t end = text.find(separator);
    strings_.emplace_back(text.substr(0, end));
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
  }
  return strings_.size() - before;
}

XString XStringList::join(std::string_view separator) const {
  XString all;
  for (const XString& text : strings_) {
    if (&text != &strings_.front()) all << separator;
    all << text.view();
  }
  return all;
}

bool XStringList::contains(std::string_view text) const {
  return std::ranges::find(strings_, text, &XString::view) != strings_.end();
}

void XStringList::sort() { std::ranges::stable_sort(strings_, {}, &XString::view); }

void XStringList::sort(int (*compare)(const XString** left, const XString** right)) {
  // stable_sort also because it stays within the list whatever the comparison says.
  std::stable_sort(strings_.begin(), strings_.end(),
                   [&](const XString& left, const XString& right) {
                     const XString* first = &left;
                     const XString* second = &right;
                     return compare(&first, &second) < 0;
                   });
}

}  // namespace tarns
