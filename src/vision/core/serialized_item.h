#pragma once
// Serialized items: a handle holding a block of bytes, the form in which
// models (camera setup models, ...) are stored in files and property lists.
#include <cstdint>
#include <memory>
#include <vector>

#include "vision/core/tuple.h"

namespace vision {

class SerializedItemData : public HandleBase {
 public:
  const char* TypeName() const override { return "serialized_item"; }
  void Clear() override {
    HandleBase::Clear();
    bytes.clear();
    bytes.shrink_to_fit();
  }
  std::vector<uint8_t> bytes;
};

// A new item holding a copy of `size` bytes at `data`, and its handle tuple.
HTuple NewSerializedItem(const void* data, size_t size);
HTuple NewSerializedItem(std::vector<uint8_t> bytes);

// The item behind element i of a handle tuple; raises HException(op, ...) for
// anything else or a cleared handle.
inline SerializedItemData* SerializedItemCast(const HTuple& t, const char* op, Hlong i = 0) {
  return HandleCast<SerializedItemData>(t, op, i);
}

// An item from `size` bytes at address `pointer` (an integer). The library
// always keeps its own copy, whatever `copy` ("true" or "false") says, so the
// caller may free its buffer at once.
void create_serialized_item_ptr(const HTuple& pointer, const HTuple& size, const HTuple& copy,
                                HTuple* serialized_item_handle);
// Address (an integer) and size of the item's bytes; valid until the item is
// cleared.
void get_serialized_item_ptr(const HTuple& serialized_item_handle, HTuple* pointer, HTuple* size);
// Releases the bytes; accepts a tuple of handles.
void clear_serialized_item(const HTuple& serialized_item_handle);

}  // namespace vision
