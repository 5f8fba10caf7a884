// Branches as text: the part of TarnManager that exports and imports.
#include <tarns/core/TarnException.h>
#include <tarns/session/TarnManager.h>
#include <tarns/util/XException.h>

#include <cerrno>

#include "core/NodeReader.h"
#include "core/PartStore.h"
#include "core/node_access.h"

namespace tarns {

namespace {

// Calls open(), which reads the first line.
template <class Open>
void OpenText(const Open& open) {
  try {
    open();
  } catch (const TarnException&) {
    throw;
  } catch (const XException& error) {
    throw TarnException(error.getError(), ErrorID::BadExportFile);
  }
}

void OpenFile(PInOut& in, const char* file, XProgressReporter* reporter) {
  in.reportProgressTo(reporter);
  OpenText([&] {
    if (in.openForRead(file)) return;
    if (errno == ENOENT) TarnException::ThrowFileNotFound(file != nullptr ? file : "");
    throw TarnException("Bad export file detected.  Aborting import.", ErrorID::BadExportFile);
  });
}

void OpenStream(PInOut& in, std::istream& stream, XProgressReporter* reporter) {
  in.reportProgressTo(reporter);
  OpenText([&] { in.readFrom(stream); });
}

}  // namespace

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
  PInOut in;
  OpenFile(in, path, reporter);
  return importFrom(in, name);
}

xcptref<TarnObject> TarnManager::importFrom(PInOut& in, XString* name) const {
  return NodeReader(in).readAll(name);
}

xcptref<TarnObject> TarnManager::importFrom(std::istream& in, XString* name,
                                            XProgressReporter* reporter) const {
  PInOut text;
  OpenStream(text, in, reporter);
  return importFrom(text, name);
}

xcptref<TarnObject> TarnManager::importTo(TarnPathText path, PInOut& in, XString* name,
                                          std::size_t nodesAtATime) {
  VerifyNotRoot(path.view());
  goods::cache_manager& session = getCacheManager();
  const TarnRef near = NearestNode(getRoot(), path.view());
  for (const std::string_view branch : TarnBranches(path.view())) {
    TarnObject::VerifyChildName(near, branch);
  }
  PartStore store(session, goods::storage_of(near.id()));
  NodeReader reader(in);
  if (!session.in_transaction()) reader.storeTo(store, nodesAtATime);
  TarnRef branch = reader.readAll(name);
  if (!branch.is_null()) set(path, branch);
  return branch;
}

xcptref<TarnObject> TarnManager::importTo(TarnPathText path, const char* file, XString* name,
                                          XProgressReporter* reporter) {
  PInOut in;
  OpenFile(in, file, reporter);
  return importTo(path, in, name);
}

xcptref<TarnObject> TarnManager::importTo(TarnPathText path, std::istream& in, XString* name,
                                          XProgressReporter* reporter) {
  PInOut text;
  OpenStream(text, in, reporter);
  return importTo(path, text, name);
}

}  // namespace tarns
