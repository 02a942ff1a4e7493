#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <vector>

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

// Hosts built elsewhere call through these tables by position, so the
// functions must sit in slots 0, 1, 2, ... in the order listed.
void ExpectSlotsInOrder(const std::vector<int>& slots) {
  if (slots[0] == -2) GTEST_SKIP() << "unknown member pointer layout";
  for (size_t i = 0; i < slots.size(); ++i) EXPECT_EQ(slots[i], static_cast<int>(i)) << i;
}

TEST(InterfaceSlots, ModuleOperationsSitInTheirSlots) {
  using I = Tarn::Module::Interface;
  ExpectSlotsInOrder(
      {SlotOf(&I::HandleEvent), SlotOf(&I::Start), SlotOf(&I::ReservedTrueA),
       SlotOf(&I::ReservedTrueB), SlotOf(&I::Stop), SlotOf(&I::Reconfigure),
       SlotOf(&I::ReservedFalse6), SlotOf(&I::GetIdTable), SlotOf(&I::QueryInterface),
       SlotOf(&I::Initialize), SlotOf(&I::OnNotification), SlotOf(&I::ReservedFalse11),
       SlotOf(&I::ReservedFalse12), SlotOf(&I::ReservedNull13), SlotOf(&I::ReservedFalse14)});
  // The destructor follows as the last slot; hosts delete modules through it.
  EXPECT_TRUE(std::has_virtual_destructor_v<I>);
  static_assert(std::is_same_v<Tarn::Module::InitFn, I* (*)(Tarn::Module::ModuleAllocator*)>);
}

TEST(InterfaceSlots, EventStorageOperationsSitInTheirSlots) {
  using S = Tarn::Comm::Interface::IEventStorage;
  using Tarn::Comm::Interface::SearchStrategy;
  using DateTime = Keel::OS::DateTime;
  ExpectSlotsInOrder(
      {SlotOf(&S::GetSize), SlotOf(&S::Flush), SlotOf(&S::__dump_proto_stats),
       SlotOf(&S::ProcessBlocks), SlotOf(static_cast<uint64_t (S::*)(uint64_t)>(&S::GetIterVal)),
       SlotOf(static_cast<uint64_t (S::*)(const DateTime&, SearchStrategy)>(&S::GetIterVal)),
       SlotOf(static_cast<uint64_t (S::*)(const DateTime&)>(&S::GetIterVal)),
       SlotOf(&S::GetFirstIterVal), SlotOf(&S::GetLastIterVal), SlotOf(&S::Increment),
       SlotOf(&S::Decrement), SlotOf(&S::GetEvent), SlotOf(&S::IsValid), SlotOf(&S::GetTime),
       SlotOf(&S::Compare)});
  // No destructor slot after Compare.
  EXPECT_FALSE(std::has_virtual_destructor_v<S>);
}

TEST(InterfaceSlots, TimeProviderAndDecodeTokenLayout) {
  using Tarn::Storage::ITimeProvider;
  ExpectSlotsInOrder({SlotOf(&ITimeProvider::GetEpochTime), SlotOf(&ITimeProvider::GetSystemTime)});
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
