#include "core/value_index_changes.h"

#include <goods/database.h>
#include <goods/obj_storage.h>
#include <goods/object_handle.h>

#include <atomic>
#include <memory>

#include "core/value_index.h"
#include "core/value_index_upkeep.h"
#include "goods/class_layout.h"
#include "goods/commit_upkeep.h"
#include "goods/layout_catalog.h"
#include "goods/thread_attachment.h"
#include "goods/transaction.h"

namespace tarns {

namespace {

// Grows whenever somebody in this process has declared an index.
std::atomic<std::uint64_t> declared{1};

goods::transaction* OpenTransaction() {
  const goods::cache_manager* const session = goods::cache_manager::current();
  const goods::thread_attachment* const thread =
      session != nullptr ? session->attachment() : nullptr;
  return thread != nullptr ? thread->open() : nullptr;
}

// What a session knows about the indexes in its storages.
class KnownStores : public goods::session_companion {
 public:
  static KnownStores& Of(goods::cache_manager& session) {
    static const char key = 0;
    return static_cast<KnownStores&>(
        session.companion_for(&key, []() -> std::unique_ptr<goods::session_companion> {
          return std::make_unique<KnownStores>();
        }));
  }

  bool mayHaveIndexes(goods::cache_manager& session) {
    if (found_.load(std::memory_order_acquire)) return true;
    const std::uint64_t now = declared.load(std::memory_order_acquire);
    if (asked_.load(std::memory_order_acquire) == now) return false;
    if (Look(session.db())) {
      found_.store(true, std::memory_order_release);
      return true;
    }
    asked_.store(now, std::memory_order_release);
    return false;
  }

 private:
  static bool Look(goods::database& db) {
    for (std::uint32_t s = 0; s < db.get_number_of_storages(); ++s) {
      const auto number = static_cast<goods::storage_number>(s);
      for (const goods::layout_record& record : db.storage(number).dbs().layouts()) {
        const goods::object_id id = goods::make_object_id(number, record.number);
        bool isOfIndexes = false;
        PastDamage([&] {  // of a class that nothing can be loaded of
          const auto layout = goods::class_layout::parse(record.layout, id);
          isOfIndexes = layout.name == TarnValueIndexes::self_class.name();
        });
        if (isOfIndexes) return true;
      }
    }
    return false;
  }

  std::atomic<bool> found_{false};
  std::atomic<std::uint64_t> asked_{0};  // `declared` when nothing was found
};

}  // namespace

ValueIndexChanges& ValueIndexChanges::Here() {
  goods::transaction& open = goods::transaction::running();
  if (open.upkeep == nullptr) open.upkeep = std::make_unique<ValueIndexChanges>();
  return static_cast<ValueIndexChanges&>(*open.upkeep);
}

const ValueIndexChanges* ValueIndexChanges::OfTransaction(const goods::transaction& open) {
  return static_cast<const ValueIndexChanges*>(open.upkeep.get());
}

ValueIndexChanges::Children& ValueIndexChanges::of(goods::ref<TarnObjects> children) {
  Children& found = children_[children.handle()];
  if (found.index.is_null()) found.index = std::move(children);
  return found;
}

void ValueIndexChanges::NoteDeclared(const goods::ref<TarnObjects>& children) {
  Here().of(goods::ref<TarnObjects>::trusted(HeldTo(children.word())));
}

void ValueIndexChanges::NoteAdded(const TarnObjects& children,
                                  const goods::ref<goods::set_member>& entry) {
  const auto held = goods::ref<goods::set_member>::trusted(HeldTo(entry.word()));
  Children& all = Here().of(goods::ref<TarnObjects>::trusted(goods::object_ref(children.handle())));
  Change& change = all.entries[held.handle()];
  change.entry = held;
  change.isThere = true;
}

void ValueIndexChanges::NoteRemoved(const TarnObjects& children,
                                    const goods::ref<goods::set_member>& entry) {
  const auto held = goods::ref<goods::set_member>::trusted(HeldTo(entry.word()));
  Children& all = Here().of(goods::ref<TarnObjects>::trusted(goods::object_ref(children.handle())));
  const auto [at, isNew] = all.entries.try_emplace(held.handle());
  Change& change = at->second;
  if (isNew) {
    const auto body = *held;
    change.entry = held;
    change.before.emplace(std::string(body->key()), HeldTo(body->target().word()));
  }
  change.isThere = false;
}

bool HasChangesOfItsOwn() {
  const goods::transaction* const open = OpenTransaction();
  return open != nullptr && (open->is_doomed() || open->has_changes());
}

bool MayHaveValueIndexes(goods::cache_manager& session) {
  return KnownStores::Of(session).mayHaveIndexes(session);
}

// The layout first: who looks because of the counter must find it.
void AnnounceValueIndexes(goods::cache_manager& session) {
  for (std::uint32_t s = 0; s < session.db().get_number_of_storages(); ++s) {
    session.db()
        .storage(static_cast<goods::storage_number>(s))
        .catalog()
        .number_for(TarnValueIndexes::self_class);
  }
  declared.fetch_add(1, std::memory_order_acq_rel);
}

[[maybe_unused]] const bool isDefined = goods::define_commit_upkeep(KeepValueIndexes);

}  // namespace tarns
