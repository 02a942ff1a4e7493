#pragma once

// The two documents a kept Windows event comes as, read into the flat fields
// the mapping (WindowsEvents) reads: the record's XML as the event log
// library renders it from an .evtx file, and the JSON the evtx dump tools
// write (`{"Event": {"System": {...}, "EventData": {...}}}`).
//
// Both give "Channel", "EventID", "TimeCreated" (the record's SystemTime),
// "Computer", "EventRecordID" and "Provider", then every named field of
// EventData, or the leaves of UserData's element, under its own name.
// Unnamed EventData items are joined by "," under "Data". The forms are
// made to agree where the two renderings differ: GUIDs in braces, hexadecimal
// numbers without leading zeros, no trailing blanks, carriage returns kept.

#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace Tarn::Tool::Windows {

// The flat fields of one record's XML; false with `error` in words when it
// is not an event's XML.
bool FlattenEventXml(std::string_view xml, nlohmann::json& fields, std::string& error);

// The flat fields of one object of the dump tools' JSON; false with `error`
// when it has no "Event" with a "System".
bool FlattenDumpEvent(const nlohmann::json& object, nlohmann::json& fields, std::string& error);

// True when `object` is of the dump tools' form: an object whose "Event"
// is an object.
bool IsDumpEvent(const nlohmann::json& object);

}  // namespace Tarn::Tool::Windows
