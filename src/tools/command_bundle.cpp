#include <tarns/containers/TarnBundle.h>

#include <memory>
#include <vector>

#include "tools/Invocation.h"
#include "tools/Listing.h"
#include "tools/OpenDatabase.h"
#include "tools/Output.h"
#include "tools/json_names.h"
#include "tools/shown_text.h"
#include "tools/signals.h"

namespace tarns {

namespace {

struct BlockFacts {
  std::string name;
  unsigned used, free;
};

std::vector<BlockFacts> BlocksOf(const xcptref<TarnBundle>& bundle) {
  std::vector<BlockFacts> facts;
  const TarnRef blocks = bundle->getChildWithName(TarnBundle::kBlocks);
  if (blocks.is_null()) return facts;
  for (const auto& [name, child] : blocks->children()) {
    ThrowIfInterrupted();
    const unsigned free = xcptref<TarnBundleBlock>(child)->getNumUnused();
    facts.push_back({name, TarnBundleBlock::kCapacity - free, free});
  }
  return facts;
}

void WriteTable(Output& out, const std::string& className, unsigned long objects,
                const std::vector<BlockFacts>& blocks) {
  Listing facts(out, {});
  facts.add({"class:", Shown(className)});
  facts.add({"objects:", std::to_string(objects)});
  facts.add({"blocks:", std::to_string(blocks.size())});
  facts.finish();
  if (blocks.empty()) return;
  Listing listing(out, {"BLOCK", "USED", "FREE"});
  for (const BlockFacts& block : blocks) {
    listing.add({Shown(block.name), std::to_string(block.used), std::to_string(block.free)});
  }
  listing.finish();
}

void WriteJson(Output& out, const std::string& className, unsigned long objects,
               const std::vector<BlockFacts>& blocks) {
  out << "{\n  \"class\": " << Quoted(TextOfName(className))
      << ",\n  \"objects\": " << std::to_string(objects) << ",\n  \"blocks\": [";
  const char* separator = "";
  for (const BlockFacts& block : blocks) {
    out << separator << "\n    {\"name\": " << Quoted(TextOfName(block.name))
        << ", \"used\": " << std::to_string(block.used)
        << ", \"free\": " << std::to_string(block.free) << "}";
    separator = ",";
  }
  out << (blocks.empty() ? "]\n}\n" : "\n  ]\n}\n");
}

int Bundle(const Invocation& invocation, const std::string& path) {
  if (invocation.format == Format::kTree || invocation.format == Format::kRaw) {
    throw UsageError{"bundle has the formats table and json."};
  }
  OpenDatabase database(invocation);
  const xcptref<TarnBundle> bundle(database.node(path));  // of another class: throws
  std::string className;
  unsigned long objects = 0;
  std::vector<BlockFacts> blocks;
  database->transaction([&] {  // of one state
    className = bundle->getClassName().view();
    objects = bundle->getNumBundledChildren();
    blocks = BlocksOf(bundle);
  });
  Output out;
  if (invocation.format == Format::kJson) {
    WriteJson(out, className, objects, blocks);
  } else {
    WriteTable(out, className, objects, blocks);
  }
  out.finish();
  return ExitStatus::kDone;
}

}  // namespace

void AddBundle(CLI::App& app, Invocation& invocation) {
  CLI::App& command =
      AddCommand(app, "bundle", "Tell what a bundle holds, and how full its blocks are",
                 "tarns -d data bundle machines", "tarns -d data ls machines~BundledChildren");
  auto path = std::make_shared<std::string>();
  command.add_option("PATH", *path, "The bundle")->required();
  command.callback([&invocation, path] {
    invocation.action = [&invocation, path] { return Bundle(invocation, *path); };
  });
}

}  // namespace tarns
