#include <goods/errors.h>
#include <goods/object_handle.h>
#include <goods/task.h>
#include <tarns/core/TarnBranches.h>
#include <tarns/schema/TarnClassDescriptor.h>
#include <tarns/session/TarnCacheManager.h>
#include <tarns/session/TarnManager.h>

#include <exception>
#include <optional>

#include "core/node_access.h"
#include "session/remembered_values.h"

namespace tarns {

namespace {

constexpr std::size_t kShareOfRemembered = 2;  // of the cache's memory: one part in so many

constexpr goods::ref_word kRootWord =
    goods::ref_word::of(goods::make_object_id(0, goods::root_object_number));

const TarnObject& LookAtNode(goods::reader& reader, goods::ref_word word) {
  return *static_cast<const TarnObject*>(reader.look(word, TarnObject::self_class));
}

// ReadValue() that also tells which node the value is of, when it is safe to go there directly as
// long as nothing is relinked. It is not where a member or an overridden look-up had a say: those
// may lead elsewhere after changes that relink nothing.
bool ReadAndLocate(goods::reader& reader, std::string_view path, TarnData& out,
                   RememberedValues::Search& search) {
  using enum goods::guest_scope::policy;
  const TarnObject* node = &LookAtNode(reader, kRootWord);
  goods::ref_word word = kRootWord;
  const TarnBranches branches(path);
  for (auto branch = branches.begin(); branch != branches.end(); ++branch) {
    if (!node->getClass().isTarnsBaseClass()) return ReadValue(reader, *node, branch.rest(), out);
    // The value will be remembered, so the node and its text need not be.
    node = PassToChild(reader, *node, *branch, branch.isLast() ? always : at_first, word);
    if (node == nullptr) return false;
  }
  std::optional<goods::guest_scope> guests;
  if (node->getClass().may_be_guest()) guests.emplace(reader);
  if (!node->readValue(reader, out)) return false;
  if (!word.is_null()) search.found(word.is_id() ? word.id() : word.handle()->id(), *node);
  return true;
}

bool ReadKnown(goods::reader& reader, goods::object_id id, TarnData& out,
               RememberedValues::Search& search) {
  const TarnObject& node = LookAtNode(reader, goods::ref_word::of(id));
  if (!node.readValue(reader, out)) return false;
  search.found(id, node);
  return true;
}

}  // namespace

TarnCacheManager::TarnCacheManager(TarnManager& manager)
    : goods::cache_manager(manager.db()),
      manager_(manager),
      remembered_(std::make_unique<RememberedValues>(*this, cache_limit() / kShareOfRemembered)) {}

TarnCacheManager::~TarnCacheManager() = default;

void TarnCacheManager::setCacheLimit(std::size_t bytes) {
  set_cache_limit(bytes);
  if (remembered_ != nullptr) rememberValues(true);
}

void TarnCacheManager::rememberValues(bool on) {
  remembered_.reset();
  if (!on) return;
  remembered_ = std::make_unique<RememberedValues>(*this, cache_limit() / kShareOfRemembered);
}

void TarnCacheManager::verifyAttached() const {
  if (current() == this) return;
  goods::throw_error(goods::error_code::thread_not_attached,
                     "The calling thread is not attached to this session; call attach() first.");
}

void TarnCacheManager::verifyMayAttach() const {
  if (current() != this) VerifyMayLeave();
}

void TarnCacheManager::VerifyMayLeave() {
  const goods::cache_manager* const session = current();
  if (session == nullptr || !session->in_transaction()) return;
  goods::throw_error(goods::error_code::usage,
                     "The calling thread cannot leave its session for another one while it has a "
                     "transaction open there: commit it, or roll it back, first.");
}

xcptref<TarnRoot> TarnCacheManager::getRoot() {
  verifyAttached();
  if (!hasRoot_.load(std::memory_order_acquire)) makeRoot();
  goods::object_ref root;
  db().get_root(root, 0);
  return xcptref<TarnRoot>(root);
}

// Several threads and sessions may get here at once; set_root() lets one of them through.
void TarnCacheManager::makeRoot() {
  goods::object_ref root;
  db().get_root(root, 0);
  if (!root) setFreshRoot();
  hasRoot_.store(true, std::memory_order_release);
}

// On a thread of its own where the calling one has a transaction open.
void TarnCacheManager::setFreshRoot() {
  const auto make = [](TarnCacheManager& session) { session.db().set_root(TarnRoot::Create(), 0); };
  if (!in_transaction()) {
    make(*this);
    return;
  }
  struct Work {
    TarnCacheManager& session;
    decltype(make) makeRoot;
    std::exception_ptr failure;
  } work{*this, make, nullptr};
  goods::task::create(
      [](void* argument) {
        Work& its = *static_cast<Work*>(argument);
        try {
          its.session.attach();
          its.makeRoot(its.session);
        } catch (...) {
          its.failure = std::current_exception();
        }
        detach();
      },
      &work)
      .join();
  if (work.failure) std::rethrow_exception(work.failure);
}

bool TarnCacheManager::readValue(std::string_view path, TarnData& out) {
  verifyAttached();
  if (!hasRoot_.load(std::memory_order_acquire)) makeRoot();
  if (remembered_ != nullptr && in_transaction()) return readLocking(path, out);
  // Within another read only that one knows whether all belongs to one state.
  if (remembered_ == nullptr || is_reading()) {
    return readRepeatably(out, [&](goods::reader& reader) {
      return ReadValue(reader, LookAtNode(reader, kRootWord), path, out);
    });
  }
  RememberedValues::Search search(*remembered_, path);
  catch_up();
  if (search.read(out)) return true;
  const bool exists = readRepeatably(out, [&](goods::reader& reader) {
    const goods::object_id known = search.beginRound();
    return known != 0 ? ReadKnown(reader, known, out, search)
                      : ReadAndLocate(reader, path, out, search);
  });
  // Only now is it certain that what was read belongs to one state.
  if (exists) search.remember(out);
  return exists;
}

// In a transaction a read locks what it passes, index pages included, whether it walks there or is
// spared that.
bool TarnCacheManager::readLocking(std::string_view path, TarnData& out) {
  RememberedValues::Search search(*remembered_, path);
  if (search.readLocking(out)) return true;
  goods::passed_objects passed;
  const bool exists = read([&](goods::reader& reader) {
    search.beginRound();
    const goods::passing_scope notes(reader, passed);
    return ReadAndLocate(reader, path, out, search);
  });
  if (exists) search.rememberLocking(out, passed);
  return exists;
}

template <class Work>
bool TarnCacheManager::readRepeatably(TarnData& out, const Work& work) {
  const TarnData::Type asked = out.getType();
  int rounds = 0;
  return read([&](goods::reader& reader) {
    if (rounds++ != 0) out = TarnData(asked);
    return work(reader);
  });
}

}  // namespace tarns
