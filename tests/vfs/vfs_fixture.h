#pragma once

#include <tarns/vfs/TarnVFS.h>
#include <tarns/vfs/TarnVFSFile.h>
#include <tarns/vfs/TarnVFSReader.h>
#include <tarns/vfs/TarnVFSWriter.h>

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/session_fixture.h"

namespace tarns {

// Opens what is protected.
class OpenVFS : public TarnVFS {
 public:
  using TarnVFS::checkItemName;
  using TarnVFS::getBaseExtName;
  using TarnVFS::getDBPathFor;
  using TarnVFS::getDBPathForItem;
  using TarnVFS::modifyItemName;
  using TarnVFS::moveItemInternal;
  using TarnVFS::TarnVFS;
};

// A database with a file system below "files".
class vfs_test : public session_test {
 protected:
  explicit vfs_test(scratch_directory::place where = scratch_directory::place::in_memory)
      : session_test(1, {}, where) {
    mount();
  }
  ~vfs_test() override { vfs_.reset(); }

  void mount(const char* subPath = nullptr) {
    vfs_ = std::make_unique<OpenVFS>(manager(), manager().getNoFail("files"), subPath);
  }
  void unmount() { vfs_.reset(); }
  void remount() {
    unmount();
    reopen();
    mount();
  }
  OpenVFS& vfs() { return *vfs_; }

  void put(const std::string& path, const std::string& content) {
    TarnVFSWriter writer(vfs(), path);
    writer.write(std::string_view(content));
    writer.finish();
  }
  std::string content(const std::string& path) { return TarnVFSReader(vfs(), path).readAll(); }

  // All folders (with "/" behind them) and items below a folder, items with their contents.
  std::map<std::string, std::string> tree(const std::string& path = {}) {
    std::map<std::string, std::string> found;
    collect(path, {}, found);
    return found;
  }

 private:
  void collect(const std::string& path, const std::string& shown,
               std::map<std::string, std::string>& found) {
    const auto below = [](const std::string& above, const std::string& name) {
      return above.empty() ? name : above + "~" + name;
    };
    for (const TarnVFSEntry& entry : vfs().listItems(path)) {
      found[below(shown, entry.name)] = TarnVFSReader(entry.item).readAll();
    }
    for (const std::string& name : vfs().getFolderNames(path)) {
      found[below(shown, name) + "/"] = "";
      collect(below(path, name), below(shown, name), found);
    }
  }

  std::unique_ptr<OpenVFS> vfs_;
};

using Tree = std::map<std::string, std::string>;

}  // namespace tarns
