// What a file system is to be, in maps: the model that TarnVFS is held against.
#pragma once

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace tarns {

struct ModelItem {
  std::string content;
};
using ModelItemPtr = std::shared_ptr<ModelItem>;

struct ModelFolder {
  std::map<std::string, std::shared_ptr<ModelFolder>> folders;
  std::map<std::string, ModelItemPtr> items;
};
using ModelFolderPtr = std::shared_ptr<ModelFolder>;

struct ModelBinEntry {
  std::string path;
  ModelFolderPtr folder;  // one of both
  ModelItemPtr item;
};

inline std::string JoinedNames(const std::string& above, const std::string& name) {
  return above.empty() ? name : above + "~" + name;
}

inline std::pair<std::string, std::string> SplitLast(const std::string& path) {
  const std::size_t at = path.rfind('~');
  if (at == std::string::npos) return {"", path};
  return {path.substr(0, at), path.substr(at + 1)};
}

// `name` or, where it is taken, the one with the number behind the highest: x.t, x(1).t, ...
template <class Map>
std::string FreeNameIn(const Map& taken, const std::string& name) {
  if (!taken.contains(name)) return name;
  const auto split = [](const std::string& text) {
    const std::string ext = text.find('.') == std::string::npos ? "" : text.substr(text.find('.'));
    const std::string base = text.substr(0, text.size() - ext.size());
    const std::size_t open = base.find('(');
    const int number = open == std::string::npos ? 0 : std::stoi(base.substr(open + 1));
    return std::tuple(base.substr(0, open), ext, number);
  };
  const auto [base, ext, own] = split(name);
  int highest = 0;
  for (const auto& [other, value] : taken) {
    const auto [otherBase, otherExt, number] = split(other);
    if (otherBase == base && otherExt == ext) highest = std::max(highest, number);
  }
  return base + "(" + std::to_string(highest + 1) + ")" + ext;
}

// Functions of the same names as those of TarnVFS; they return what those have to return.
class FilesModel {
 public:
  struct Place {
    ModelFolderPtr folder;
    std::string name;
  };

  const ModelFolderPtr& root() const { return root_; }
  const std::map<unsigned long, ModelBinEntry>& bin() const { return bin_; }

  ModelFolderPtr folderAt(std::string path) const {
    ModelFolderPtr at = root_;
    while (at != nullptr && !path.empty()) {
      const std::size_t end = std::min(path.find('~'), path.size());
      const auto found = at->folders.find(path.substr(0, end));
      at = found == at->folders.end() ? nullptr : found->second;
      path.erase(0, end + 1);
    }
    return at;
  }
  Place placeAt(const std::string& path) const {
    const auto [above, name] = SplitLast(path);
    return {folderAt(above), name};
  }
  ModelItemPtr itemAt(const std::string& path) const {
    const Place place = placeAt(path);
    return place.folder == nullptr || !place.folder->items.contains(place.name)
               ? nullptr
               : place.folder->items.at(place.name);
  }

  void put(const std::string& path, const std::string& content) {
    const Place place = placeAt(path);
    ModelItemPtr& item = place.folder->items[place.name];
    if (item == nullptr) item = std::make_shared<ModelItem>();
    item->content = content;
  }
  ModelFolderPtr createFolder(const std::string& path) {
    if (path.empty()) return root_;
    const auto [above, name] = SplitLast(path);
    ModelFolderPtr& folder = createFolder(above)->folders[name];
    if (folder == nullptr) folder = std::make_shared<ModelFolder>();
    return folder;
  }

  bool addItem(const std::string& path, const ModelItemPtr& item, bool overwrite, bool unique) {
    const Place place = placeAt(path);
    if (place.folder == nullptr) return false;
    const ModelItemPtr there = itemAt(path);
    if (there != nullptr && (!overwrite || (!unique && there == item))) return false;
    place.folder->items[unique ? FreeNameIn(place.folder->items, place.name) : place.name] = item;
    return true;
  }
  bool deleteItem(const std::string& path) {
    const Place place = placeAt(path);
    return place.folder != nullptr && place.folder->items.erase(place.name) > 0;
  }
  bool deleteItemsIn(const std::string& path) {
    const ModelFolderPtr folder = folderAt(path);
    if (folder != nullptr) folder->items.clear();
    return folder != nullptr;
  }
  bool deleteFolder(const std::string& path) {
    const Place place = placeAt(path);
    return place.folder != nullptr && place.folder->folders.erase(place.name) > 0;
  }

  // `mode`: that of TarnVFS::moveItemInternal().
  bool moveItem(const std::string& from, const std::string& to, long mode) {
    const Place source = placeAt(from), target = targetOf(from, to);
    const ModelItemPtr item = itemAt(from);
    if (item == nullptr || target.folder == nullptr || target.name.empty()) return false;
    if (mode == 0 && source.folder == target.folder && source.name == target.name) return true;
    if (mode == 0) source.folder->items.erase(source.name);
    auto& items = target.folder->items;
    items[FreeNameIn(items, target.name)] = mode == 1 ? std::make_shared<ModelItem>(*item) : item;
    return true;
  }
  bool transferFolder(const std::string& from, const std::string& to, bool isCopy) {
    const Place source = placeAt(from), target = targetOf(from, to);
    const ModelFolderPtr folder = from.empty() ? nullptr : folderAt(from);
    if (folder == nullptr || target.folder == nullptr || target.name.empty()) return false;
    if (IsWithin(target.folder, folder)) return false;
    if (!isCopy && source.folder == target.folder && source.name == target.name) return true;
    const std::string name = FreeNameIn(target.folder->folders, target.name);
    if (!isCopy) source.folder->folders.erase(source.name);
    target.folder->folders[name] = isCopy ? CopyOf(*folder) : folder;
    return true;
  }
  bool addFolder(const std::string& path, const ModelFolderPtr& folder, bool overwrite,
                 bool merges) {
    const Place place = placeAt(path);
    if (place.folder == nullptr) return false;
    ModelFolderPtr& there = place.folder->folders[place.name];
    if (there == nullptr || (overwrite && !merges)) {
      there = folder;
    } else if (merges) {
      Merge(*folder, *there);
    } else {
      return false;
    }
    return true;
  }

  bool moveToBin(const std::string& path, bool isFolder) {
    const Place place = placeAt(path);
    if (place.folder == nullptr) return false;
    ModelBinEntry entry{path, nullptr, nullptr};
    if (isFolder && place.folder->folders.contains(place.name)) {
      entry.folder = place.folder->folders.extract(place.name).mapped();
    } else if (!isFolder && place.folder->items.contains(place.name)) {
      entry.item = place.folder->items.extract(place.name).mapped();
    } else {
      return false;
    }
    bin_[++lastId_] = entry;
    return true;
  }
  bool restore(unsigned long id) {
    if (!bin_.contains(id)) return false;
    const ModelBinEntry entry = bin_.extract(id).mapped();
    const auto [above, name] = SplitLast(entry.path);
    const ModelFolderPtr folder = createFolder(above);
    if (entry.folder != nullptr) {
      folder->folders[FreeNameIn(folder->folders, name)] = entry.folder;
    } else {
      folder->items[FreeNameIn(folder->items, name)] = entry.item;
    }
    return true;
  }
  bool deleteFromBin(unsigned long id) { return bin_.erase(id) > 0; }

  // How often it is listed, in the file system and in the bin.
  int placesOf(const ModelItemPtr& item) const {
    int places = CountIn(*root_, item);
    for (const auto& [id, entry] : bin_) {
      places += entry.folder != nullptr ? CountIn(*entry.folder, item) : entry.item == item;
    }
    return places;
  }

 private:
  Place targetOf(const std::string& from, const std::string& to) const {
    if (ModelFolderPtr folder = folderAt(to)) return {folder, SplitLast(from).second};
    return placeAt(to);
  }
  static bool IsWithin(const ModelFolderPtr& folder, const ModelFolderPtr& top) {
    if (folder == top) return true;
    return std::any_of(top->folders.begin(), top->folders.end(),
                       [&](const auto& below) { return IsWithin(folder, below.second); });
  }
  static ModelFolderPtr CopyOf(const ModelFolder& folder) {
    auto copy = std::make_shared<ModelFolder>();
    for (const auto& [name, item] : folder.items) {
      copy->items[name] = std::make_shared<ModelItem>(*item);
    }
    for (const auto& [name, below] : folder.folders) copy->folders[name] = CopyOf(*below);
    return copy;
  }
  static void Merge(const ModelFolder& from, ModelFolder& to) {
    for (const auto& [name, item] : from.items) to.items[name] = item;
    for (const auto& [name, below] : from.folders) {
      ModelFolderPtr& there = to.folders[name];
      if (there == nullptr) {
        there = below;
      } else {
        Merge(*below, *there);
      }
    }
  }
  static int CountIn(const ModelFolder& folder, const ModelItemPtr& item) {
    int count = 0;
    for (const auto& [name, listed] : folder.items) count += listed == item ? 1 : 0;
    for (const auto& [name, below] : folder.folders) count += CountIn(*below, item);
    return count;
  }

  ModelFolderPtr root_ = std::make_shared<ModelFolder>();
  std::map<unsigned long, ModelBinEntry> bin_;
  unsigned long lastId_ = 0;
};

}  // namespace tarns
