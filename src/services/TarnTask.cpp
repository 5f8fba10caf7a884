#include <fmt/format.h>
#include <goods/hierarchical_access.h>
#include <tarns/schema/GOODSinOut.h>
#include <tarns/schema/TarnClassDescriptor.h>
#include <tarns/schema/TarnClassRegistration.h>
#include <tarns/services/TarnTask.h>

namespace tarns {

TARN_REGISTER_WITH(TarnTask, TarnObject, .pageN = 2, .scheme = &goods::hierarchical_access_scheme);

TarnTask::~TarnTask() = default;

bool TarnTask::write(const char* name, GOODSinOut& out) {
  TarnObject::write(name, out);
  out.write("Number", number_);
  out.write("Delegate", delegate_);
  out.write("State", state_);
  out.write("Created", created_);
  out.write("Planned", planned_);
  out.write("Due", due_);
  out.write("Period", period_);
  out.write("Runs", runs_);
  out.write("Errors", errors_);
  return out.write("LastError", lastError_);
}

std::string TarnTask::getRunKey() const {
  // The plan tells runs apart that have the same number since a backup was restored, the identifier
  // those of a copy from the original's.
  return fmt::format("{}-{}-{}-{}-{}", number_, created_, GetObjectID(getSelf()), runs_, planned_);
}

}  // namespace tarns
