#include "PackageIndex.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <unordered_set>
#include <utility>

namespace tarns::bench {
namespace {

constexpr std::string_view kNameField = "Package";

bool IsIntegerField(std::string_view name) { return name == "Size" || name == "Installed-Size"; }

Value ParseValue(std::string_view name, std::string_view text) {
  std::int64_t number = 0;
  const char* end = text.data() + text.size();
  if (IsIntegerField(name)) {
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    if (error == std::errc() && rest == end) return Value::Integer(number);
  }
  return Value::Text(text);
}

// The end of the field that starts at `at`: before the first line that does not continue it.
std::size_t EndOfField(std::string_view stanza, std::size_t at) {
  for (;;) {
    at = stanza.find('\n', at);
    if (at == std::string_view::npos) return stanza.size();
    if (at + 1 == stanza.size() || (stanza[at + 1] != ' ' && stanza[at + 1] != '\t')) return at;
    ++at;
  }
}

}  // namespace

PackageIndex PackageIndex::FromCommand(const char* command) {
  const auto close = [](std::FILE* pipe) { pclose(pipe); };
  std::unique_ptr<std::FILE, decltype(close)> pipe(popen(command, "re"), close);
  if (!pipe) throw std::runtime_error(std::string("Cannot run ") + command);
  std::vector<char> text;
  std::array<char, 65536> block;
  while (const std::size_t got = std::fread(block.data(), 1, block.size(), pipe.get())) {
    text.insert(text.end(), block.begin(), block.begin() + got);
  }
  if (pclose(pipe.release()) != 0) throw std::runtime_error(std::string("Failed: ") + command);
  return PackageIndex(std::move(text));
}

PackageIndex PackageIndex::FromFile(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) throw std::runtime_error("Cannot read " + file.string());
  return PackageIndex({std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()});
}

PackageIndex::PackageIndex(std::vector<char> text) : text_(std::move(text)) {
  parse();
  if (packages_.empty()) throw std::runtime_error("The package index is empty.");
}

void PackageIndex::parse() {
  std::string_view rest(text_.data(), text_.size());
  while (!rest.empty()) {
    const std::size_t end = rest.find("\n\n");
    addPackage(rest.substr(0, end));
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 2);
  }
  std::vector<Package> packages;
  std::vector<Field> fields;
  fields.reserve(fields_.size());
  std::unordered_set<std::string_view> seen;
  for (const Package& package : packages_) {
    if (!seen.insert(package.name).second) {
      ++duplicates_;
      continue;
    }
    const auto own = fieldsOf(package);
    packages.push_back(
        {package.name, static_cast<std::uint32_t>(fields.size()), package.fieldCount});
    fields.insert(fields.end(), own.begin(), own.end());
    owner_.insert(owner_.end(), own.size(), static_cast<std::uint32_t>(packages.size() - 1));
  }
  packages_ = std::move(packages);
  fields_ = std::move(fields);
}

void PackageIndex::addPackage(std::string_view stanza) {
  const std::size_t first = fields_.size();
  for (std::size_t at = 0; at < stanza.size();) {
    const std::size_t end = EndOfField(stanza, at);
    addField(stanza.substr(at, end - at), first);
    at = end + 1;
  }
  const auto name =
      std::find_if(fields_.begin() + static_cast<std::ptrdiff_t>(first), fields_.end(),
                   [](const Field& field) { return field.name == kNameField; });
  if (name == fields_.end()) {
    fields_.resize(first);
    return;
  }
  if (name->value.text.empty() || name->value.text.find('~') != std::string_view::npos) {
    throw std::runtime_error("No branch of a path: \"" + std::string(name->value.text) + "\"");
  }
  packages_.push_back({name->value.text, static_cast<std::uint32_t>(first),
                       static_cast<std::uint32_t>(fields_.size() - first)});
}

void PackageIndex::addField(std::string_view lines, std::size_t firstOfPackage) {
  const std::size_t colon = lines.find(':');
  if (colon == std::string_view::npos || colon == 0) return;
  const std::string_view name = lines.substr(0, colon);
  std::string_view text = lines.substr(colon + 1);
  text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
  if (name.find('~') != std::string_view::npos) {
    throw std::runtime_error("No branch of a path: \"" + std::string(name) + "\"");
  }
  for (std::size_t i = firstOfPackage; i < fields_.size(); ++i) {
    if (fields_[i].name == name) {
      ++duplicates_;
      return;
    }
  }
  fields_.push_back({name, ParseValue(name, text)});
}

void PackageIndex::truncate(std::size_t count) {
  if (count >= packages_.size()) return;
  packages_.resize(count);
  fields_.resize(packages_.back().firstField + packages_.back().fieldCount);
  owner_.resize(fields_.size());
}

std::uint64_t PackageIndex::valueBytes() const {
  std::uint64_t bytes = 0;
  for (const Field& field : fields_) bytes += field.value.isInteger ? 8 : field.value.text.size();
  return bytes;
}

}  // namespace tarns::bench
