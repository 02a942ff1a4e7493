// The reader as another module reaches it: QueryInterface(15) through the
// loaded library, then walks, searches and reads by interface slot.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>

#include "Keel/OS/Time.h"
#include "Tarn/Comm/IEventStorage.h"
#include "Tarn/Events/Base.h"
#include "Tarn/Events/GenericEventHolder.h"
#include "Tarn/Module/EntryPoints.h"
#include "Tarn/Module/MapConfigReader.h"
#include "module/ConfigKeys.h"
#include "support/store_fixture.h"
#include "support/temp_dir.h"

namespace {

using namespace Tarn::Module;
using Tarn::Comm::Interface::IEventStorage;

std::atomic<uint64_t> g_reader_now_ms{tarn::test::EpochOf(9200, 100) * 1000};
uint64_t ReaderClock() { return g_reader_now_ms.load(); }

TEST(ModuleReaderTest, QueryInterfaceHandsOutTheReaderOnceInitialized) {
  Keel::OS::Time::SetClockSource(&ReaderClock);
  void* library = dlopen(TARN_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << dlerror();
  auto init = reinterpret_cast<InitFn>(dlsym(library, kInitSymbol));
  auto uninit = reinterpret_cast<UninitFn>(dlsym(library, kUninitSymbol));
  ASSERT_NE(init, nullptr);
  tarn::test::TempDir dir;
  MapConfigReader config;
  config.SetString(ConfigKeys::kStorageDirectory, dir.path());

  Interface* module = init(nullptr);
  ASSERT_NE(module, nullptr);
  EXPECT_EQ(module->QueryInterface(Interface::kEventStorageId), nullptr);
  ASSERT_TRUE(module->Initialize(nullptr, &config));
  auto* storage = static_cast<IEventStorage*>(module->QueryInterface(Interface::kEventStorageId));
  ASSERT_NE(storage, nullptr);

  for (uint32_t tag = 0; tag < 5; ++tag) {
    g_reader_now_ms += 1000;
    std::vector<uint8_t> record = tarn::test::MakeEvent(tag, 100);
    Tarn::Events::Objects::Base event(record.data(), record.size());
    ASSERT_TRUE(module->HandleEvent(&event, nullptr));
  }
  storage->Flush();  // every accepted event is readable afterwards
  EXPECT_EQ(storage->GetSize(), 5u);

  Tarn::Events::GenericEventHolder holder;
  uint32_t tag = 0;
  for (uint64_t p = storage->GetFirstIterVal(); storage->IsValid(p); storage->Increment(p)) {
    ASSERT_TRUE(storage->GetEvent(p, &holder));
    EXPECT_EQ(tarn::test::TagOf(std::vector<uint8_t>(holder.Data(), holder.Data() + holder.Size())),
              tag++);
  }
  EXPECT_EQ(tag, 5u);
  Keel::OS::DateTime third(static_cast<int64_t>(tarn::test::EpochOf(9200, 103)));
  uint64_t p = storage->GetIterVal(third, Tarn::Comm::Interface::AtOrBefore);
  ASSERT_TRUE(storage->GetEvent(p, &holder));
  EXPECT_EQ(tarn::test::TagOf(std::vector<uint8_t>(holder.Data(), holder.Data() + holder.Size())),
            2u);

  ASSERT_TRUE(module->Stop());
  delete module;
  uninit();
  dlclose(library);
  Keel::OS::Time::SetClockSource(nullptr);
}

}  // namespace
