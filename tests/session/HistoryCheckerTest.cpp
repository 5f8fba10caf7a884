// The checker of histories, with forged ones.
#include <gmock/gmock.h>

#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "support/history.h"

namespace {

std::vector<history_transaction> forged(const std::vector<std::string>& texts) {
  std::vector<history_transaction> history;
  for (const std::string& text : texts) history.push_back(transaction_of(text));
  return history;
}

std::set<std::string> kinds(const std::vector<history_finding>& findings) {
  std::set<std::string> found;
  for (const history_finding& finding : findings) found.insert(finding.kind);
  return found;
}

TEST(HistoryCheckerTest, NamesEachAnomalyAndNothingElse) {
  struct Row {
    const char* what;
    std::vector<std::string> history;
    std::set<std::string> kinds;
  };
  const Row rows[] = {
      {"one after the other", {"1-2 rx= ax=1", "3-4 rx=1 ax=2", "5-6 rx=1,2"}, {}},
      {"at the same time, in some order", {"1-9 rx= ax=1", "1-9 rx=1 ax=2", "1-9 rx="}, {}},
      {"reads of its own writes", {"1-2 rx= ax=1 rx=1 ax=2 rx=1,2", "3-4 rx=1,2"}, {}},
      {"appends without a read", {"1-2 ax=1 ay=2", "3-4 ay=3", "5-6 rx=1 ry=2,3"}, {}},
      {"rolled back and unseen", {"1-2 ! rx= ax=1", "3-4 rx= ax=2", "5-6 rx=2"}, {}},
      {"unknown and there", {"1-0 ? rx= ax=1", "3-4 rx=1"}, {}},
      {"unknown and not there", {"1-0 ? rx= ax=1", "3-4 rx="}, {}},

      {"forgets what it wrote", {"1-2 rx= ax=1 rx="}, {"own writes"}},
      {"two states in one", {"1-2 rx= ax=1", "1-9 rx= rx=1"}, {"own writes"}},
      {"read of what was rolled back", {"1-2 ! rx= ax=1", "3-4 rx=1"}, {"G1a"}},
      {"read in the middle", {"1-9 rx= ax=1 ax=2", "1-9 rx=1", "8-9 rx=1,2"}, {"G1b", "G-single"}},
      {"out of thin air", {"1-2 rx=7"}, {"unknown element"}},
      {"of another list", {"1-2 ry= ay=7", "3-4 rx=7"}, {"unknown element"}},
      {"twice in the list", {"1-2 rx= ax=1", "3-4 rx=1,1"}, {"duplicate element"}},
      {"appended twice", {"1-2 rx= ax=1", "3-4 rx=1 ax=1"}, {"duplicate element", "G-single"}},
      {"lost update",
       {"1-9 rx= ax=1", "1-9 rx= ax=2", "10-11 rx=2"},
       {"lost update", "forked list", "lost append"}},
      {"forked reads", {"1-9 ax=1", "1-9 ax=2", "1-9 rx=1,2", "1-9 rx=2,1"}, {"forked list"}},
      {"acknowledged and gone", {"1-2 ax=1", "3-4 rx="}, {"lost append"}},
      {"writes in a circle", {"1-9 ax=1 ay=2", "1-9 ax=3 ay=4", "1-9 rx=1,3 ry=4,2"}, {"G0"}},
      {"writes and reads in a circle", {"1-9 ax=1 ry=2", "1-9 ay=2 rx=1"}, {"G1c"}},
      {"sees one half of another", {"1-9 rx= ax=1 ry= ay=2", "1-9 rx=1 ry="}, {"G-single"}},
      {"two that overlook each other", {"1-9 rx= ry= ay=2", "1-9 ry= rx= ax=1"}, {"G2"}},
      {"three that overlook each other",
       {"1-9 rx= ay=1", "1-9 ry= az=2", "1-9 rz= ax=3", "10-11 rx=3 ry=1 rz=2"},
       {"G2"}},
      {"reads what was before", {"1-2 rx= ax=1", "3-4 rx=", "5-6 rx=1"}, {"G-single in real time"}},
      {"overlooks by way of a third",
       {"1-2 rx= ax=1", "3-4 rx=1 ry= ay=2", "5-6 ry= rx=1", "7-8 ry=2"},
       {"G-single in real time"}},
      {"read before it was begun", {"1-2 rx=1", "3-4 ax=1"}, {"G1c in real time"}},
      {"written before, ordered behind",
       {"1-2 ax=1", "3-4 ax=2", "5-6 rx=2,1"},
       {"G0 in real time"}},
      {"unknown, but seen, must fit", {"1-0 ? rx= ry= ax=1 ay=2", "3-4 rx=1 ry="}, {"G-single"}},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.what);
    const auto findings = check_history(forged(r.history));
    EXPECT_EQ(kinds(findings), r.kinds) << describe(findings);
  }
}

