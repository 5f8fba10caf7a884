// Branches of the database as text, for the commands that import and edit.
#pragma once

#include <tarns/session/TarnManager.h>

#include <string>

namespace tarns {

// The forms in which branches are written and read.
enum class BranchForm { kJson, kText };

// What `--format` says ("json" or "text"), otherwise what the file's name ends with: .txt and
// .tarns are text, everything else is JSON. An ending .zst does not count.
BranchForm FormFor(const std::string& format, const std::string& file);

// The branch at `path` as text; empty when there is none.
std::string TextAt(const TarnManager& manager, const std::string& path);

// Prints what has changed at the path, which was `before`, as BranchChanges() says it.
void PrintChanges(const TarnManager& manager, const std::string& path, const std::string& before);

// Removes what is at the path; of the root its children.
void RemoveBranch(TarnManager& manager, const std::string& path);

// Puts a node that is in no tree at the path, merging it into what is there, or removing that
// first. The root stays and gets the children. Within a transaction.
void PlaceBranch(TarnManager& manager, const std::string& path, const TarnRef& node, bool replaces);

// The node that a text describes; where its class is not known, 15 that says so. `in` is open.
TarnRef ImportKnown(const TarnManager& manager, PInOut& in);
// The same, put in the place of what is at `path`, which is not the root's.
void ImportKnownTo(TarnManager& manager, const std::string& path, PInOut& in);

}  // namespace tarns
