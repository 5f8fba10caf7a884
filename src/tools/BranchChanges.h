#pragma once

#include <string>
#include <vector>

namespace tarns {

// What differs between two states of a branch, for people: one line for each line of the text form
// that only one of them has, with the path of its node: "- press: Speed 40", "+ press: Speed 41".
// In the order of the texts, of what stands in one place what has gone first; lines that only moved
// are none. `before` may be
// empty: everything is new.
//
// Memory: some times the two texts.
std::vector<std::string> BranchChanges(const std::string& before, const std::string& after);

}  // namespace tarns
