#pragma once

#include <cstddef>
#include <cstdint>

namespace Tarn::Module {

// The host's allocator for module objects, handed to Init. Two operations in
// this order; the host owns the object, so modules never delete it.
class ModuleAllocator {
 public:
  virtual void* Allocate(size_t size) = 0;
  // `size` points at a size word; modules pass one holding 0.
  virtual void Release(void* memory, uint32_t* size) = 0;

 protected:
  ~ModuleAllocator() = default;
};

}  // namespace Tarn::Module
