#include "tarn/host/RecordFit.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "Tarn/Events/Record.h"
#include "osquery/RecordBuilder.h"
#include "tarn/import/RowJson.h"

namespace Tarn::Tool {
namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;

// Bytes the texts take when none is longer than `cap`: each non-empty one
// its bytes and a NUL.
uint64_t TextBytes(const std::vector<size_t>& lengths, size_t cap) {
  uint64_t total = 0;
  for (size_t length : lengths) {
    const size_t kept = std::min(length, cap);
    total += kept == 0 ? 0 : kept + 1;
  }
  return total;
}

// The longest length all texts may keep and still take at most `budget`.
size_t CapFor(const std::vector<size_t>& lengths, uint64_t budget) {
  size_t low = 0;
  size_t high = *std::max_element(lengths.begin(), lengths.end());
  while (low < high) {
    const size_t middle = low + (high - low + 1) / 2;
    if (TextBytes(lengths, middle) <= budget) {
      low = middle;
    } else {
      high = middle - 1;
    }
  }
  return low;
}

// `text` cut to at most `cap` bytes, never inside a UTF-8 character.
void CutText(std::string& text, size_t cap) {
  if (text.size() <= cap) return;
  while (cap > 0 && (static_cast<unsigned char>(text[cap]) & 0xC0) == 0x80) --cap;
  text.resize(cap);
}

}  // namespace

bool BuildCutToFit(const Message& row, Events::DynamicEventBuilder& out) {
  const Storage::OSQuery::TableInfo* table = RowJson::TableOf(row);
  if (table == nullptr) return false;
  std::unique_ptr<Message> copy(row.New());
  copy->CopyFrom(row);
  const auto* descriptor = row.GetDescriptor();
  const auto* reflection = row.GetReflection();
  std::vector<const FieldDescriptor*> texts;
  std::vector<std::string> values;
  for (const auto& column : table->Columns()) {
    if (column.kind != Storage::OSQuery::ColumnKind::kText) continue;
    texts.push_back(descriptor->FindFieldByNumber(column.field));
    values.push_back(reflection->GetString(row, texts.back()));
    reflection->SetString(copy.get(), texts.back(), "");
  }
  // The record without its texts says what room they have.
  if (texts.empty() || !Storage::OSQuery::BuildRecord(*copy, out)) return false;
  std::vector<size_t> lengths;
  for (const std::string& value : values) lengths.push_back(value.size());
  const size_t cap = CapFor(lengths, Events::Record::kMaxRecordSize - out.Size());
  for (size_t i = 0; i < texts.size(); ++i) {
    CutText(values[i], cap);
    reflection->SetString(copy.get(), texts[i], std::move(values[i]));
  }
  return Storage::OSQuery::BuildRecord(*copy, out);
}

}  // namespace Tarn::Tool
