#pragma once

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <tarns/containers/BundleSync.h>
#include <tarns/session/TarnAttachment.h>
#include <tarns/session/TarnManager.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "containers/sync_records.h"
#include "support/scratch_directory.h"

// A database with a synchronised bundle of Drawers at "b". Several of them are open at a time; each
// call works in its own.
class SyncSite {
 public:
  SyncSite() : directory_(scratch_directory::place::in_memory) {
    std::ofstream(configuration()) << "1\n0: file:./data?durability=relaxed\n";
    tarns::TarnManager::Initialize();
    open();
    in([&] { manager().set("b", tarns::SyncedBundle::Create("Drawer")); });
  }
  ~SyncSite() { close(); }

  tarns::TarnManager& manager() { return *manager_; }
  tarns::xcptref<tarns::SyncedBundle> bundle() {
    return tarns::xcptref<tarns::SyncedBundle>(manager().getObject("b"));
  }
  // Runs `work` attached to this database.
  template <class Work>
  std::invoke_result_t<const Work&> in(const Work& work) {
    const tarns::TarnAttachment attachment(manager());
    return work();
  }

  // --- What an application does ---

  bool has(const std::string& name) {
    return in([&] { return !bundle()->getBundledChildWithName(name.c_str()).is_null(); });
  }
  void create(const std::string& name, const std::string& label) {
    in([&] {
      manager().transaction([&] {
        modify(bundle())->newChild(name.c_str());
        manager().set(PathOf(name) + "~Label", label);
      });
    });
  }
  void change(const std::string& name, const std::string& label) {
    in([&] { manager().set(PathOf(name) + "~Label", label); });
  }
  bool remove(const std::string& name) {
    return in([&] { return modify(bundle())->deleteBundledChild(name.c_str()); });
  }
  static std::string PathOf(const std::string& name) { return "b~BundledChildren~" + name; }

  // --- Exchange ---

  std::string replica() {
    return in([&] { return bundle()->getReplica(); });
  }
  unsigned long notice() {
    return in([&] { return tarns::BundleSync(bundle()).noticeChanges(); });
  }
  std::string exportSince(std::uint64_t revision) {
    return in([&] { return tarns::BundleSync(bundle()).exportSince(revision); });
  }
  std::string exportFor(SyncSite& other) {
    const std::string partner = other.replica();
    return in([&] { return tarns::BundleSync(bundle()).exportFor(partner); });
  }
  // To a partner, or to one that is none yet.
  std::string exportTo(SyncSite& other) { return knows(other) ? exportFor(other) : exportSince(0); }
  bool knows(SyncSite& other) {
    const std::string partner = other.replica();
    for (const auto& known : partners()) {
      if (known.replica == partner) return true;
    }
    return false;
  }
  tarns::BundleImport import(const std::string& text) {
    return in([&] { return tarns::BundleSync(bundle()).import(text); });
  }
  std::vector<tarns::BundlePartner> partners() {
    return in([&] { return tarns::BundleSync(bundle()).partners(); });
  }
  unsigned long deletions() {
    return in([&] { return bundle()->getNumDeletions(); });
  }

  // Each object's text form under its name.
  std::map<std::string, std::string> contents() {
    return in([&] {
      std::map<std::string, std::string> all;
      const tarns::TarnRef objects = bundle()->getChildWithName("BundledChildren");
      if (objects.is_null()) return all;
      for (const auto& [name, object] : objects->children()) {
        EXPECT_TRUE(all.emplace(name, TextOf(object)).second) << name;
      }
      return all;
    });
  }
  std::string text(const std::string& name) {
    return in([&] {
      const tarns::TarnRef object = bundle()->getBundledChildWithName(name.c_str());
      return object.is_null() ? std::string() : TextOf(object);
    });
  }

  // --- Backups of files ---

  void save() {
    close();
    std::filesystem::remove_all(directory_.path() / "saved");
    std::filesystem::copy(directory_.path() / "data", directory_.path() / "saved",
                          std::filesystem::copy_options::recursive);
    open();
  }
  void setBack() {
    close();
    std::filesystem::remove_all(directory_.path() / "data");
    std::filesystem::copy(directory_.path() / "saved", directory_.path() / "data",
                          std::filesystem::copy_options::recursive);
    open();
  }
  // Gets the same files as another one.
  void takeFilesOf(SyncSite& other) {
    close();
    other.save();
    std::filesystem::remove_all(directory_.path() / "data");
    std::filesystem::copy(other.directory_.path() / "saved", directory_.path() / "data",
                          std::filesystem::copy_options::recursive);
    open();
  }
  // Becomes a copy that the library has made of another one.
  void becomeBackupOf(SyncSite& other) {
    close();
    std::filesystem::remove_all(directory_.path() / "data");
    const std::string backup = directory_.file("backup");
    other.in([&] { other.manager().backup(backup.c_str()); });
    for (const auto& entry : std::filesystem::recursive_directory_iterator(backup)) {
      if (entry.is_directory() && entry.path().filename() == "data") {
        std::filesystem::copy(entry.path(), directory_.path() / "data",
                              std::filesystem::copy_options::recursive);
      }
    }
    open();
  }

 private:
  static std::string TextOf(const tarns::TarnRef& object) {
    std::string made;
    tarns::PInOut out;
    out.writeTo(made);
    object->exportTo(out);
    out.close();
    return made;
  }
  std::string configuration() const { return directory_.file("tarns.conf"); }
  void open() {
    manager_ = std::make_unique<tarns::TarnManager>();
    manager_->connect(configuration().c_str());
  }
  void close() { manager_.reset(); }

  scratch_directory directory_;
  std::unique_ptr<tarns::TarnManager> manager_;
};

inline void ReplaceAll(std::string& text, const std::string& from, const std::string& to) {
  for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
    text.replace(at, from.size(), to);
  }
}

// A changed export with a last line that fits it.
inline std::string WithChecksum(std::string text) {
  if (const std::size_t end = text.rfind("End "); end != std::string::npos) text.resize(end);
  const auto hash = tarns::DigestOf(text);
  return text + fmt::format("End {:016x}{:016x}\n", hash[1], hash[0]);
}

// Exports and imports between all sites until nobody learns anything new. Deletions are exported
// until their acknowledgement has come back, so that takes a few rounds.
template <class Sites>
void ExchangeAll(Sites& sites) {
  for (int round = 0; round < 8; ++round) {
    for (auto& from : sites) {
      for (auto& to : sites) {
        if (&from != &to) to->import(from->exportTo(*to));
      }
    }
  }
}

// Two sites that know nothing of each other yet.
class TwoSitesTest : public testing::Test {
 protected:
  TwoSitesTest() : sites_{std::make_unique<SyncSite>(), std::make_unique<SyncSite>()} {}
  SyncSite& a() { return *sites_[0]; }
  SyncSite& b() { return *sites_[1]; }
  void exchange() { ExchangeAll(sites_); }
  void expectEqual() { EXPECT_EQ(a().contents(), b().contents()); }

 private:
  std::array<std::unique_ptr<SyncSite>, 2> sites_;
};