TEST(HistoryCheckerTest, ShowsTheShortestCircleWithPathsAndTransactions) {
  const auto findings = check_history(forged({
      "1-9 rx= ay@p~y=1 by forged",  // T0 to T2: a circle of three ...
      "1-9 ry= az=2",
      "1-9 rz= ax=3 ru@p~u= aw@p~w=4 by forged",  // ... T2 and T3: one of two
      "1-9 rw@p~w= au@p~u=5 by forged",
      "10-11 rx=3 ry=1 rz=2 rw=4 ru=5",
  }));
  ASSERT_EQ(findings.size(), 1U) << describe(findings);
  EXPECT_THAT(
      describe(findings),
      testing::AllOf(testing::HasSubstr("G2: "),
                     testing::HasSubstr("T2 read u at \"p~u\" = [], then T3 appended 5 "
                                        "to u at \"p~u\""),
                     testing::HasSubstr("T3 read w at \"p~w\" = [], then T2 appended 4 to w"),
                     testing::HasSubstr("\n  T2 (forged, committed, 1 to 9 ns): reads z "),
                     testing::HasSubstr("\n  T3 (forged"), testing::Not(testing::HasSubstr("T1"))));
}

// Transactions one after the other on three lists, of which each attempt takes some time; then one
// of them reads a state that is some transactions old.
TEST(HistoryCheckerTest, FindsOneStaleReadAmongManyTransactions) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::minstd_rand random(seed);
  constexpr int kTransactions = 20'000;
  std::vector<history_transaction> history;
  std::vector<std::vector<std::uint64_t>> lists(500);
  for (int i = 0; i < kTransactions; ++i) {
    history_transaction one{
        "forged", {}, history_transaction::outcome::committed, 10 * i - 35, 10 * i + 35};
    for (int k = 0; k < 2; ++k) {
      const auto number = random() % lists.size();
      const std::string key = std::to_string(number);
      one.steps.push_back({history_step::kind::read, key, {}, lists[number], 0});
      if (random() % 2 == 0) continue;
      lists[number].push_back(static_cast<std::uint64_t>(2 * i + k + 1));
      one.steps.push_back({history_step::kind::append, key, {}, {}, lists[number].back()});
    }
    history.push_back(std::move(one));
  }
  EXPECT_EQ(describe(check_history(history)), "nothing");

  // A read of a list that the transaction did not write, much later than its last element.
  const auto isReadOnly = [](const history_transaction& one) {
    return one.steps.size() == 2 && one.steps[0].key != one.steps[1].key &&
           one.steps[1].what == history_step::kind::read && one.steps[1].list.size() > 3;
  };
  const auto stale = std::find_if(history.begin() + kTransactions / 2, history.end(), isReadOnly);
  ASSERT_NE(stale, history.end());
  stale->steps[1].list.resize(stale->steps[1].list.size() - 3);
  const auto findings = check_history(history);
  // Perhaps a circle by way of others as well.
  EXPECT_TRUE(kinds(findings).contains("G-single in real time")) << describe(findings);
}

}  // namespace
