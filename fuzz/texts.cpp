// The text form of branches. What can be imported is exported and imported again, which must give
// the same text. The input is the text; nothing is stored.
//
// With TARNS_WRITE_SEEDS=DIRECTORY in the environment it writes some good texts as inputs.
#include <tarns/core/TarnException.h>
#include <tarns/core/TarnValue.h>
#include <tarns/schema/GOODSinOut.h>
#include <tarns/schema/TarnClassDescriptor.h>
#include <tarns/schema/TarnClassRegistration.h>
#include <tarns/schema/TarnFieldDescriptor.h>
#include <tarns/session/TarnManager.h>
#include <tarns/util/PInOut.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/OpenSession.h"
#include "fuzz/fuzzer.h"
#include "tests/support/random_tree.h"

namespace {

using namespace tarns;

// Members that Machine does not have.
class Sample : public TarnObject {
  TARN_CLASS(Sample, TarnObject)
 public:
  bool write(const char* name, GOODSinOut& out) override {
    TarnObject::write(name, out);
    out.write("Name", name_);
    out.write("Small", small_);
    out.write("Large", large_);
    out.write("Real", real_);
    out.write("Flags", flags_);
    out.write("Texts", texts_, 2);
    out.write("Nodes", nodes_, 2);
    return out.write("Notes", notes_);
  }

 private:
  TarnString name_;
  std::int8_t small_ = 0;
  std::uint64_t large_ = 0;
  float real_ = 0;
  bool flags_[2] = {};
  TarnString texts_[2];
  xcptref<TarnObject> nodes_[2];
  TarnStringList notes_{this};
};
TARN_REGISTER(Sample, TarnObject);

std::string TextOf(const TarnRef& node) {
  std::string text;
  PInOut out;
  out.writeTo(text);
  TarnObject::Write("top", node, &out);
  fuzz::require(out.close());
  return text;
}

TarnRef NodeFrom(const TarnManager& manager, std::string_view text) {
  PInOut in;
  in.readFrom([&text](char* into, std::size_t size) {
    const std::size_t count = std::min(size, text.size());
    text.copy(into, count);
    text.remove_prefix(count);
    return count;
  });
  return manager.importFrom(in);
}

// Takes a branch apart: nodes that nobody stores and that refer to each other would stay.
void TakeApart(const TarnRef& top) {
  std::vector<TarnRef> open{top};
  std::set<const void*> met;
  for (std::size_t i = 0; i < open.size(); ++i) {
    const TarnRef node = open[i];
    if (!met.insert(node.handle()).second) continue;
    for (const auto& [name, child] : node->children()) open.push_back(child);
    auto body = modify(node);
    body->deleteChildren();
    const unsigned long count = body->getClass().getNumDataMembers();
    for (unsigned long at = 0; at < count; ++at) {
      const XString name = body->getChildName(at);
      const TarnFieldDescriptor* field = body->getClass().findMember(name.getText());
      if (!field->isForNodes()) continue;
      TarnRef target;
      field->copyFrom(&*body, target, name);
      if (!target.is_null()) open.push_back(target);
      TarnRef nothing;
      field->copyTo(nothing, &*body, name);
    }
  }
}

// A session; writes the seeds when they are asked for.
class Session : public fuzz::OpenSession {
 public:
  Session() {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing changes the environment
    if (const char* seeds = std::getenv("TARNS_WRITE_SEEDS")) writeSeeds(seeds);
  }

 private:
  void writeSeeds(const std::string& directory) {
    for (std::uint64_t tree = 0; tree < 40; ++tree) {
      const TarnRef top = TarnObject::Create();
      const random_tree grown(top, tree, random_tree::links::any);
      std::ofstream(directory + "/tree" + std::to_string(tree), std::ios::binary) << TextOf(top);
      TakeApart(top);
    }
    std::ofstream(directory + "/sample") << TextOf(Sample::Create());
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Session session;
  try {
    const TarnRef node = NodeFrom(session.manager(), {reinterpret_cast<const char*>(data), size});
    if (node.is_null()) return 0;
    const std::string text = TextOf(node);
    const TarnRef copy = NodeFrom(session.manager(), text);
    fuzz::require(!copy.is_null() && TextOf(copy) == text);
    TakeApart(node);
    TakeApart(copy);
  } catch (const TarnException& error) {
    fuzz::require(std::string_view(error.what()).starts_with("Line "));
  } catch (const XException&) {  // of the first line
    fuzz::refused();
  }
  return 0;
}
