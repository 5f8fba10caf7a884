#include <tarns/core/TarnException.h>
#include <tarns/core/TarnValue.h>
#include <tarns/util/FileFP.h>

#include <iostream>
#include <iterator>
#include <memory>
#include <optional>

#include "tools/Invocation.h"
#include "tools/OpenDatabase.h"
#include "tools/value_text.h"

namespace tarns {

namespace {

struct SetOptions {
  std::string path;
  std::optional<std::string> text;
  std::optional<std::string> file;
  std::string type;
};

[[noreturn]] void ThrowNoSuchValue(const std::string& text, TarnData::Type type,
                                   const std::string& hint) {
  const std::string shortened = text.size() > 80 ? text.substr(0, 80) + "..." : text;
  throw UsageError{"\"" + shortened + "\" is no " + TarnData::GetTypeAsString(type) + "." + hint};
}

std::string ReadAll(const std::string& file) {
  if (file != "-") return FileFP::ReadBytes(file.c_str());
  return {std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>()};
}

std::optional<std::string> TextOf(const SetOptions& options) {
  if (!options.file) return options.text;
  if (options.text) throw UsageError{"Give either a value or --file."};
  std::string text = ReadAll(*options.file);
  if (text.find('\0') != std::string::npos) {
    throw UsageError{"A text cannot hold NUL bytes, as \"" + *options.file + "\" does."};
  }
  return text;
}

// Puts a value of another type in the place of the one that is there; what is below it stays.
void Replace(TarnManager& manager, const std::string& path, const TarnRef& existing,
             const TarnData& value) {
  TarnRef made = TarnValue::CreateValue(value);
  modify(existing)->bequeathChildren(made);
  manager.set(path, made);
}

TarnData::Type TypeOf(const std::string& name) {
  const auto type = TypeByName(name);
  if (!type) throw UsageError{"There is no type \"" + name + "\"."};
  return *type;
}

void StoreTyped(TarnManager& manager, const SetOptions& options, const std::string& text) {
  const TarnData::Type type = TypeOf(options.type);
  const auto value = ValueOfType(text, type);
  if (!value) ThrowNoSuchValue(text, type, "");
  const auto before = manager.valueAt(options.path);
  const TarnRef node = manager.getObject(options.path);
  if (before && before->getType() != type && !node.is_null()) {
    Replace(manager, options.path, node, *value);
  } else {
    manager.set(options.path, *value);
  }
}

void StoreGuessed(TarnManager& manager, const SetOptions& options, const std::string& text) {
  const auto before = manager.valueAt(options.path);
  if (!before) {
    // What comes from a file is text, whatever it looks like.
    manager.set(options.path, options.file ? TarnData(text) : GuessValue(text));
    return;
  }
  const auto value = ValueOfType(text, before->getType());
  if (!value) {
    ThrowNoSuchValue(text, before->getType(),
                     " The value that is there keeps its type; use --type to change it.");
  }
  manager.set(options.path, *value);
}

int Set(const Invocation& invocation, const SetOptions& options) {
  const auto text = TextOf(options);
  if (!text && !options.type.empty()) throw UsageError{"A type needs a value."};
  OpenDatabase database(invocation);
  database->transaction([&] {
    if (!text) {
      database->getNoFail(options.path);
    } else if (options.type.empty()) {
      StoreGuessed(*database, options, *text);
    } else {
      StoreTyped(*database, options, *text);
    }
  });
  return ExitStatus::kDone;
}

}  // namespace

void AddSet(CLI::App& app, Invocation& invocation) {
  CLI::App& command = AddCommand(
      app, "set",
      "Store a value; a new one gets the type that fits: true and false, numbers as JSON writes "
      "them, otherwise text. Without a value, make a plain node where nothing is",
      "tarns -d data set machines~press~speed 40",
      "tarns -d data set machines~press~serial 0042 --type String");
  auto options = std::make_shared<SetOptions>();
  command.add_option("PATH", options->path, "Where to")->required();
  command.add_option("VALUE", options->text, "The value; what begins with - goes behind --");
  command.add_option("--file", options->file,
                     "Take the text of a file, or of standard input for -");
  command.add_option("--type", options->type,
                     "Boolean, Double, Float, Sint8 to Sint64, String, Uint8 to Uint64");
  command.callback([&invocation, options] {
    invocation.action = [&invocation, options] { return Set(invocation, *options); };
  });
}

}  // namespace tarns
