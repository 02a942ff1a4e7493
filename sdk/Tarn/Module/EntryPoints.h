#pragma once

#include "Tarn/Module/Interface.h"
#include "Tarn/Module/ModuleAllocator.h"

namespace Tarn::Module {

// The two plain functions a module library exports, by these names. Init
// creates the module (null on failure); Uninit comes after the module was
// destroyed through its destructor slot.
using InitFn = Interface* (*)(ModuleAllocator* allocator);
using UninitFn = void (*)();

constexpr const char kInitSymbol[] = "Init";
constexpr const char kUninitSymbol[] = "Uninit";

}  // namespace Tarn::Module
