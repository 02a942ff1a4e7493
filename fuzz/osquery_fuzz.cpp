// Arbitrary bytes as a constraints text, a column list and a stored record
// (of a chosen table, or of whatever type its bytes say): parsing, matching,
// row building and reading the record as a query request must neither crash
// nor read outside the record. What they produce is checked too: a parsed
// list holds only valid operators and values, every row built parses back
// as its table's message (proto3 rejects texts that are not UTF-8) and
// carries only the selected columns.
//
// Input: table pick, flags, u16 constraints length, constraints, u8 columns
// length, columns, then the record.

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <vector>

#include "FuzzSupport.h"
#include "Tarn/Events/QueryRecord.h"
#include "Tarn/Events/Record.h"
#include "generated/RowPrototype.h"
#include "osquery/AddRow.h"
#include "osquery/ConstraintsList.h"
#include "osquery/Matcher.h"
#include "osquery/NameHash.h"
#include "osquery/Tables.h"

using namespace Tarn::Storage::OSQuery;  // NOLINT: a fuzzer's one function
namespace Record = Tarn::Events::Record;
using tarn::fuzz::ByteReader;

namespace {

enum Flags : uint8_t {
  kOwnTypeId = 0x40,  // keep the record's own type word
  kAuxFlag = 0x80,    // rows are also rendered as JSON
};

void CheckParsed(const ConstraintsList& constraints, bool parsed) {
  size_t count = 0;
  for (const Constraint& c : constraints) {
    TARN_FUZZ_CHECK(IsOperatorCode(c.op));
    TARN_FUZZ_CHECK(c.column_hash == NameHash(c.column_name));
    Constraint again = c;
    TARN_FUZZ_CHECK(again.ParseValue());
    ++count;
  }
  // A failed parse keeps nothing: a filter is never half applied.
  if (!parsed) TARN_FUZZ_CHECK(count == 0);
}

bool Selected(const ColumnSelection& columns, std::string_view name) {
  for (uint32_t i = 0; i < columns.count && columns.hashes[i] != 0; ++i) {
    if (columns.hashes[i] == NameHash(name)) return true;
  }
  return false;
}

void CheckRow(const TableInfo& table, const ResponseBuilder& response,
              const ColumnSelection& columns) {
  TARN_FUZZ_CHECK(response.rows == 1 && response.buffer.Size() >= 4);
  uint32_t length = Record::LoadUInt32(response.buffer.Data());
  TARN_FUZZ_CHECK(response.buffer.Size() == 4 + uint64_t{length});
  const google::protobuf::Message* prototype = RowPrototype(table.type_id);
  std::unique_ptr<google::protobuf::Message> row(prototype->New());
  TARN_FUZZ_CHECK(row->ParseFromArray(response.buffer.Data() + 4, static_cast<int>(length)));
  if (columns.hashes[0] == NameHash("*")) return;
  std::vector<const google::protobuf::FieldDescriptor*> fields;
  row->GetReflection()->ListFields(*row, &fields);
  for (const auto* field : fields) TARN_FUZZ_CHECK(Selected(columns, field->name()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ByteReader in(data, size);
  std::span<const TableInfo> tables = AllTables();
  const TableInfo& table = tables[in.Take(1) % tables.size()];
  const uint8_t flags = static_cast<uint8_t>(in.Take(1));
  const std::string_view text = in.Bytes(in.Take(2));
  const std::string_view column_text = in.Bytes(in.Take(1));
  // An exact-size copy, so that any read past the record is caught.
  const std::string_view rest = in.Bytes(in.Left());
  std::vector<uint8_t> record(rest.begin(), rest.end());
  if (record.size() >= 4 && (flags & kOwnTypeId) == 0) {
    Record::StoreUInt32(record.data(), table.type_id);
  }
  Tarn::Events::Objects::Base event(record.data(), record.size());
  const TableInfo* own = FindTable(event.TypeId());

  ConstraintsList constraints;
  CheckParsed(constraints, constraints.Parse(text));
  const bool matched = MatchEvent(event, constraints);
  if (own == nullptr) TARN_FUZZ_CHECK(!matched);
  // Nothing to test: an event of a table always matches.
  if (own != nullptr) TARN_FUZZ_CHECK(MatchEvent(event, ConstraintsList()));
  IsSupportedVersion(event.TypeId(), event.Header().Version());

  // The same bytes read as a query request.
  Tarn::Events::QueryRecord query;
  if (query.Read(record.data(), record.size())) {
    const auto* begin = reinterpret_cast<const char*>(record.data());
    for (std::string_view part : {query.table, query.columns, query.constraints}) {
      TARN_FUZZ_CHECK(part.empty() ||
                      (part.data() >= begin && part.data() + part.size() < begin + record.size()));
    }
  }

  hx::MessageBus::Msg msg;
  ResponseBuilder response(msg);
  Keel::Collections::Buffer scratch;
  TARN_FUZZ_CHECK(response.buffer.Create(1 << 17, 1 << 17) && scratch.Create(0));
  Tarn::Storage::OSQuerySettings settings;
  settings.aux_flag = (flags & kAuxFlag) != 0;
  const ColumnSelection columns = SplitColumns(column_text);
  const RowResult result = AddRow(event, response, columns, settings, scratch);
  if (own == nullptr) {
    TARN_FUZZ_CHECK(result == kRowFailed && response.rows == 0);
    return 0;
  }
  TARN_FUZZ_CHECK(result == kRowAdded);
  CheckRow(*own, response, columns);
  return 0;
}
