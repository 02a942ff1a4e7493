// Arbitrary bytes as a constraints text and a stored record of any table:
// parsing, matching and row building must neither crash nor read outside
// the record, and every row built must parse back.

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <vector>

#include <google/protobuf/message.h>

#include "Tarn/Events/Record.h"
#include "osquery/AddRow.h"
#include "osquery/ConstraintsList.h"
#include "osquery/Matcher.h"
#include "osquery/Tables.h"
#include "tarn_osquery_schema.pb.h"

using namespace Tarn::Storage::OSQuery;  // NOLINT: a fuzzer's one function
namespace Record = Tarn::Events::Record;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Byte 0 picks the table; bytes 1-2 the length of the constraints text.
  if (size < 3) return 0;
  std::span<const TableInfo> tables = AllTables();
  const TableInfo& table = tables[data[0] % tables.size()];
  size_t text_length = Record::LoadUInt16(data + 1);
  if (text_length > size - 3) text_length = size - 3;
  std::string_view text(reinterpret_cast<const char*>(data + 3), text_length);
  // An exact-size copy, so that any read past the record is caught.
  std::vector<uint8_t> record(data + 3 + text_length, data + size);
  if (record.size() >= 4) Record::StoreUInt32(record.data(), table.type_id);
  Tarn::Events::Objects::Base event(record.data(), record.size());

  ConstraintsList constraints;
  constraints.Parse(text);
  MatchEvent(event, constraints);

  hx::MessageBus::Msg msg;
  ResponseBuilder response(msg);
  Keel::Collections::Buffer scratch;
  if (!response.buffer.Create(1 << 17, 1 << 17) || !scratch.Create(0)) return 0;
  Tarn::Storage::OSQuerySettings settings;
  settings.aux_flag = (data[0] & 0x80) != 0;
  if (record.size() < 4) return 0;
  if (AddRow(event, response, SplitColumns(""), settings, scratch) != kRowAdded) std::abort();

  // The row must be a valid message of the table.
  uint32_t length = Record::LoadUInt32(response.buffer.Data());
  const auto* prototype = google::protobuf::MessageFactory::generated_factory()->GetPrototype(
      google::protobuf::DescriptorPool::generated_pool()->FindMessageTypeByName(table.name));
  std::unique_ptr<google::protobuf::Message> row(prototype->New());
  if (!row->ParseFromArray(response.buffer.Data() + 4, static_cast<int>(length))) std::abort();
  return 0;
}
