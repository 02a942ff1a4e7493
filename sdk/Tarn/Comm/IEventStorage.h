#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

namespace Keel::Collections {
class Buffer;
}
namespace Keel::OS {
class DateTime;
}
namespace Tarn::Events {
class GenericEventHolder;
}

namespace Tarn::Comm::Interface {

// A 64-bit event position: day in bits 0-15, block in bits 16-39, event in
// bits 40-63. All ones: no position.
using EventStorageIterator = uint64_t;
constexpr EventStorageIterator kInvalidIterVal = ~0ull;

// How a time that falls between stored events picks one.
enum SearchStrategy : uint32_t {
  Exact = 0,
  AtOrAfter = 1,
  AtOrBefore = 2,
};

// Read access to the event store for other modules. Callers go by slot, so
// the order of the virtual functions is the contract. The interface declares
// no virtual destructor: nobody deletes a store through it. Implementations
// are therefore final, or declare a virtual destructor of their own.
class IEventStorage {
 public:
  // Describes one encoded block handed to a ProcessBlocks callback: enough
  // to decode it without the store.
  struct DecodeToken {
    static constexpr uint32_t kMagic = 0x4B544344;  // "DCTK" in memory order
    static constexpr uint32_t kVersion = 1;

    uint32_t magic = kMagic;
    uint32_t version = kVersion;
    uint64_t block_key = 0;  // day and block of the block, event 0
    uint32_t event_table_offset = 0;
    uint32_t event_count = 0;
    uint32_t decoded_size = 0;
    uint32_t file_version = 0;
  };

  using BlockCallback =
      std::function<void(const DecodeToken& token, const Keel::Collections::Buffer& block)>;

  /* 0 */ virtual uint32_t GetSize() = 0;
  /* 1 */ virtual void Flush() = 0;
  /* 2 */ virtual bool __dump_proto_stats(const char* path) = 0;
  /* 3 */ virtual bool ProcessBlocks(EventStorageIterator from, EventStorageIterator to,
                                     BlockCallback callback) = 0;
  /* 4 */ virtual uint64_t GetIterVal(uint64_t value) = 0;
  /* 5 */ virtual uint64_t GetIterVal(const Keel::OS::DateTime& time, SearchStrategy strategy) = 0;
  /* 6 */ virtual uint64_t GetIterVal(const Keel::OS::DateTime& time) = 0;
  /* 7 */ virtual uint64_t GetFirstIterVal() = 0;
  /* 8 */ virtual uint64_t GetLastIterVal() = 0;
  /* 9 */ virtual bool Increment(uint64_t& position) = 0;
  /* 10 */ virtual bool Decrement(uint64_t& position) = 0;
  /* 11 */ virtual bool GetEvent(uint64_t position, Events::GenericEventHolder* holder) = 0;
  /* 12 */ virtual bool IsValid(uint64_t position) = 0;
  /* 13 */ virtual bool GetTime(uint64_t position, Keel::OS::DateTime& time) = 0;
  /* 14 */ virtual int Compare(uint64_t a, uint64_t b) = 0;

 protected:
  ~IEventStorage() = default;
};

static_assert(sizeof(IEventStorage::DecodeToken) == 32, "DecodeToken is 32 bytes");
static_assert(offsetof(IEventStorage::DecodeToken, block_key) == 8);
static_assert(offsetof(IEventStorage::DecodeToken, file_version) == 28);

}  // namespace Tarn::Comm::Interface
