#include "session/value_ring.h"

#include <algorithm>
#include <array>
#include <bit>
#include <string_view>

namespace tarns {

namespace {

// The first word: the node's identifier in 48 bits, the value's type, whether there are locks, the
// text's length.
constexpr unsigned kTypeShift = 48;
constexpr unsigned kLocksShift = 52;
constexpr unsigned kLengthShift = 53;
constexpr std::uint64_t kNodeMask = (std::uint64_t{1} << kTypeShift) - 1;
constexpr std::uint64_t kTypeMask = 15;
static_assert(ValueRing::kLongestText < std::size_t{1} << (64 - kLengthShift));

constexpr std::size_t WordsFor(std::size_t bytes) { return (bytes + 7) / 8; }

std::uint64_t NumberOf(const TarnData& value) {
  if (value.isRealNumber()) return std::bit_cast<std::uint64_t>(value.getDouble());
  return value.isBoolean() ? std::uint64_t{value.getBoolean()} : value.getUint64();
}

void SetNumber(TarnData& out, TarnData::Type type, std::uint64_t word) {
  switch (type) {
    case TarnData::Boolean:
      return out.set(word != 0);
    case TarnData::Double:
      return out.set(std::bit_cast<double>(word));
    case TarnData::Float:
      return out.set(static_cast<float>(std::bit_cast<double>(word)));
    case TarnData::Sint8:
      return out.set(static_cast<std::int8_t>(word));
    case TarnData::Sint16:
      return out.set(static_cast<std::int16_t>(word));
    case TarnData::Sint32:
      return out.set(static_cast<std::int32_t>(word));
    case TarnData::Sint64:
      return out.set(static_cast<std::int64_t>(word));
    case TarnData::Uint8:
      return out.set(static_cast<std::uint8_t>(word));
    case TarnData::Uint16:
      return out.set(static_cast<std::uint16_t>(word));
    case TarnData::Uint32:
      return out.set(static_cast<std::uint32_t>(word));
    case TarnData::Uint64:
      return out.set(word);
    case TarnData::None:
    case TarnData::String:
      return;
  }
}

}  // namespace

ValueRing::ValueRing(std::size_t bytes)
    : words_(std::max(bytes / sizeof(std::uint64_t), 2 * kMostWords),
             MappedWords::Use::kFromOneEnd),
      end_(words_.size()) {}

std::size_t ValueRing::memory() const {
  return static_cast<std::size_t>(std::min<Position>(end_.load() - words_.size(), words_.size())) *
         sizeof(std::uint64_t);
}

bool ValueRing::fetch(Position at, Record& record) const {
  const auto begin = static_cast<std::size_t>(at % words_.size());
  const std::uint64_t head = words_[begin].load(std::memory_order_acquire);
  const std::uint64_t counters = words_[begin + 1].load(std::memory_order_acquire);
  record.origin = {head & kNodeMask, static_cast<std::uint16_t>(counters),
                   static_cast<std::uint16_t>(counters >> 16),
                   static_cast<std::uint32_t>(counters >> 32)};
  record.type = static_cast<TarnData::Type>(head >> kTypeShift & kTypeMask);
  record.length = static_cast<std::size_t>(head >> kLengthShift);
  const std::size_t valueWords = record.type == TarnData::String ? WordsFor(record.length)
                                 : record.type == TarnData::None ? 0
                                                                 : 1;
  // Of a record that is being overwritten, what is a number of words may be anything.
  std::size_t next = begin + kHeadWords;
  const auto load = [&] { return words_[next++].load(std::memory_order_acquire); };
  const auto upTo = [&](std::size_t count, std::size_t most, std::size_t wordsEach) {
    return std::min({count, most, (words_.size() - std::min(next, words_.size())) / wordsEach});
  };
  record.locks = 0;
  if ((head >> kLocksShift & 1) != 0 && next < words_.size()) {
    const std::uint64_t locks = load();
    record.lockChanges = static_cast<std::uint32_t>(locks >> 32);
    record.locks = upTo(static_cast<std::uint32_t>(locks), kMostLocks, 2);
    for (std::size_t i = 0; i < record.locks; ++i) {
      const std::uint64_t group = load();
      record.objects[i] = {static_cast<goods::storage_number>(group >> 32),
                           {static_cast<goods::object_number>(group), load()}};
    }
  }
  const std::size_t count = upTo(valueWords, kMostContent, 1);
  for (std::size_t i = 0; i < count; ++i) record.content[i] = load();
  return end_.load(std::memory_order_relaxed) <= at + words_.size();
}

void ValueRing::Record::copyTo(TarnData& out) const {
  if (type == TarnData::String) {
    out.set(std::string_view(reinterpret_cast<const char*>(content.data()), length));
  } else {
    SetNumber(out, type, content[0]);
  }
}

ValueRing::Position ValueRing::add(const Origin& origin, const TarnData* value,
                                   const Locks& locks) {
  const bool isText = value != nullptr && value->isString();
  const std::string_view text = isText ? value->getText() : std::string_view();
  if (text.size() > kLongestText) return add(origin, nullptr);
  const bool hasLocks = !locks.objects.empty() && locks.objects.size() <= kMostLocks;
  std::array<std::uint64_t, kMostWords> words;
  std::size_t count = kHeadWords;
  const auto type = static_cast<std::uint64_t>(value != nullptr ? value->getType() : 0);
  words[0] = origin.node | type << kTypeShift | std::uint64_t{hasLocks} << kLocksShift |
             std::uint64_t{text.size()} << kLengthShift;
  words[1] = origin.nodeCounter | std::uint64_t{origin.textCounter} << 16 |
             std::uint64_t{origin.changes} << 32;
  if (hasLocks) {
    words[count++] = locks.objects.size() | std::uint64_t{locks.changes} << 32;
    for (const goods::stored_neighbours& some : locks.objects) {
      words[count++] = some.objects.group | std::uint64_t{some.storage} << 32;
      words[count++] = some.objects.members;
    }
  }
  if (isText) {
    char* const into = reinterpret_cast<char*>(&words[count]);
    for (std::size_t left = WordsFor(text.size()); left > 0; --left) words[count++] = 0;
    text.copy(into, text.size());
  } else if (value != nullptr) {
    words[count++] = NumberOf(*value);
  }
  return addWords({words.data(), count});
}

ValueRing::Position ValueRing::addWords(std::span<const std::uint64_t> words) {
  const std::unique_lock lock(adding_, std::try_to_lock);
  if (!lock.owns_lock()) return 0;
  Position begin = end_.load(std::memory_order_relaxed);
  auto at = static_cast<std::size_t>(begin % words_.size());
  if (at + words.size() > words_.size()) {  // a record lies in one piece
    begin += words_.size() - at;
    at = 0;
  }
  end_.store(begin + words.size(), std::memory_order_relaxed);
  for (const std::uint64_t word : words) words_[at++].store(word, std::memory_order_release);
  return begin;
}

}  // namespace tarns
