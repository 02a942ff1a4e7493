// The two symbols the host looks up. Everything else stays hidden.

#include <new>

#include "module/StorageModule.h"

extern "C" {

__attribute__((visibility("default"))) Tarn::Module::Interface* Init(
    Tarn::Module::ModuleAllocator* allocator) {
  Tarn::Module::Storage::allocator = allocator;
  void* memory = Tarn::Module::Storage::Allocate(sizeof(Tarn::Module::Storage));
  if (memory == nullptr) return nullptr;
  try {
    return new (memory) Tarn::Module::Storage();
  } catch (...) {
    Tarn::Module::Storage::operator delete(memory);
    return nullptr;
  }
}

__attribute__((visibility("default"))) void Uninit() {
  Tarn::Module::Storage::allocator = nullptr;
}

}  // extern "C"
