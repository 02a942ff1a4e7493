#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include <gtest/gtest.h>

#include "Tarn/Comm/IEventStorage.h"
#include "Tarn/Module/EntryPoints.h"
#include "Tarn/Module/Interface.h"
#include "Tarn/Storage/ITimeProvider.h"

namespace {

// The virtual-table slot a pointer to a virtual member names, read from the
// pointer's representation in the Itanium C++ ABI: x86 keeps 1 + the byte
// offset of the slot in the pointer word, ARM keeps the plain offset and
// marks virtual in the adjustment word. -1 when that cannot be read here.
template <typename Member>
int SlotOf(Member member) {
  static_assert(sizeof(Member) == 2 * sizeof(uintptr_t));
  uintptr_t words[2];
  std::memcpy(words, &member, sizeof words);
#if defined(__x86_64__) || defined(__i386__)
  if ((words[0] & 1) == 0) return -1;  // not virtual
  return static_cast<int>((words[0] - 1) / sizeof(void*));
#elif defined(__aarch64__) || defined(__arm__)
  if ((words[1] & 1) == 0) return -1;
  return static_cast<int>(words[0] / sizeof(void*));
#else
  return -2;
#endif
}

TEST(InterfaceSlots, ModuleOperationsSitInTheirSlots) {
  using Tarn::Module::Interface;
  if (SlotOf(&Interface::Start) == -2) GTEST_SKIP() << "unknown member pointer layout";
  EXPECT_EQ(SlotOf(&Interface::HandleEvent), 0);
  EXPECT_EQ(SlotOf(&Interface::Start), 1);
  EXPECT_EQ(SlotOf(&Interface::ReservedTrueA), 2);
  EXPECT_EQ(SlotOf(&Interface::ReservedTrueB), 3);
  EXPECT_EQ(SlotOf(&Interface::Stop), 4);
  EXPECT_EQ(SlotOf(&Interface::Reconfigure), 5);
  EXPECT_EQ(SlotOf(&Interface::ReservedFalse6), 6);
  EXPECT_EQ(SlotOf(&Interface::GetIdTable), 7);
  EXPECT_EQ(SlotOf(&Interface::QueryInterface), 8);
  EXPECT_EQ(SlotOf(&Interface::Initialize), 9);
  EXPECT_EQ(SlotOf(&Interface::OnNotification), 10);
  EXPECT_EQ(SlotOf(&Interface::ReservedFalse11), 11);
  EXPECT_EQ(SlotOf(&Interface::ReservedFalse12), 12);
  EXPECT_EQ(SlotOf(&Interface::ReservedNull13), 13);
  EXPECT_EQ(SlotOf(&Interface::ReservedFalse14), 14);
  // The destructor follows as the last slot; hosts delete modules through it.
  EXPECT_TRUE(std::has_virtual_destructor_v<Interface>);
  static_assert(
      std::is_same_v<Tarn::Module::InitFn, Interface* (*)(Tarn::Module::ModuleAllocator*)>);
}

TEST(InterfaceSlots, EventStorageOperationsSitInTheirSlots) {
  using Tarn::Comm::Interface::IEventStorage;
  using Tarn::Comm::Interface::SearchStrategy;
  using DateTime = Keel::OS::DateTime;
  if (SlotOf(&IEventStorage::Flush) == -2) GTEST_SKIP() << "unknown member pointer layout";
  EXPECT_EQ(SlotOf(&IEventStorage::GetSize), 0);
  EXPECT_EQ(SlotOf(&IEventStorage::Flush), 1);
  EXPECT_EQ(SlotOf(&IEventStorage::__dump_proto_stats), 2);
  EXPECT_EQ(SlotOf(&IEventStorage::ProcessBlocks), 3);
  EXPECT_EQ(SlotOf(static_cast<uint64_t (IEventStorage::*)(uint64_t)>(&IEventStorage::GetIterVal)),
            4);
  EXPECT_EQ(SlotOf(static_cast<uint64_t (IEventStorage::*)(const DateTime&, SearchStrategy)>(
                &IEventStorage::GetIterVal)),
            5);
  EXPECT_EQ(
      SlotOf(static_cast<uint64_t (IEventStorage::*)(const DateTime&)>(&IEventStorage::GetIterVal)),
      6);
  EXPECT_EQ(SlotOf(&IEventStorage::GetFirstIterVal), 7);
  EXPECT_EQ(SlotOf(&IEventStorage::GetLastIterVal), 8);
  EXPECT_EQ(SlotOf(&IEventStorage::Increment), 9);
  EXPECT_EQ(SlotOf(&IEventStorage::Decrement), 10);
  EXPECT_EQ(SlotOf(&IEventStorage::GetEvent), 11);
  EXPECT_EQ(SlotOf(&IEventStorage::IsValid), 12);
  EXPECT_EQ(SlotOf(&IEventStorage::GetTime), 13);
  EXPECT_EQ(SlotOf(&IEventStorage::Compare), 14);
  // No destructor slot after Compare.
  EXPECT_FALSE(std::has_virtual_destructor_v<IEventStorage>);
}

TEST(InterfaceSlots, TimeProviderAndDecodeTokenLayout) {
  using Tarn::Storage::ITimeProvider;
  if (SlotOf(&ITimeProvider::GetEpochTime) >= 0) {
    EXPECT_EQ(SlotOf(&ITimeProvider::GetEpochTime), 0);
    EXPECT_EQ(SlotOf(&ITimeProvider::GetSystemTime), 1);
  }
  EXPECT_TRUE(std::has_virtual_destructor_v<ITimeProvider>);

  using Token = Tarn::Comm::Interface::IEventStorage::DecodeToken;
  Token token;
  uint8_t bytes[sizeof(Token)];
  std::memcpy(bytes, &token, sizeof bytes);
  EXPECT_EQ(std::memcmp(bytes, "DCTK", 4), 0);  // the magic reads "DCTK" in memory
  EXPECT_EQ(token.version, 1u);
  EXPECT_EQ(offsetof(Token, event_table_offset), 16u);
  EXPECT_EQ(offsetof(Token, event_count), 20u);
  EXPECT_EQ(offsetof(Token, decoded_size), 24u);
}

}  // namespace
