#include "TarnsStore.h"

#include <fmt/format.h>
#include <tarns/core/TarnBranchWalk.h>
#include <tarns/core/TarnChildren.h>
#include <tarns/core/TarnIterator.h>
#include <tarns/core/TarnValue.h>
#include <tarns/core/TarnValueIndex.h>
#include <tarns/select/TarnSelection.h>
#include <tarns/session/TarnAttachment.h>
#include <tarns/session/TarnTransaction.h>

#include <chrono>
#include <fstream>
#include <optional>
#include <stdexcept>

namespace tarns::bench {
namespace {

Value ValueOf(const TarnData& data) {
  return data.isInteger() ? Value::Integer(data.getSint64()) : Value::Text(data.getText());
}

TarnData DataOf(const Value& value) {
  return value.isInteger ? TarnData(value.number) : TarnData(value.text);
}

class TarnsSession : public StoreSession {
 public:
  explicit TarnsSession(TarnManager& manager) : manager_(manager), attachment_(manager) {}
  ~TarnsSession() noexcept override {
    if (transaction_) transaction_->rollback();  // after an error; ending it could throw
  }

  bool read(std::string_view path, std::uint64_t& digest) override {
    if (!manager_.get(path, data_)) return false;
    digest = DigestOf(ValueOf(data_));
    return true;
  }

  void list(std::string_view path, std::string_view after, std::size_t limit,
            const NameSink& sink) override {
    for (const std::string& name : manager_.getChildNames(path, after, limit)) sink(name);
  }

  void findByValue(std::string_view path, std::string_view field, std::string_view text,
                   const NameSink& sink) override {
    const auto query = TarnQuery::Create();
    modify(query)->addElement(TarnQueryElement::Create(
        std::string(field).c_str(), TarnQueryElement::Equal, std::string(text).c_str()));
    TarnSelection selection(manager_.getObject(path), query);
    for (const TarnChild& child : selection) sink(child.name);
  }
  void addIndex(std::string_view path, std::string_view field) override {
    TarnValueIndex::Declare(manager_.getObject(path), field);
  }

  void walk(WalkSum& sum) override {
    std::size_t depth = 0;  // of the node that sum stands at
    for (const TarnBranchWalk::Step& step : TarnBranchWalk(manager_.getRoot())) {
      for (; depth >= step.depth; --depth) sum.leave();
      if (step.hasValue) {
        sum.value(step.name, ValueOf(step.value));
      } else {
        sum.enter(step.name);
        ++depth;
      }
    }
  }

  void begin() override { transaction_.emplace(manager_); }
  void commit() override {
    transaction_->commit();
    transaction_.reset();
  }

  void addNode(std::string_view parent, std::string_view name,
               std::span<const Field> values) override {
    const xcptref<TarnObject> node = TarnObject::Create();
    addFields(node, values);
    path_.assign(parent).append("~").append(name);
    manager_.set(path_, node);
  }

  void addValues(std::string_view path, std::span<const Field> values) override {
    addFields(manager_.getNoFail(path, TarnObject::GetType()), values);
  }

  void update(std::string_view path, const Value& value) override {
    manager_.set(path, DataOf(value));
  }
  void updateDurably(std::string_view path, const Value& value) override { update(path, value); }

  bool erase(std::string_view path) override { return manager_.deleteBranch(path); }
  void eraseDurably(std::string_view path) override { erase(path); }

 private:
  void addFields(const xcptref<TarnObject>& node, std::span<const Field> values) {
    for (const auto& [name, value] : values) {
      name_ = name;  // a C string
      modify(node)->addChild(name_.c_str(), TarnValue::CreateValue(DataOf(value)));
    }
  }

  TarnManager& manager_;
  const TarnAttachment attachment_;
  std::optional<TarnTransaction> transaction_;
  TarnData data_;
  std::string name_;
  std::string path_;
};

}  // namespace

TarnsStore::TarnsStore(const Options& options) {
  std::filesystem::create_directories(options.directory);
  const std::string configuration = options.directory / "tarns.conf";
  if (!std::filesystem::exists(configuration)) {
    std::ofstream(configuration) << "1\n0: file:./data\n";
  }
  TarnManager::Initialize();
  manager_.connect(configuration.c_str(), std::chrono::milliseconds(0));
  manager_.setCacheLimit(options.cacheBytes);
}

std::unique_ptr<StoreSession> TarnsStore::session() {
  return std::make_unique<TarnsSession>(manager_);
}

std::size_t TarnsStore::packagesPerCommit() const { return 4000; }

}  // namespace tarns::bench
