#include <gmock/gmock.h>

#include "support/session_fixture.h"
#include "support/throws_tarn.h"

namespace tarns {
namespace {

class TransactionTest : public session_test {};

TEST_F(TransactionTest, EndsAsItIsLeft) {
  struct Case {
    const char* name;
    std::function<void(TarnManager&)> work;
    bool isKept;
  };
  const Case cases[] = {
      {"end of scope",
       [](auto& m) {
         TarnTransaction t(m);
         m.set("a~b", 1);
       },
       true},
      {"commit",
       [](auto& m) {
         TarnTransaction t;
         m.set("a~b", 1);
         t.commit();
       },
       true},
      {"rollback",
       [](auto& m) {
         TarnTransaction t(m);
         m.set("a~b", 1);
         t.rollback();
       },
       false},
      {"exception",
       [](auto& m) {
         try {
           TarnTransaction t(m);
           m.set("a~b", 1);
           throw std::runtime_error("x");
         } catch (const std::runtime_error&) {
         }
       },
       false},
      {"inner rollback",
       [](auto& m) {
         TarnTransaction outer(m);
         m.set("a~b", 1);
         {
           TarnTransaction inner(m);
           m.set("a~c", 1);
           inner.rollback();
         }
         EXPECT_THAT([&] { m.set("a~d", 1); }, ThrowsTarn(111, testing::HasSubstr("within it")));
         EXPECT_THAT([&] { outer.commit(); }, ThrowsTarn(111, testing::HasSubstr("within it")));
       },
       false},
      {"inner commit, outer rollback",
       [](auto& m) {
         TarnTransaction outer(m);
         {
           TarnTransaction inner(m);
           m.set("a~b", 1);
         }
         EXPECT_EQ(m.getSint32("a~b"), 1) << "its own changes are seen";
         outer.rollback();
       },
       false},
      {"transaction()", [](auto& m) { m.transaction([&] { m.set("a~b", 1); }); }, true},
      {"exception in transaction()",
       [](auto& m) { EXPECT_THROW(m.transaction([&] { m.set("a~b", 1), throw 5; }), int); }, false},
      {"detach",
       [](auto& m) {
         TarnTransaction t(m);
         m.set("a~b", 1);
         m.detach();
         m.attach();
         EXPECT_THROW(t.commit(), TarnException);
       },
       false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    manager().deleteBranch("a");
    c.work(manager());
    EXPECT_EQ(picture(), c.isKept ? "a{b=1}" : "");
    reopen();
    EXPECT_EQ(picture(), c.isKept ? "a{b=1}" : "");
  }
}

TEST_F(TransactionTest, ATransactionIsEndedOnce) {
  TarnTransaction transaction(manager());
  manager().set("a", 1);
  transaction.commit();
  EXPECT_THROW(transaction.commit(), TarnException);
  transaction.rollback();
  EXPECT_EQ(manager().getSint32("a"), 1);
}

TEST_F(TransactionTest, RemembersNoPathOfWhatWasRolledBack) {
  manager().set("a~b", 1);
  EXPECT_EQ(manager().getSint32("a~b"), 1);
  {
    TarnTransaction transaction(manager());
    manager().moveBranch("a~b", "c");
    manager().set("a~b", 2);
    EXPECT_EQ(manager().getSint32("a~b"), 2);
    EXPECT_EQ(manager().getSint32("c"), 1);
    transaction.rollback();
  }
  EXPECT_EQ(manager().getSint32("a~b"), 1);
  EXPECT_FALSE(manager().valueAt("c").has_value());
}

}  // namespace
}  // namespace tarns
