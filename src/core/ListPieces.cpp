#include "core/ListPieces.h"

#include <goods/cache_manager.h>
#include <tarns/core/TarnObjects.h>

#include <algorithm>
#include <system_error>
#include <utility>

#include "core/node_access.h"
#include "goods/B_tree_walk.h"
#include "goods/attached_scope.h"

namespace tarns {

namespace {

constexpr unsigned long kManyChildren = 1024;
constexpr std::size_t kPieceChildren = 64;
constexpr std::size_t kPiecesForThread = 4;  // that wait or are written, at most
constexpr unsigned kMostThreads = 4;         // with the caller's
constexpr std::size_t kMostLeft =
    4;  // pieces that the caller has to write before it writes the rest

unsigned NumThreads() { return std::min(std::thread::hardware_concurrency(), kMostThreads); }

// The name at which the piece behind the one from `from` on begins; empty when that is the last.
// Children of one name are in one piece.
std::string EndOfPiece(const TarnRef& parent, const std::string& from) {
  return goods::read_here([&](goods::reader& reader) -> std::string {
    const TarnObjects* const index = TarnNodeAccess::IndexOf(reader, *reader.get(parent));
    if (index == nullptr) return {};
    goods::B_tree_walk place(reader, *index);
    place.seek_lower(from);
    for (std::size_t i = 1; i < kPieceChildren && !place.at_end(); ++i) place.next();
    if (place.at_end()) return {};
    place.seek_upper(place.entry().name);
    return place.at_end() ? std::string() : std::string(place.entry().name);
  });
}

}  // namespace

bool ListPieces::IsFor(const TarnRef& parent, unsigned long numChildren) {
  if (numChildren < kManyChildren || parent.id() == 0 || NumThreads() < 2) return false;
  const goods::cache_manager* const session = goods::cache_manager::current();
  return session != nullptr && !session->in_transaction() && !session->is_reading();
}

ListPieces::ListPieces(TarnRef parent, Write write)
    : parent_(std::move(parent)),
      write_(std::move(write)),
      session_(goods::cache_manager::require()) {}

ListPieces::~ListPieces() {
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  for (std::thread& thread : threads_) thread.join();
}

std::unique_ptr<ListPieces::Piece> ListPieces::next() {
  plan();
  if (threads_.empty()) startThreads();
  std::unique_lock lock(mutex_);
  if (entries_.empty()) return nullptr;
  while (entries_.front().state != State::kDone) {
    if (Entry* const entry = waiting()) {
      write(*entry, lock);
    } else {
      changed_.wait(lock);
    }
  }
  std::unique_ptr<Piece> piece = std::move(entries_.front().piece);
  entries_.pop_front();
  ++(piece->nodes ? numWritten_ : numLeft_);
  return piece;
}

// Sees to it that there are enough pieces for all threads.
void ListPieces::plan() {
  while (!isPlanned_ && entries_.size() < kPiecesForThread * NumThreads()) {
    auto piece = std::make_unique<Piece>();
    piece->range.from = from_;
    const bool isForCaller = numLeft_ > kMostLeft + numWritten_;
    if (!isForCaller) piece->range.to = EndOfPiece(parent_, from_);
    from_ = piece->range.to;
    isPlanned_ = from_.empty();
    const std::lock_guard lock(mutex_);
    entries_.push_back({std::move(piece), isForCaller ? State::kDone : State::kWaits});
  }
  changed_.notify_all();
}

// None where the system has none to spare.
void ListPieces::startThreads() try {
  while (threads_.size() + 1 < NumThreads()) threads_.emplace_back([this] { run(); });
} catch (const std::system_error&) {  // NOLINT(bugprone-empty-catch): see above
}

// Without memory the pieces are the caller's.
void ListPieces::run() try {
  const goods::attached_scope attached(session_);
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    if (Entry* const entry = waiting()) {
      write(*entry, lock);
    } else {
      changed_.wait(lock);
    }
  }
} catch (...) {  // NOLINT(bugprone-empty-catch): see above
}

// The first piece that nobody writes; null when there is none.
ListPieces::Entry* ListPieces::waiting() {
  const auto found = std::ranges::find(entries_, State::kWaits, &Entry::state);
  return found != entries_.end() ? &*found : nullptr;
}

void ListPieces::write(Entry& entry, std::unique_lock<std::mutex>& lock) {
  entry.state = State::kIsWritten;
  lock.unlock();
  try {
    write_(*entry.piece);
  } catch (...) {  // the caller comes upon it once more
    entry.piece->nodes.reset();
  }
  lock.lock();
  entry.state = State::kDone;
  changed_.notify_all();
}

}  // namespace tarns
