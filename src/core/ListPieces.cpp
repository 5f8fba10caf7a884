#include "core/ListPieces.h"

#include <goods/cache_manager.h>
#include <tarns/core/TarnObjects.h>

#include <algorithm>
#include <iterator>
#include <system_error>
#include <utility>

#include "core/node_access.h"
#include "goods/B_tree_walk.h"
#include "goods/attached_scope.h"

namespace tarns {

namespace {

constexpr std::size_t kPieceChildren = 64;
constexpr std::size_t kPiecesForThread = 4;  // that wait or are written, at most
constexpr unsigned kMostThreads = 4;         // with the caller's
// When more than so many pieces were of no use, and most of all, the caller writes so many children
// before it is tried again.
constexpr std::size_t kMostUseless = 4, kCallerChildren = 64 * kPieceChildren;

unsigned NumThreads() {
  static const unsigned number = std::min(std::thread::hardware_concurrency(), kMostThreads);
  return number;
}

// The name of the child behind `count` of them, of which the first is the one at `from`; empty
// when there are no more. Children of one name stay together.
std::string NameBehind(const TarnRef& parent, const std::string& from, std::size_t count) {
  return goods::read_here([&](goods::reader& reader) -> std::string {
    const TarnObjects* const index = TarnNodeAccess::IndexOf(reader, *reader.get(parent));
    if (index == nullptr) return {};
    goods::B_tree_walk place(reader, *index);
    place.seek_lower(from);
    for (std::size_t i = 1; i < count && !place.at_end(); ++i) place.next();
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
      numThreads_(NumThreads()),
      session_(goods::cache_manager::require()) {}

ListPieces::~ListPieces() { stopThreads(); }

std::unique_ptr<ListPieces::Piece> ListPieces::next() {
  plan();
  if (threads_.empty()) startThreads();
  while (true) {
    Entry* mine = nullptr;
    {
      goods::guarded_scope scope(lock_);
      if (entries_.empty()) return nullptr;
      while (entries_.front().state != State::kDone && (mine = take()) == nullptr) {
        changed_.wait(lock_);
      }
      if (mine == nullptr) {
        std::unique_ptr<Piece> piece = std::move(entries_.front().piece);
        entries_.pop_front();
        ++(piece->nodes ? numWritten_ : numLeft_);
        return piece;
      }
    }
    write(*mine);
  }
}

void ListPieces::wasUseless() {
  --numWritten_;
  ++numLeft_;
}

void ListPieces::pause() {
  stopThreads();
  goods::guarded_scope scope(lock_);
  if (entries_.empty()) return;
  from_ = entries_.front().piece->range.from;
  isPlanned_ = false;
  entries_.clear();
}

// Sees to it that there are enough pieces for all threads.
void ListPieces::plan() {
  while (!isPlanned_) {
    {
      goods::guarded_scope scope(lock_);
      if (entries_.size() >= kPiecesForThread * numThreads_) return;
    }
    const bool isForCaller = numLeft_ > kMostUseless + numWritten_;
    if (isForCaller) numWritten_ = numLeft_ = 0;
    auto piece = std::make_unique<Piece>();
    piece->range.from = from_;
    piece->range.to = NameBehind(parent_, from_, isForCaller ? kCallerChildren : kPieceChildren);
    from_ = piece->range.to;
    isPlanned_ = from_.empty();
    goods::guarded_scope scope(lock_);
    entries_.push_back({std::move(piece), isForCaller ? State::kDone : State::kWaits});
    changed_.notify_one();
  }
}

// --- Threads ------------------------------------------------------------------------------------

// None where the system has none to spare.
void ListPieces::startThreads() try {
  {
    goods::guarded_scope scope(lock_);
    stopping_ = false;
  }
  while (threads_.size() + 1 < numThreads_) threads_.emplace_back([this] { run(); });
} catch (const std::system_error&) {  // NOLINT(bugprone-empty-catch): see above
}

void ListPieces::stopThreads() {
  {
    goods::guarded_scope scope(lock_);
    stopping_ = true;
    changed_.notify_all();
  }
  for (std::thread& thread : threads_) thread.join();
  threads_.clear();
}

// Without memory all pieces are the caller's.
void ListPieces::run() try {
  const goods::attached_scope attached(session_);
  while (Entry* const entry = waitForWork()) write(*entry);
} catch (...) {  // NOLINT(bugprone-empty-catch): see above
}

// Null when it is time to end.
ListPieces::Entry* ListPieces::waitForWork() {
  goods::guarded_scope scope(lock_);
  while (!stopping_) {
    if (Entry* const entry = take()) return entry;
    changed_.wait(lock_);
  }
  return nullptr;
}

// The first piece that nobody writes; null when there is none.
ListPieces::Entry* ListPieces::take() {
  const auto found = std::ranges::find(entries_, State::kWaits, &Entry::state);
  if (found == entries_.end()) return nullptr;
  found->state = State::kIsWritten;
  return &*found;
}

void ListPieces::write(Entry& entry) {
  Piece& piece = *entry.piece;
  std::list<Entry> rest;
  try {
    write_(piece);
    rest = cut(piece);
  } catch (...) {  // the caller comes upon it once more
    piece.nodes.reset();
  }
  if (!piece.nodes) piece.text = {};
  goods::guarded_scope scope(lock_);
  entry.state = State::kDone;
  const auto place =
      std::ranges::find_if(entries_, [&](const Entry& each) { return &each == &entry; });
  entries_.splice(std::next(place), rest);
  changed_.notify_all();
}

// What is too much becomes a piece of the caller's own, and what comes behind it another one. What
// throws leaves the piece as long as it was.
std::list<ListPieces::Entry> ListPieces::cut(Piece& piece) const {
  std::list<Entry> rest;
  if (piece.tooMuch.empty()) return rest;
  const std::string behind = NameBehind(parent_, piece.tooMuch, 1), end = piece.range.to;
  const bool hasMore = !behind.empty() && (end.empty() || behind < end);
  const std::string& endOfChild = hasMore ? behind : end;
  const auto add = [&](const std::string& from, const std::string& to, State state) {
    rest.push_back({std::make_unique<Piece>(), state});
    rest.back().piece->range = {from, to};
  };
  if (piece.nodes) add(piece.tooMuch, endOfChild, State::kDone);
  if (hasMore) add(behind, end, State::kWaits);
  piece.range.to = piece.nodes ? piece.tooMuch : endOfChild;
  return rest;
}

}  // namespace tarns
