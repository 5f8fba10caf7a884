#pragma once

#include <tarns/core/xcptref.h>
#include <tarns/tarns_api.h>

#include <compare>
#include <cstdint>
#include <limits>
#include <string>

namespace tarns {

class TarnVFSItem;

// A moment in UTC: seconds since 1970-01-01 (before it: negative) and nanoseconds behind them,
// 0 to 999,999,999; what a struct timespec holds.
struct TARNS_API TarnVFSTime {
  std::int64_t seconds = 0;
  std::uint32_t nanoseconds = 0;

  static TarnVFSTime Now();
  // NOLINTNEXTLINE(modernize-use-nullptr): takes the 0 that orderings are compared with for one
  friend auto operator<=>(const TarnVFSTime&, const TarnVFSTime&) = default;
};

// What is known of a folder or item of a virtual file system without looking into it.
struct TarnVFSInfo {
  enum class Kind : std::uint8_t {
    kFile = 0,
    kLink = 1,   // a symbolic link, whose content is the path that it leads to
    kFolder = 2  // never stored
  };

  Kind kind = Kind::kFile;
  std::uint64_t size = 0;                      // bytes of content; 0 for a folder
  std::uint32_t permissions = kNoPermissions;  // of POSIX, at most 07777
  TarnVFSTime modified = kNoTime;              // when the content was written last
  TarnVFSTime created = kNoTime;               // when the item was made; never told of a folder
  std::uint32_t references = 1;                // in so many places the item is listed

  // What stands for permissions and times that were never told.
  static constexpr std::uint32_t kNoPermissions = 0xFFFFFFFF;
  static constexpr TarnVFSTime kNoTime{std::numeric_limits<std::int64_t>::min(), 0xFFFFFFFF};
};

// One line of a listing of items.
struct TarnVFSEntry {
  std::string name;
  xcptref<TarnVFSItem> item;
  TarnVFSInfo info;
};

}  // namespace tarns
