#include "goods/unknown_class.h"

#include <algorithm>
#include <map>
#include <mutex>

namespace goods {
namespace {

constexpr std::uint32_t word_size = sizeof(ref_word);

std::uint32_t round_up(std::uint32_t size) {
  return (size + word_size - 1) / word_size * word_size;
}

bool begins_with(const std::vector<const dbs_field_descriptor*>& stored,
                 const std::vector<const field_descriptor*>& declared) {
  return stored.size() >= declared.size() &&
         std::equal(declared.begin(), declared.end(), stored.begin(),
                    [](const field_descriptor* a, const dbs_field_descriptor* b) {
                      return a->to_stored() == *b;
                    });
}

}  // namespace

std::vector<const field_descriptor*> all_fields(const class_descriptor& cls) {
  std::vector<const class_descriptor*> line;
  for (const class_descriptor* one = &cls; one != nullptr; one = one->base()) line.push_back(one);
  std::vector<const field_descriptor*> all, varying;
  for (auto one = line.rbegin(); one != line.rend(); ++one) {
    for_each_field((*one)->fields(), [&](const field_descriptor& field) {
      (field.is_varying() ? varying : all).push_back(&field);
    });
  }
  all.insert(all.end(), varying.begin(), varying.end());
  return all;
}

layout_placement::layout_placement(const class_layout& layout, const class_descriptor& base) {
  std::vector<const field_descriptor*> declared, varying;
  for (const field_descriptor* field : all_fields(base)) {
    (field->is_varying() ? varying : declared).push_back(field);
  }
  std::uint32_t end = round_up(base.instance_size());
  for (const dbs_field_descriptor& stored : layout.fields) {
    if (stored.is_varying()) {
      kept.push_back(&stored);
      continue;
    }
    const auto found =
        std::find_if(declared.begin(), declared.end(),
                     [&](const field_descriptor* field) { return field->to_stored() == stored; });
    if (found != declared.end()) {
      members.push_back({&stored, *found, (*found)->offset()});
      declared.erase(found);
      continue;
    }
    members.push_back({&stored, nullptr, end});
    const field_descriptor room(nullptr, &stored);
    end = round_up(end + room.size() * room.n_items());
  }
  base_has_varying = !varying.empty() && begins_with(kept, varying);
  if (base_has_varying) {
    kept.erase(kept.begin(), kept.begin() + static_cast<std::ptrdiff_t>(varying.size()));
  }
  kept_offset = end;
  extra_room = end + word_size - base.instance_size();
}

unknown_fields make_unknown_fields(const class_layout& layout, const class_descriptor& base,
                                   field_maker maker) {
  const layout_placement placement(layout, base);
  unknown_fields result{nullptr, placement.extra_room};
  for (const layout_placement::member& member : placement.members) {
    if (member.declared != nullptr) continue;
    field_descriptor* const field = maker(nullptr, member.stored);
    field->set_offset(member.offset).append_to(result.fields);
  }
  return result;
}

// --- Classes for unknown layouts
// --------------------------------------------------------------------

namespace {

field_descriptor* make_plain_field(const field_descriptor* declared,
                                   const dbs_field_descriptor* stored) {
  return new field_descriptor(declared, stored);
}

class_descriptor* make_plain_class(std::shared_ptr<const class_layout> layout) {
  class_descriptor* base = &object::self_class;
  for (const std::string& name : layout->bases) {
    class_descriptor* const known = class_descriptor::find(name);
    if (known != nullptr && known->constructor() != nullptr) {
      base = known;
      break;
    }
  }
  const unknown_fields fields = make_unknown_fields(*layout, *base, make_plain_field);
  auto* cls = new class_descriptor(layout->name.c_str(), base->instance_size(), base->scheme(),
                                   base->constructor(), fields.fields, base, base->flags());
  cls->adopt_layout(std::move(layout));
  return cls;
}

std::atomic<unknown_class_factory> the_factory{make_plain_class};

}  // namespace

void set_unknown_class_factory(unknown_class_factory factory) { the_factory = factory; }

class_descriptor& class_for(const std::shared_ptr<const class_layout>& layout) {
  class_descriptor* const known = class_descriptor::find(layout->name);
  if (known != nullptr && known->constructor() != nullptr) return *known;
  static std::mutex lock;
  static auto* const made = new std::map<std::vector<std::byte>, class_descriptor*>;
  const std::lock_guard guard(lock);
  class_descriptor*& cls = (*made)[layout->bytes];
  if (cls == nullptr) cls = the_factory.load()(layout);
  return *cls;
}

// --- unknown_part
// ----------------------------------------------------------------------------------

unknown_part::unknown_part(const unknown_part& other)
    : bytes_(other.bytes_), references_(other.references_) {
  for (const reference& one : references_) {
    if (one.kind == ref_kind::counted) count_word(one.word);
  }
}

unknown_part::~unknown_part() {
  for (const reference& one : references_) {
    if (one.kind == ref_kind::counted) release_word(one.word);
  }
}

void unknown_part::read(const std::vector<const dbs_field_descriptor*>& parts, byte_reader& in) {
  for (const dbs_field_descriptor* part : parts) {
    const std::byte* kept_to = in.position();
    walk_field(*part, in, [&](const stored_reference& found) {
      bytes_.insert(bytes_.end(), kept_to, found.begin);
      references_.push_back({ref_word::of(found.target), bytes_.size(), found.kind});
      kept_to = found.end;
    });
    bytes_.insert(bytes_.end(), kept_to, in.position());
  }
}

void unknown_part::write(byte_writer& out, object_id self) const {
  const std::span<const std::byte> bytes(bytes_);
  std::size_t written = 0;
  for (const reference& one : references_) {
    out.put_bytes(bytes.subspan(written, one.before - written));
    out.put_reference(one.word, one.kind, self);
    written = one.before;
  }
  out.put_bytes(bytes.subspan(written));
}

void unknown_part::visit(ref_visitor& visitor) {
  for (reference& one : references_) {
    visitor.visit(one.word, one.kind);
  }
}

std::size_t unknown_part::heap_bytes() const {
  return sizeof(*this) + bytes_.capacity() + references_.capacity() * sizeof(reference);
}

}  // namespace goods
