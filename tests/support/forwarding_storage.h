#pragma once

#include <goods/dbs_storage.h>

#include <functional>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

// A storage that hands everything on to another one; what derives from it does something else in
// some places.
class forwarding_storage : public goods::dbs_storage {
 public:
  explicit forwarding_storage(std::shared_ptr<goods::dbs_storage> to) : to_(std::move(to)) {}

  const std::string& name() const override { return to_->name(); }
  goods::commit_version load(std::span<const goods::object_number> numbers,
                             goods::commit_version at_least, goods::state_sink& into) override {
    return to_->load(numbers, at_least, into);
  }
  void expect(std::span<const goods::object_number> numbers) noexcept override {
    to_->expect(numbers);
  }
  goods::object_number allocate(std::uint32_t count) override { return to_->allocate(count); }
  goods::number_range reuse(std::uint32_t most) override { return to_->reuse(most); }
  void give_back(goods::number_range unused) noexcept override { to_->give_back(unused); }
  void reclaim(const std::function<bool(goods::object_number first)>& is_unused) override {
    to_->reclaim(is_unused);
  }
  goods::commit_version commit(const goods::commit_request& request) override {
    return to_->commit(request);
  }
  void make_durable() override { to_->make_durable(); }
  void give_back_room() override { to_->give_back_room(); }
  std::unique_ptr<goods::commit_pause> pause_commits() override { return to_->pause_commits(); }
  std::unique_ptr<goods::condemnation> condemn(
      std::function<bool(goods::object_number number)> is_condemned,
      const goods::commit_pause& during) override {
    return to_->condemn(std::move(is_condemned), during);
  }
  goods::class_number intern_layout(std::span<const std::byte> layout) override {
    return to_->intern_layout(layout);
  }
  std::vector<goods::layout_record> layouts() override { return to_->layouts(); }
  std::unique_ptr<goods::notice_subscription> subscribe(const void* origin) override {
    return to_->subscribe(origin);
  }
  goods::commit_version newest_version() const override { return to_->newest_version(); }
  goods::lock_table& locks() override { return to_->locks(); }

  goods::storage_identity identity() const override { return to_->identity(); }
  void prepare(const goods::global_transaction& id, const goods::storage_identity& coordinator,
               const std::string& coordinator_name, const goods::commit_request& request) override {
    to_->prepare(id, coordinator, coordinator_name, request);
  }
  goods::commit_version commit_and_decide(const goods::commit_decision& decision,
                                          const goods::commit_request& request) override {
    return to_->commit_and_decide(decision, request);
  }
  goods::commit_version commit_prepared(const goods::global_transaction& id) override {
    return to_->commit_prepared(id);
  }
  void publish(const goods::global_transaction& id) noexcept override { to_->publish(id); }
  void abandon(const goods::global_transaction& id) noexcept override { to_->abandon(id); }
  void discard_prepared(const goods::global_transaction& id) override { to_->discard_prepared(id); }
  void forget_decision(const goods::global_transaction& id) override { to_->forget_decision(id); }
  std::vector<goods::prepared_commit> prepared() override { return to_->prepared(); }
  std::vector<goods::commit_decision> decisions() override { return to_->decisions(); }

  void for_each(const std::function<bool(const goods::object_state&)>& visit) override {
    to_->for_each(visit);
  }
  std::unique_ptr<goods::storage_view> view(const goods::commit_pause& during) override {
    return to_->view(during);
  }
  std::unique_ptr<goods::storage_copier> copier() override { return to_->copier(); }
  goods::storage_statistics statistics() override { return to_->statistics(); }
  void suggest_cache(const void* user, std::size_t bytes) override {
    to_->suggest_cache(user, bytes);
  }

 protected:
  goods::dbs_storage& to() const { return *to_; }

 private:
  const std::shared_ptr<goods::dbs_storage> to_;
};
