#include "goods/configuration.h"

#include <charconv>
#include <filesystem>
#include <fstream>
#include <istream>
#include <optional>
#include <string_view>
#include <system_error>
#include <vector>

#include <goods/errors.h>

namespace goods {

namespace {

constexpr std::size_t most_storages = 0xFFFF;
constexpr std::streamsize longest_line = 65536;  // bytes, the line feed included

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

// Reads lines one after the other.
class line_reader {
 public:
  line_reader(std::istream& file, const std::string& path) : file_(file), path_(path) {}

  // Without the line feed and blanks around it, until the next call; nothing behind the last one.
  std::optional<std::string_view> next() {
    ++number_;
    file_.getline(text_.data(), longest_line);
    const std::streamsize length = file_.gcount();
    if (file_.fail() && length == longest_line - 1) {
      throw_in_file(path_, "line " + std::to_string(number_) + " is longer than " +
                               std::to_string(longest_line) + " bytes.");
    }
    if (!file_) return std::nullopt;
    const std::streamsize end = file_.eof() ? length : length - 1;
    return trimmed({text_.data(), static_cast<std::size_t>(end)});
  }
  std::size_t number() const { return number_; }

 private:
  std::istream& file_;
  const std::string& path_;
  std::vector<char> text_ = std::vector<char>(static_cast<std::size_t>(longest_line));
  std::size_t number_ = 0;
};

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
  line_reader lines(file, path);
  std::size_t count = 0;
  if (!to_number(lines.next().value_or(""), count) || count == 0 || count > most_storages) {
    throw_in_file(path, "the first line must be the number of storages.");
  }
  result.addresses.resize(count);
  for (std::size_t i = 0; i < count; ++i) {
    const std::optional<std::string_view> line = lines.next();
    if (!line) throw_in_file(path, "the first line doesn't match the number of listed storages.");
    add_storage(result, path, *line, lines.number());
  }
  return result;
}

}  // namespace goods
