// A page of a large index.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#include <goods/class_descriptor.h>
#include <goods/index_page.h>
#include <goods/object.h>
#include <goods/ref.h>

namespace goods {

// A page below the root of a B_tree; only B_tree makes and changes them.
class GOODS_API B_page : public object {
 public:
  static class_descriptor self_class;

  // A new transient page. Give it to a ref at once.
  static B_page* create_body(index_page page) { return new B_page(std::move(page)); }
  B_page(object_handle* handle, class_descriptor& cls) : object(handle, cls) {}
  ~B_page() override;

  const index_page& page() const { return page_; }
  index_page& page() { return page_; }

  field_descriptor* describe_components() override;
  void pack_varying(byte_writer& out, object_id self) const override;
  void unpack_varying(byte_reader& in, object_id self) override;
  void copy_varying(const object& from) override;
  void visit_varying(ref_visitor& visitor) override;
  std::size_t varying_bytes() const override { return page_.heap_bytes(); }

 private:
  explicit B_page(index_page page);

  index_page page_;
};

}  // namespace goods
