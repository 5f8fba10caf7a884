#include "storage/storage_address.h"

#include <fmt/format.h>

#include <charconv>
#include <filesystem>
#include <limits>

#include <goods/errors.h>

namespace goods {
namespace {

constexpr std::string_view local_prefix = "file:";
constexpr std::size_t smallest_log = std::size_t{64} << 10, largest_log = std::size_t{1} << 30;

[[noreturn]] void throw_bad_address(std::string_view address, std::string_view why) {
  throw_error(error_code::usage, fmt::format("The storage address \"{}\" {}.", address, why));
}

// "16M" and the like; false for anything else.
bool parse_bytes(std::string_view text, std::size_t& bytes) {
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), bytes);
  if (failure != std::errc{}) return false;
  int shift = 0;
  const std::string_view unit = text.substr(static_cast<std::size_t>(end - text.data()));
  if (unit == "K")
    shift = 10;
  else if (unit == "M")
    shift = 20;
  else if (unit == "G")
    shift = 30;
  else if (!unit.empty())
    return false;
  if (bytes > std::numeric_limits<std::size_t>::max() >> shift) return false;
  bytes <<= shift;
  return true;
}

// Whether `value` is one of two words; `result` tells which.
bool parse_choice(std::string_view value, std::string_view yes, std::string_view no, bool& result) {
  result = value == yes;
  return result || value == no;
}

bool parse_option(std::string_view name, std::string_view value, local_options& options) {
  if (name == "durability") return parse_choice(value, "relaxed", "full", options.relaxed);
  if (name == "mmap") return parse_choice(value, "on", "off", options.mapped);
  if (name == "cache") return parse_bytes(value, options.cache_bytes.emplace());
  if (name == "log")
    return parse_bytes(value, options.log_bytes) && options.log_bytes >= smallest_log &&
           options.log_bytes <= largest_log;
  return false;
}

local_options parse_options(std::string_view text, std::string_view address) {
  local_options options;
  while (!text.empty()) {
    const std::string_view option = text.substr(0, text.find('&'));
    text.remove_prefix(std::min(text.size(), option.size() + 1));
    const std::size_t equals = option.find('=');
    if (equals == std::string_view::npos ||
        !parse_option(option.substr(0, equals), option.substr(equals + 1), options))
      throw_bad_address(address,
                        fmt::format("has an option \"{}\" that is not understood: there are "
                                    "durability=full|relaxed, mmap=on|off, cache=BYTES, "
                                    "log=BYTES from 64K to 1G",
                                    option));
  }
  return options;
}

}  // namespace

storage_address parse_storage_address(std::string_view address, std::string_view base_directory) {
  if (!address.starts_with(local_prefix))
    throw_bad_address(address, "is of no known kind: \"file:DIRECTORY\" is expected");
  const std::string_view rest = address.substr(local_prefix.size());
  const std::size_t question = rest.find('?');
  const std::string_view path = rest.substr(0, question);
  if (path.empty()) throw_bad_address(address, "names no directory");
  if (path.find('\0') != std::string_view::npos)
    throw_bad_address(address, "holds a NUL in its directory");

  storage_address result;
  std::filesystem::path directory(path);
  if (directory.is_relative())
    directory = std::filesystem::absolute(std::filesystem::path(base_directory)) / directory;
  result.directory = directory.lexically_normal().string();
  while (result.directory.size() > 1 && result.directory.back() == '/') result.directory.pop_back();
  if (question != std::string_view::npos)
    result.options = parse_options(rest.substr(question + 1), address);
  return result;
}

}  // namespace goods
