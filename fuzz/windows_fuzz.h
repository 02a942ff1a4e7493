#pragma once

// What the Windows log fuzzers share: the invariants of an event made into
// rows, whichever document it came from.

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <string>

#include <nlohmann/json.hpp>

#include "FuzzSupport.h"
#include "tarn/import/WindowsEvents.h"

namespace tarn::fuzz {

// Flat fields are texts, none empty: the mapping reads nothing else.
inline void CheckFlat(const nlohmann::json& fields) {
  TARN_FUZZ_CHECK(fields.is_object());
  for (const auto& item : fields.items()) {
    TARN_FUZZ_CHECK(item.value().is_string());
    TARN_FUZZ_CHECK(!item.value().get_ref<const std::string&>().empty());
  }
}

// Reads flat fields into rows: a refusal says why; rows carry the event's
// time and no text of theirs holds a NUL (a record would cut it there).
inline void CheckRows(const nlohmann::json& fields) {
  Tarn::Tool::Windows::Event event;
  std::string error;
  if (!Tarn::Tool::Windows::ReadFields(fields, event, error)) {
    TARN_FUZZ_CHECK(!error.empty());
    TARN_FUZZ_CHECK(event.rows.empty());
    return;
  }
  for (const auto& row : event.rows) {
    const auto* descriptor = row->GetDescriptor();
    const auto* reflection = row->GetReflection();
    TARN_FUZZ_CHECK(reflection->GetUInt64(*row, descriptor->FindFieldByName("date_time")) ==
                    static_cast<uint64_t>(event.time_ms));
    for (int i = 0; i < descriptor->field_count(); ++i) {
      const auto* field = descriptor->field(i);
      if (field->cpp_type() != google::protobuf::FieldDescriptor::CPPTYPE_STRING) continue;
      TARN_FUZZ_CHECK(reflection->GetString(*row, field).find('\0') == std::string::npos);
    }
  }
}

}  // namespace tarn::fuzz
