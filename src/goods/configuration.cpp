#include "goods/configuration.h"

#include <charconv>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <system_error>

#include <goods/errors.h>

namespace goods {

namespace {

constexpr std::size_t most_storages = 0xFFFF;

[[noreturn]] void throw_in_file(const std::string& path, const std::string& what) {
  throw_error(error_code::usage, "Error in database configuration file \"" + path + "\": " + what);
}

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view blanks = " \t\r";
  const std::size_t first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

bool to_number(std::string_view text, std::size_t& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size();
}

void add_storage(configuration& into, const std::string& path, std::string_view line,
                 std::size_t line_number) {
  const auto fail = [&](const char* what) {
    throw_in_file(path, "line " + std::to_string(line_number) + ", \"" + std::string(line) +
                            "\", " + what + ".");
  };
  const std::size_t colon = line.find(':');
  if (colon == std::string_view::npos) fail("has no colon behind the storage's number");
  std::size_t number = 0;
  if (!to_number(trimmed(line.substr(0, colon)), number)) {
    fail("does not begin with a storage's number");
  }
  if (number >= into.addresses.size())
    fail("has a number that is not below the number of storages");
  const std::string_view address = trimmed(line.substr(colon + 1));
  if (address.empty()) fail("has no address");
  if (!into.addresses[number].empty()) fail("repeats a storage's number");
  into.addresses[number] = address;
}

}  // namespace

configuration read_configuration(const std::string& path) {
  std::error_code ignored;
  if (std::filesystem::is_directory(path, ignored)) {
    throw_error(error_code::usage,
                "\"" + path + "\" is a directory, not a database configuration file.");
  }
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    throw_error(error_code::usage, "Cannot read the database configuration file \"" + path +
                                       "\": " + std::generic_category().message(errno) + ".");
  }
  configuration result;
  result.directory = std::filesystem::absolute(path).parent_path();
  std::string line;
  std::getline(file, line);
  std::size_t count = 0;
  if (!to_number(trimmed(line), count) || count == 0 || count > most_storages) {
    throw_in_file(path, "the first line must be the number of storages.");
  }
  result.addresses.resize(count);
  for (std::size_t i = 0; i < count; ++i) {
    if (!std::getline(file, line)) {
      throw_in_file(path, "the first line doesn't match the number of listed storages.");
    }
    add_storage(result, path, trimmed(line), i + 2);
  }
  return result;
}

}  // namespace goods
