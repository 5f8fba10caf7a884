#include "tools/Findings.h"

#include "tools/json_names.h"
#include "tools/json_values.h"
#include "tools/shown_text.h"
#include "tools/value_text.h"

namespace tarns {

Findings::Findings(Output& out, Format format)
    : out_(out), format_(format), listing_(out, {"PATH", "TYPE", "VALUE"}) {}

void Findings::add(const std::string& path, const NodeView& view) {
  switch (format_) {
    case Format::kTable:
      listing_.add({Shown(path), TypeOf(view), SummaryOf(view)});
      break;
    case Format::kJson:
      out_ << (count_ == 0 ? "[" : ",") << "\n  {\"path\": " << Quoted(TextOfName(path))
           << ", \"type\": " << Quoted(TypeOf(view));
      if (view.value) out_ << ", \"value\": " << JsonOfValue(*view.value);
      out_ << "}";
      break;
    case Format::kRaw:
      out_ << path << '\n';
      break;
    default:
      out_ << Shown(path) << '\n';
  }
  ++count_;
}

std::size_t Findings::finish() {
  if (format_ == Format::kTable) listing_.finish();
  if (format_ == Format::kJson) out_ << (count_ == 0 ? "[]\n" : "\n]\n");
  out_.finish();
  return count_;
}

}  // namespace tarns
