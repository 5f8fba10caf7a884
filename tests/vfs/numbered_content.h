// An item whose contents are made from numbers.
#pragma once

#include <tarns/vfs/TarnVFS.h>
#include <tarns/vfs/TarnVFSReader.h>
#include <tarns/vfs/TarnVFSWriter.h>

#include <string>
#include <string_view>

namespace tarns {

inline constexpr const char* kNumberedItem = "large~x";

// Begins with the number; so long that it is put into the database in several transactions.
inline std::string NumberedContent(int number) {
  const std::string text = std::to_string(number) + "\n";
  const std::size_t size = (std::size_t{9} << 20) + static_cast<std::size_t>(number) * 1000;
  std::string content;
  content.reserve(size + text.size());
  while (content.size() < size) content += text;
  return content;
}

inline void PutContent(TarnVFS& files, int number) {
  files.createFolder("large");
  TarnVFSWriter writer(files, kNumberedItem);
  writer.write(std::string_view(NumberedContent(number)));
  writer.finish();
}

// 0 when there is no item, -1 when it has not all of a number's content and nothing else.
inline int NumberOfContent(TarnVFS& files) {
  if (!files.isItemExist(kNumberedItem)) return 0;
  const std::string content = TarnVFSReader(files, kNumberedItem).readAll();
  const int number = content.empty() ? -1 : std::stoi(content);
  return number > 0 && content == NumberedContent(number) ? number : -1;
}

}  // namespace tarns
