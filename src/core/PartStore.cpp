#include "core/PartStore.h"

#include <goods/cache_manager.h>
#include <tarns/schema/TarnFieldDescriptor.h>

#include <system_error>
#include <utility>

#include "core/node_access.h"
#include "goods/attached_scope.h"
#include "goods/thread_attachment.h"
#include "goods/transaction.h"

namespace tarns {

namespace {

// A transaction that is not repeated when it fails: what it was made of may be gone.
class OneTransaction {
 public:
  explicit OneTransaction(goods::cache_manager& session) : session_(session) {
    session_.begin_transaction();
    goods::transaction::running().set_of_call();
  }
  OneTransaction(const OneTransaction&) = delete;
  OneTransaction& operator=(const OneTransaction&) = delete;
  ~OneTransaction() {
    if (isOpen_) session_.abort_transaction();
  }
  void commit() {
    isOpen_ = false;
    session_.end_transaction();
  }

 private:
  const goods::library_call call_;
  goods::cache_manager& session_;
  bool isOpen_ = true;
};

}  // namespace

LocatedException::LocatedException(std::uint64_t line, const TarnException& error) {
  *this << "Line " << line << ": " << error.getError();
  setErrorID(error.getErrorID());
}

PartStore::PartStore(goods::cache_manager& session, goods::storage_number storage)
    : session_(session), storage_(storage) {}

PartStore::~PartStore() = default;

void PartStore::store(Part part) {
  waitForThread();
  // Throws where the calling thread may not write.
  { const OneTransaction nothing(session_); }
  part_ = std::move(part);
  try {
    onTheWay_ = std::async(std::launch::async, [this] {
      const goods::attached_scope attached(session_);
      storeNow();
    });
    return;
  } catch (const std::system_error&) {  // NOLINT(bugprone-empty-catch): no thread to spare
  }
  storeNow();
}

void PartStore::storeNow() {
  OneTransaction transaction(session_);
  apply();
  // What nobody else refers to need not stay in memory once it is stored.
  part_ = {};
  lastHolder_ = nullptr;
  lastIndex_ = nullptr;
  transaction.commit();
}

void PartStore::waitForThread() {
  if (onTheWay_.valid()) onTheWay_.get();
}

std::vector<PartStore::Home> PartStore::wait() {
  waitForThread();
  return std::exchange(homes_, {});
}

void PartStore::finish() noexcept {
  if (onTheWay_.valid()) onTheWay_.wait();
}

void PartStore::change(const std::function<void()>& work) {
  waitForThread();
  OneTransaction transaction(session_);
  work();
  transaction.commit();
}

void PartStore::apply() {
  if (!part_.top.is_null()) goods::transaction::running().store(part_.top, storage_);
  for (const Addition& addition : part_.additions) {
    try {
      add(addition);
    } catch (const TarnException& error) {
      if (error.getErrorID() >= ErrorID::Deadlock) throw;  // not the text's fault
      throw LocatedException(addition.line, error);
    }
  }
}

void PartStore::add(const Addition& addition) {
  switch (addition.kind) {
    case Addition::kChild:
      modify(indexOf(addition.holder))->insert(addition.name, addition.node);
      break;
    case Addition::kListed:
      modify(indexOf(addition.holder))->link(addition.name, addition.node);
      break;
    case Addition::kHome: {
      const xcptref<TarnObjects>& index = indexOf(addition.holder);
      homes_.push_back({addition.node, index, modify(index)->link(addition.name, addition.node)});
      break;
    }
    case Addition::kMember: {
      TarnRef node = addition.node;
      addition.field->copyTo(node, &*modify(addition.holder), addition.name.c_str());
      break;
    }
  }
}

const xcptref<TarnObjects>& PartStore::indexOf(const TarnRef& holder) {
  if (lastHolder_ != holder) {
    lastHolder_ = holder;
    lastIndex_ = holder->getChildren();
  }
  return lastIndex_;
}

}  // namespace tarns
