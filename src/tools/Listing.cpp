#include "tools/Listing.h"

#include <algorithm>
#include <utility>

#include "tools/shown_text.h"
#include "tools/value_text.h"

namespace tarns {

namespace {

constexpr std::string_view kGap = "  ";
constexpr std::size_t kLongestSummary = 1000;  // bytes of a text that are looked at

}  // namespace

Listing::Listing(Output& out, std::vector<std::string> heading) : out_(out) {
  if (!heading.empty()) rows_.push_back(std::move(heading));
}

void Listing::add(std::vector<std::string> row) {
  rows_.push_back(std::move(row));
  if (isMeasured_ || rows_.size() > kRowsToMeasure) finish();
}

void Listing::finish() {
  if (!std::exchange(isMeasured_, true)) {
    for (const auto& row : rows_) {
      widths_.resize(std::max(widths_.size(), row.size()));
      for (std::size_t i = 0; i < row.size(); ++i) {
        widths_[i] = std::max(widths_[i], WidthOf(row[i]));
      }
    }
  }
  for (const auto& row : rows_) write(row);
  rows_.clear();
}

void Listing::write(const std::vector<std::string>& row) {
  std::size_t column = 0;
  for (std::size_t i = 0; i + 1 < row.size(); ++i) {
    const std::size_t width = WidthOf(row[i]);
    const std::size_t padding = widths_[i] > width ? widths_[i] - width : 0;
    out_ << row[i] << std::string(padding, ' ') << kGap;
    column += width + padding + kGap.size();
  }
  const bool isCut = out_.isTerminal() && column < out_.getColumns();
  out_ << (isCut ? CutToWidth(row.back(), out_.getColumns() - column) : row.back()) << '\n';
}

std::string TypeOf(const NodeView& view) {
  if (view.isPlainValue) return TarnData::GetTypeAsString(view.value->getType());
  return view.isPlain ? "Node" : view.className;
}

std::string SummaryOf(const NodeView& view) {
  std::string summary;
  if (view.value) {
    const bool isText = view.value->isString();
    summary = Shown(isText ? view.value->getText().substr(0, kLongestSummary)
                           : std::string_view(ValueText(*view.value)));
  }
  if (view.value && view.numChildren == 0) return summary;
  if (!summary.empty()) summary += ' ';
  return summary + "(" + std::to_string(view.numChildren) +
         (view.numChildren == 1 ? " child)" : " children)");
}

}  // namespace tarns
