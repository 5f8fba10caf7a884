// TarnObject and TarnObjects: branches as text.
#include <goods/cache_manager.h>
#include <tarns/core/TarnException.h>
#include <tarns/core/TarnObject.h>
#include <tarns/core/TarnObjects.h>
#include <tarns/schema/GOODSinOut.h>
#include <tarns/schema/TarnClassDescriptor.h>
#include <tarns/util/XException.h>

#include <cerrno>
#include <system_error>

#include "core/NodeReader.h"
#include "core/NodeWriter.h"
#include "core/node_access.h"
#include "core/text_words.h"

namespace tarns {

namespace {

[[noreturn]] void ThrowCannotWrite() {
  throw TarnException("Error while writing to temporary file; is the disk full?",
                      ErrorID::TempFileFailure);
}

[[noreturn]] void ThrowCannotOpen(const char* file) {
  const int reason = errno;
  TarnException error;
  error << "Cannot write the file \"" << file << "\": " << std::generic_category().message(reason)
        << ".";
  error.setErrorID(ErrorID::TempFileFailure);
  throw error;
}

// Writes with `write(out)` to a temporary file and returns its name.
template <class Write>
XString WriteTempFile(const Write& write) {
  PInOut out;
  if (!out.openTempForWrite()) {
    throw TarnException("Cannot open temporary file; is the disk full?", ErrorID::TempFileFailure);
  }
  XString file = out.getFilename();
  write(out);
  if (!out.close()) ThrowCannotWrite();
  return file;
}

}  // namespace

void TarnObject::exportTo(PInOut& out) const { Write(getName(), getSelf(), &out); }

void TarnObject::exportTo(const char* file) const {
  PInOut out;
  if (!out.openForWrite(file)) ThrowCannotOpen(file != nullptr ? file : "");
  exportTo(out);
  if (!out.close()) ThrowCannotOpen(file);
}

void TarnObject::exportTo(std::ostream& stream) const {
  PInOut out;
  out.writeTo(stream);
  exportTo(out);
  if (!out.close()) ThrowCannotWrite();
}

XString TarnObject::exportToTempFile() const {
  return WriteTempFile([this](PInOut& out) { exportTo(out); });
}

XString TarnObject::ExportMinLockingToTempFile(const xcptref<TarnObject>& node, const char* name) {
  return WriteTempFile([&](PInOut& out) { ExportMinLockingTo(name, node, out); });
}

void TarnObject::ExportMinLockingTo(const char* name, const xcptref<TarnObject>& node,
                                    PInOut& out) {
  NodeWriter(out, NodeWriter::Form::kMinLocking).write(ViewOf(name), node);
}

void TarnObject::Write(const char* name, xcptref<TarnObject> node, const void* out) {
  auto& text = *static_cast<PInOut*>(const_cast<void*>(out));
  if (auto* const writer = dynamic_cast<NodeWriter*>(text.getNesting())) {
    writer->defer(ViewOf(name), node);
  } else {
    NodeWriter(text, NodeWriter::Form::kWhole).write(ViewOf(name), node);
  }
}

bool TarnObject::writeMembers(const char*, PInOut& out) const {
  return writeConcreteMembers(out) &&
         TarnObjects::Write(TarnNodeAccess::IndexNow(*this), TextWord::kChildren, out);
}

bool TarnObject::writeConcreteMembers(PInOut& out) const {
  return GOODSinOut::WriteMembers(*this, out);
}

bool TarnObject::read(PInOut& in) {
  PInOut::Status status = PInOut::Continue;
  while (status == PInOut::Continue) {
    if (in.isCmd(TextWord::kChildren)) {
      status = TarnObjects::Read(this, in, getPageN());
    } else if (in.isCmd(TextWord::kName) && !HasMemberCalledName(*this)) {
      status = readName(in);
    } else {
      status = GOODSinOut::ReadMember(*this, in);
    }
  }
  return true;
}

PInOut::Status TarnObject::readName(PInOut& in) {
  const XString name(in.getValue());
  if (hasParent()) {
    if (getName() != name) setName(name);
  } else if (auto* const reader = dynamic_cast<NodeReader*>(in.getNesting())) {
    reader->rename(getSelf(), name.view());
  }
  in.readLine();
  return PInOut::Continue;
}

bool TarnObjects::Write(const xcptref<TarnObjects>& children, const char* name, PInOut& out) {
  if (out.isOfType(GOODSinOut::GetType())) {
    // A declaration is about the place of the member.
    return static_cast<GOODSinOut&>(out).write(name, const_cast<xcptref<TarnObjects>&>(children));
  }
  if (children.is_null()) return true;
  if (!out.write(name, TextWord::kOpen)) return false;
  out.indentIn();
  ForEachEntry(children, [&](const goods::held_entry& entry, const TarnRef& child) {
    TarnObject::Write(entry.name.c_str(), child, &out);
    return true;
  });
  out.indentOut();
  return out.write(TextWord::kClose);
}

PInOut::Status TarnObjects::Read(TarnObject* parent, PInOut& in, unsigned char pageN) {
  return NodeReader::ReadChildren(*parent, pageN, in);
}

}  // namespace tarns
