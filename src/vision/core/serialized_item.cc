#include "vision/core/serialized_item.h"

#include <cstring>
#include <string>

namespace vision {

HTuple NewSerializedItem(std::vector<uint8_t> bytes) {
  auto item = std::make_shared<SerializedItemData>();
  item->bytes = std::move(bytes);
  return HTuple(HHandle(item));
}

HTuple NewSerializedItem(const void* data, size_t size) {
  const auto* p = static_cast<const uint8_t*>(data);
  return NewSerializedItem(std::vector<uint8_t>(p, p + size));
}

void create_serialized_item_ptr(const HTuple& pointer, const HTuple& size, const HTuple& copy,
                                HTuple* serialized_item_handle) {
  constexpr const char* op = "create_serialized_item_ptr";
  if (pointer.Length() != 1 || size.Length() != 1 || copy.Length() != 1)
    throw HException(op, "Wrong number of values of control parameter", kErrWrongParamCount);
  if (!pointer.IsInt(0) || !size.IsInt(0) || !copy.IsString(0))
    throw HException(op, "Wrong type of control parameter", kErrWrongParamType);
  if (copy.S(0) != "true" && copy.S(0) != "false")
    throw HException(op, "Wrong value of control parameter Copy", kErrWrongParamValue);
  const Hlong n = size.L(0);
  if (n < 0) throw HException(op, "Wrong value of control parameter Size", kErrWrongParamValue);
  if (n > 0 && pointer.L(0) == 0) throw HException(op, "Wrong value of control parameter Pointer", kErrWrongParamValue);
  const void* data = reinterpret_cast<const void*>(static_cast<uintptr_t>(pointer.L(0)));
  *serialized_item_handle = NewSerializedItem(data, size_t(n));
}

void get_serialized_item_ptr(const HTuple& serialized_item_handle, HTuple* pointer, HTuple* size) {
  SerializedItemData* item = SerializedItemCast(serialized_item_handle, "get_serialized_item_ptr");
  *pointer = HTuple(Hlong(reinterpret_cast<uintptr_t>(item->bytes.data())));
  *size = HTuple(Hlong(item->bytes.size()));
}

void clear_serialized_item(const HTuple& serialized_item_handle) {
  for (Hlong i = 0; i < serialized_item_handle.Length(); ++i)
    SerializedItemCast(serialized_item_handle, "clear_serialized_item", i)->Clear();
}

}  // namespace vision
