// What a commit over several storages builds on is looked for when its parts are prepared, and must
// be there when it is finished.
#include <gtest/gtest.h>

#include <thread>

#include <goods/obj_storage.h>

#include "support/cell.h"
#include "support/planted_faults.h"
#include "support/test_database.h"

namespace goods {
namespace {

// Known by its identifier alone, and garbage otherwise. Which of the two storages decides, their
// random identities tell.
TEST(LateDecisionTest, NoCollectionTakesWhatAPreparedCommitRefersBackTo) {
  for (const std::uint32_t storage : {0U, 1U}) {
    SCOPED_TRACE(storage);
    planted_faults faults(planted_faults::fault::late_decision, 1);
    const test_store store(2, "?durability=relaxed");
    test_session session(store);
    const ref<cell> near = session.root(), far = new_cell(1);
    modify(far)->attach_to_storage(&session.db(), 1);
    modify(near)->next = far;
    ref<cell> target = new_cell(2);
    modify(target)->attach_to_storage(&session.db(), storage);
    modify(far)->next = target;
    const ref<cell> referring = new_cell(3);
    modify(referring)->owner.set(target);
    modify(far)->next = nullptr;
    target.clear();

    faults.set_meanwhile([&] {
      std::thread([&] {
        test_session other(store);
        EXPECT_EQ(other.db().start_gc(), 1U);
      }).join();
    });
    const std::uint64_t before = faults.count();
    session.session().atomically([&] {
      modify(near)->value = 4;
      modify(far)->next = referring;
    });
    EXPECT_EQ(faults.count(), before + 1);
    EXPECT_EQ(ref<cell>(far->next)->owner.get()->value, 2);
    EXPECT_EQ(near->value, 4);
  }
}

}  // namespace
}  // namespace goods
