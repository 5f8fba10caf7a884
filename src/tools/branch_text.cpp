#include "tools/branch_text.h"

#include <tarns/core/TarnException.h>

#include <sstream>

#include "tools/BranchChanges.h"
#include "tools/BranchPlacer.h"
#include "tools/Output.h"
#include "tools/compression.h"
#include "tools/shown_text.h"

namespace tarns {

namespace {

[[noreturn]] void ThrowNoClass(const std::string& type) {
  throw TarnException(("Line 1: there is no class \"" + type + "\".").c_str(),
                      ErrorID::BadExportFile);
}

}  // namespace

BranchForm FormFor(const std::string& format, const std::string& file) {
  if (!format.empty()) return format == "text" ? BranchForm::kText : BranchForm::kJson;
  const std::string_view name = WithoutCompression(file);
  return name.ends_with(".txt") || name.ends_with(".tarns") ? BranchForm::kText : BranchForm::kJson;
}

std::string TextAt(const TarnManager& manager, const std::string& path) {
  const TarnRef node = manager.getObject(path);
  if (node.is_null()) return {};
  std::ostringstream text;
  node->exportTo(text);
  return text.str();
}

void PrintChanges(const TarnManager& manager, const std::string& path, const std::string& before) {
  Output out;
  for (const std::string& line : BranchChanges(before, TextAt(manager, path))) {
    out << Shown(line) << '\n';
  }
  out.finish();
}

void RemoveBranch(TarnManager& manager, const std::string& path) {
  if (path.empty()) {
    modify(TarnRef(manager.getRoot()))->deleteChildren();
  } else {
    manager.deleteBranch(path);
  }
}

void PlaceBranch(TarnManager& manager, const std::string& path, const TarnRef& node,
                 bool replaces) {
  if (replaces) RemoveBranch(manager, path);
  BranchPlacer(manager, {}).place(path, node);
}

TarnRef ImportKnown(const TarnManager& manager, PInOut& in) {
  const std::string type = in.getCommand();
  TarnRef node = manager.importFrom(in);
  if (node.is_null()) ThrowNoClass(type);
  return node;
}

void ImportKnownTo(TarnManager& manager, const std::string& path, PInOut& in) {
  const std::string type = in.getCommand();
  if (manager.importTo(path, in).is_null()) ThrowNoClass(type);
}

}  // namespace tarns
