#pragma once

#include <tarns/tarns_api.h>
#include <tarns/util/XString.h>

#include <string>
#include <string_view>

namespace tarns {

class TempFile;

// Whole files. Errors are XException and name the file and what the system said.
class TARNS_API FileFP {
 public:
  // The extension of the path's last name: what follows its last point, "" when nothing does; null
  // when there is no point, or only points stand before the last one, as in ".profile" and "...".
  static const char* FindExtension(const char* path);
  // Gives the last name another extension in place of the one that it has, or as its first; null
  // takes it away with its point.
  static void SetExtension(XString& path, const char* extension);

  // Reads the file into `text`, which a NUL byte in the file cuts. When it cannot be read and
  // `mustExist` is 1, throws; with 0 it returns false and leaves `text` alone.
  static bool ReadFromFile(const char* path, XString& text, int mustExist = 1);

  // Reads the file with all its bytes.
  static std::string ReadBytes(const char* path);

  // Replaces the file by one with `content`, so that at any moment, also after a loss of power,
  // either the old file or the whole new one is there. `permissions` are taken literally, whatever
  // the umask. A symbolic link at `path` is replaced itself; what it points to is not touched.
  static void WriteToFile(const char* path, std::string_view content, unsigned permissions = 0600);
  // The same with the content of `fresh`, which lies in the same directory and is kept then.
  static void ReplaceFile(const char* path, TempFile& fresh, unsigned permissions = 0600);
};

}  // namespace tarns
