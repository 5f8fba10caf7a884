// Branches as text: the part of TarnManager that exports and imports.
#include <tarns/core/TarnException.h>
#include <tarns/session/TarnManager.h>
#include <tarns/util/XException.h>

#include <cerrno>

#include "core/NodeReader.h"
#include "core/node_access.h"

namespace tarns {

void TarnManager::exportTo(TarnPathText path, PInOut& out) const { existing(path)->exportTo(out); }

void TarnManager::exportTo(TarnPathText path, const char* file) const {
  existing(path)->exportTo(file);
}

void TarnManager::exportTo(TarnPathText path, std::ostream& out) const {
  existing(path)->exportTo(out);
}

XString TarnManager::exportToTempFile(TarnPathText path) const {
  return existing(path)->exportToTempFile();
}

void TarnManager::exportMinLockingTo(TarnPathText path, PInOut& out) const {
  const TarnRef node = existing(path);
  TarnNodeAccess::WriteMinLocking(node->getName(), node, out);
}

xcptref<TarnObject> TarnManager::importFromFile(const char* path, XString* name,
                                                XProgressReporter* reporter) const {
  constexpr const char* kBadFile = "Bad export file detected.  Aborting import.";
  PInOut in;
  in.reportProgressTo(reporter);
  try {
    if (!in.openForRead(path)) {
      if (errno == ENOENT) TarnException::ThrowFileNotFound(path != nullptr ? path : "");
      throw TarnException(kBadFile, ErrorID::BadExportFile);
    }
  } catch (const TarnException&) {
    throw;
  } catch (const XException& error) {  // the first line cannot be read
    throw TarnException(error.getError(), ErrorID::BadExportFile);
  }
  return importFrom(in, name);
}

xcptref<TarnObject> TarnManager::importFrom(PInOut& in, XString* name) const {
  return NodeReader(in).readAll(name);
}

xcptref<TarnObject> TarnManager::importFrom(std::istream& in, XString* name,
                                            XProgressReporter* reporter) const {
  PInOut text;
  text.reportProgressTo(reporter);
  try {
    text.readFrom(in);
  } catch (const TarnException&) {
    throw;
  } catch (const XException& error) {
    throw TarnException(error.getError(), ErrorID::BadExportFile);
  }
  return importFrom(text, name);
}

}  // namespace tarns
