// A host that loads the storage module the way the agent does: dlopen, Init,
// the operation table, destruction through the virtual destructor, Uninit.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <vector>

#include "Keel/OS/FileSystem.h"
#include "Keel/OS/Time.h"
#include "Tarn/Comm/IReport.h"
#include "Tarn/Comm/IStorageSender.h"
#include "Tarn/Events/Base.h"
#include "Tarn/Module/EntryPoints.h"
#include "Tarn/Module/HostServices.h"
#include "Tarn/Module/MapConfigReader.h"
#include "manager/writer/StorageManager.h"
#include "module/ConfigKeys.h"
#include "support/store_fixture.h"
#include "support/temp_dir.h"

namespace {

using namespace Tarn::Module;
namespace Keys = ConfigKeys;
using Tarn::Storage::Settings;

std::atomic<uint64_t> g_now_ms{tarn::test::EpochOf(9100, 3600) * 1000};
uint64_t TestClock() { return g_now_ms.load(); }

class CountingAllocator final : public ModuleAllocator {
 public:
  void* Allocate(size_t size) override {
    ++allocations;
    return ::operator new(size);
  }
  void Release(void* memory, uint32_t* size) override {
    ++releases;
    last_size = size ? *size : 99;
    ::operator delete(memory);
  }
  int allocations = 0;
  int releases = 0;
  uint32_t last_size = 99;
};

class RecordingReport final : public Tarn::Comm::Interfaces::IReport {
 public:
  bool Send(const char*, const char*) override {
    ++sends;
    return true;
  }
  int sends = 0;
};

class FakeHost final : public HostServices {
 public:
  uint32_t GetHostValue() override { return 1234; }
  void* QueryInterface(uint32_t id) override {
    asked.push_back(id);
    return id == kReportId ? &report : nullptr;
  }
  bool Register(Interface* module, uint32_t flags, uint32_t selector) override {
    registered = module;
    register_flags = flags;
    register_selector = selector;
    return true;
  }
  RecordingReport report;
  std::vector<uint32_t> asked;
  Interface* registered = nullptr;
  uint32_t register_flags = 99;
  uint32_t register_selector = 0;
};

class ModuleHostTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Keel::OS::Time::SetClockSource(&TestClock);
    library_ = dlopen(TARN_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library_, nullptr) << dlerror();
    init_ = reinterpret_cast<InitFn>(dlsym(library_, kInitSymbol));
    uninit_ = reinterpret_cast<UninitFn>(dlsym(library_, kUninitSymbol));
    ASSERT_NE(init_, nullptr);
    ASSERT_NE(uninit_, nullptr);
    config_.SetString(Keys::kStorageDirectory, dir_.path());
  }
  void TearDown() override {
    if (library_) dlclose(library_);
    Keel::OS::Time::SetClockSource(nullptr);
  }

  bool Feed(Interface* module, uint32_t tag, uint32_t type = 5, bool do_not_store = false) {
    std::vector<uint8_t> record = tarn::test::MakeEvent(tag, 120, type, do_not_store);
    Tarn::Events::Objects::Base event(record.data(), record.size());
    return module->HandleEvent(&event, nullptr);
  }
  Settings SettingsOf(Interface* module) {
    auto* manager =
        static_cast<Tarn::Storage::StorageManager*>(module->QueryInterface(Interface::kStorageManagerId));
    return manager->GetSettings();
  }
  std::vector<tarn::test::StoredEvent> OnDisk() {
    std::vector<tarn::test::StoredEvent> events;
    EXPECT_TRUE(tarn::test::ReadIndexedEvents(dir_.path(), events));
    EXPECT_TRUE(tarn::test::ReadFinalEvents(dir_.path(), events));
    return events;
  }

  void* library_ = nullptr;
  InitFn init_ = nullptr;
  UninitFn uninit_ = nullptr;
  tarn::test::TempDir dir_;
  MapConfigReader config_;
  FakeHost host_;
};

TEST_F(ModuleHostTest, FullLifecycleThroughTheHostAllocator) {
  CountingAllocator allocator;
  Interface* module = init_(&allocator);
  ASSERT_NE(module, nullptr);
  EXPECT_EQ(allocator.allocations, 1);
  EXPECT_EQ(module->QueryInterface(Interface::kEventStorageId), nullptr);  // not before Initialize
  ASSERT_TRUE(module->Initialize(&host_, &config_));
  EXPECT_NE(module->QueryInterface(Interface::kEventStorageId), nullptr);
  ASSERT_TRUE(module->Start());
  EXPECT_EQ(host_.registered, module);
  EXPECT_EQ(host_.register_flags, 0u);
  EXPECT_EQ(host_.register_selector, 360u);
  EXPECT_EQ(host_.asked, (std::vector<uint32_t>{HostServices::kReportId}));

  for (uint32_t tag = 0; tag < 5; ++tag) EXPECT_TRUE(Feed(module, tag));
  auto* sender = static_cast<Tarn::Comm::Interface::IStorageSender*>(
      module->QueryInterface(Interface::kStorageSenderId));
  ASSERT_NE(sender, nullptr);
  std::vector<uint8_t> record = tarn::test::MakeEvent(5, 120);
  Tarn::Events::Objects::Base event(record.data(), record.size());
  EXPECT_TRUE(sender->Send(&event));

  EXPECT_NE(module->QueryInterface(Interface::kStorageManagerId), nullptr);
  EXPECT_EQ(module->QueryInterface(17), nullptr);
  EXPECT_TRUE(module->OnNotification(2));
  EXPECT_EQ(host_.report.sends, 0);
  EXPECT_TRUE(module->ReservedTrueA());
  EXPECT_FALSE(module->ReservedFalse14(1));
  EXPECT_EQ(module->ReservedNull13(), nullptr);
  uint32_t* table = module->GetIdTable();
  EXPECT_EQ(table[0], 0u);
  EXPECT_EQ(table[511], 511u);
  EXPECT_EQ(module->GetIdTable(), table);

  ASSERT_TRUE(module->Stop());
  delete module;
  EXPECT_EQ(allocator.releases, 1);
  EXPECT_EQ(allocator.last_size, 0u);
  uninit_();
  // All six, the sender's too. Their times, and the take-back of the stop's
  // block by the next start, are checked by the kill loop.
  EXPECT_EQ(OnDisk().size(), 6u);
}

