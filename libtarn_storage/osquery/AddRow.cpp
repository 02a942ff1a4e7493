#include "osquery/AddRow.h"

#include <climits>
#include <string>

#include <google/protobuf/arena.h>
#include <google/protobuf/message.h>
#include <google/protobuf/util/json_util.h>

#include "Keel/Log.h"
#include "osquery/Converter.h"

namespace Tarn::Storage::OSQuery {

namespace {

enum Message : uint32_t {
  kNotConverted = 50,     // a = type id
  kRowJson = 51,          // a = type id, b = JSON length, c = row number
  kJsonFailed = 52,       // a = type id
  kBufferFull = 53,       // a = row size, b = buffer size, c = buffer maximum
  kSerializeFailed = 54,  // a = type id, b = row size
};

constexpr size_t kArenaFirstBlock = 256;
constexpr size_t kArenaLargestBlock = 8192;
constexpr uint64_t kScratchCapacity = 8192;
constexpr uint64_t kLengthBytes = 4;

// The log takes numbers only, so the rendering shows in the debug log as
// its length; rendering still proves that the row prints.
void LogRowJson(const google::protobuf::Message& row, uint32_t type_id, uint32_t row_number) {
  google::protobuf::util::JsonPrintOptions options;
  options.add_whitespace = true;
  options.preserve_proto_field_names = true;
  std::string json;
  if (!google::protobuf::util::MessageToJsonString(row, &json, options).ok()) {
    KEEL_LOG(Keel::Log::Debug, Keel::Log::StorageQuery, kJsonFailed, type_id, 0, 0);
    return;
  }
  KEEL_LOG(Keel::Log::Debug, Keel::Log::StorageQuery, kRowJson, type_id, json.size(), row_number);
}

}  // namespace

RowResult AddRow(const Events::Objects::Base& event, ResponseBuilder& response,
                 const ColumnSelection& columns, const OSQuerySettings& settings,
                 Keel::Collections::Buffer& scratch) {
  // A scratch buffer that cannot grow only costs the arena its first block.
  if (scratch.IsCreated() && scratch.Capacity() < kScratchCapacity) {
    scratch.Reserve(kScratchCapacity);
  }
  google::protobuf::ArenaOptions options;
  options.start_block_size = kArenaFirstBlock;
  options.max_block_size = kArenaLargestBlock;
  if (scratch.Capacity() > 0) {
    options.initial_block = reinterpret_cast<char*>(scratch.Data());
    options.initial_block_size = scratch.Capacity();
  }
  google::protobuf::Arena arena(options);

  uint32_t type_id = event.TypeId();
  google::protobuf::Message* row = ConvertEvent(&arena, event, columns);
  if (row == nullptr) {
    KEEL_LOG(Keel::Log::Warning, Keel::Log::StorageQuery, kNotConverted, type_id, 0, 0);
    return kRowFailed;
  }
  if (settings.aux_flag) LogRowJson(*row, type_id, response.rows);

  size_t size = row->ByteSizeLong();
  if (size > INT_MAX) {
    KEEL_LOG(Keel::Log::Error, Keel::Log::StorageQuery, kSerializeFailed, type_id, size, 0);
    return kRowFailed;
  }
  Keel::Collections::Buffer& buffer = response.buffer;
  uint64_t start = buffer.Size();
  if (!buffer.Reserve(start + kLengthBytes + size)) {
    KEEL_LOG(Keel::Log::Debug, Keel::Log::StorageQuery, kBufferFull, size, start,
             buffer.Maximum());
    return kRowBufferFull;
  }
  ++response.rows;
  response.last_row = static_cast<uint32_t>(start);
  // Neither can fail: the capacity is reserved.
  buffer.PushUInt32(static_cast<uint32_t>(size));
  buffer.Resize(start + kLengthBytes + size);
  if (!row->SerializeToArray(buffer.Data() + start + kLengthBytes, static_cast<int>(size))) {
    KEEL_LOG(Keel::Log::Error, Keel::Log::StorageQuery, kSerializeFailed, type_id, size, 0);
    return kRowFailed;
  }
  return kRowAdded;
}

}  // namespace Tarn::Storage::OSQuery