TEST_F(ModuleHostTest, ConfigurationKeysAndTheirDefaults) {
  Interface* module = init_(nullptr);
  ASSERT_NE(module, nullptr);
  ASSERT_TRUE(module->Initialize(&host_, &config_));
  EXPECT_EQ(SettingsOf(module), Settings::default_());
  EXPECT_TRUE(Feed(module, 1));
  delete module;

  config_.SetUInt64(Keys::kMaxStorageSize, 80'000'000);
  config_.SetUInt32(Keys::kMaxDays, 7);
  config_.SetUInt32(Keys::kBlockBufferSize, 200'000);
  config_.SetUInt32(Keys::kResetMode, 1);
  config_.SetUInt32(Keys::kQuerySizeLimit, 20'000'000);
  config_.SetUInt32(Keys::kQueryRowLimit, 1'000);
  config_.SetUInt32(Keys::kQueryAuxLimit, 9);
  config_.SetBool(Keys::kQueryAuxFlag, true);
  config_.SetBool(Keys::kTelemetryToDisk, true);
  config_.SetUInt32(Keys::kIntakeDisabled, 1);
  module = init_(nullptr);
  ASSERT_TRUE(module->Initialize(&host_, &config_));
  Settings expected = Settings::default_();
  expected.max_storage_size = 80'000'000;
  expected.max_days = 7;
  expected.block_buffer_size = 200'000;
  expected.reset_mode = 1;
  expected.telemetry_to_disk = true;
  expected.osquery = {20'000'000, 1'000, 9, true};
  EXPECT_EQ(SettingsOf(module), expected);
  EXPECT_FALSE(Feed(module, 2));  // intake disabled
  ASSERT_TRUE(module->Stop());
  delete module;
  // reset_mode 1 wiped what the first run left, and the telemetry went to disk.
  EXPECT_TRUE(OnDisk().empty());
  std::vector<std::string> names;
  ASSERT_TRUE(Keel::OS::FileSystem::ListDirectory(dir_.path(), names));
  bool telemetry_written = false;
  for (const auto& name : names) telemetry_written |= name.rfind("telemetry.", 0) == 0;
  EXPECT_TRUE(telemetry_written);

  config_.SetUInt32(Keys::kMaxDays, 1);  // invalid: initialisation fails
  module = init_(nullptr);
  EXPECT_FALSE(module->Initialize(&host_, &config_));
  EXPECT_FALSE(Feed(module, 3));
  delete module;
  uninit_();
}

TEST_F(ModuleHostTest, EventsMarkedNotToStoreAndQueriesAreNeverStored) {
  Interface* module = init_(nullptr);
  ASSERT_TRUE(module->Initialize(&host_, &config_));
  EXPECT_FALSE(Feed(module, 1, 5, /*do_not_store=*/true));
  EXPECT_FALSE(Feed(module, 2, 186));
  EXPECT_FALSE(Feed(module, 3, 221));
  EXPECT_TRUE(Feed(module, 4));
  EXPECT_FALSE(module->HandleEvent(nullptr, nullptr));
  ASSERT_TRUE(module->Stop());
  delete module;
  uninit_();
  std::vector<tarn::test::StoredEvent> events = OnDisk();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(tarn::test::TagOf(events[0].record), 4u);
}

TEST_F(ModuleHostTest, ReconfigureAppliesValidQueryLimitsOnly) {
  Interface* module = init_(nullptr);
  ASSERT_TRUE(module->Initialize(&host_, &config_));
  MapConfigReader update;
  update.SetUInt32(Keys::kQueryRowLimit, 50'000'000);  // out of range
  update.SetUInt32(Keys::kQueryAuxLimit, 8);
  EXPECT_FALSE(module->Reconfigure(&update));
  EXPECT_EQ(SettingsOf(module), Settings::default_());

  update.SetUInt32(Keys::kQueryRowLimit, 5'000);
  update.SetUInt32(Keys::kMaxDays, 3);  // not a query key: ignored
  EXPECT_TRUE(module->Reconfigure(&update));
  Settings expected = Settings::default_();
  expected.osquery.row_limit = 5'000;
  expected.osquery.aux_limit = 8;
  EXPECT_EQ(SettingsOf(module), expected);
  delete module;
  uninit_();
}

}  // namespace
