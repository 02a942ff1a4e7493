#include "tarn/sql/ResultPrinter.h"

#include <algorithm>
#include <charconv>
#include <cmath>

#include <nlohmann/json.hpp>

namespace Tarn::Tool {
namespace {

using Json = nlohmann::json;

std::string Hex(std::string_view bytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * 2);
  for (char c : bytes) {
    out += kDigits[static_cast<uint8_t>(c) >> 4];
    out += kDigits[static_cast<uint8_t>(c) & 0xF];
  }
  return out;
}

// The shortest text that reads back as the same double.
std::string RealText(double value) {
  if (!std::isfinite(value)) return std::isnan(value) ? "NaN" : (value > 0 ? "Inf" : "-Inf");
  char text[32];
  auto [end, ec] = std::to_chars(text, text + sizeof(text), value);
  std::string out(text, ec == std::errc() ? end : text);
  // 3.0 stays visibly a real.
  if (out.find_first_of(".eE") == std::string::npos) out += ".0";
  return out;
}

bool IsContinuation(char c) { return (static_cast<uint8_t>(c) & 0xC0) == 0x80; }

// Characters (UTF-8 code points) in a text.
size_t Width(std::string_view text) {
  return static_cast<size_t>(std::count_if(text.begin(), text.end(),
                                           [](char c) { return !IsContinuation(c); }));
}

// One line per cell: control characters become spaces; cut to `max` with
// "…" when longer.
std::string Cell(std::string text, size_t max) {
  for (char& c : text) {
    if (static_cast<uint8_t>(c) < 0x20 || c == 0x7F) c = ' ';
  }
  if (max == 0 || Width(text) <= max) return text;
  size_t kept = 0;
  size_t i = 0;
  while (i < text.size() && kept < max - 1) {
    ++i;
    while (i < text.size() && IsContinuation(text[i])) ++i;
    ++kept;
  }
  return text.substr(0, i) + "\u2026";
}

std::string IntegerText(const SqlValue& value) {
  return value.as_unsigned ? std::to_string(static_cast<uint64_t>(value.integer))
                           : std::to_string(value.integer);
}

// One CSV field as RFC 4180 has it, with sqlite3's one addition: an empty
// text is written "" so that it reads back apart from NULL (an empty field).
void AppendCsvField(std::string& line, const std::string& field, bool is_empty_text) {
  const bool quoted = is_empty_text || field.find_first_of(",\"\r\n") != std::string::npos ||
                      (!field.empty() && (field.front() == ' ' || field.back() == ' '));
  if (!quoted) {
    line += field;
    return;
  }
  line += '"';
  for (char c : field) {
    if (c == '"') line += '"';
    line += c;
  }
  line += '"';
}

bool IsNumber(const SqlValue& value) {
  return value.type == SqlValue::Type::kInteger || value.type == SqlValue::Type::kReal;
}

std::string JsonText(const Json& value) {
  return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace

bool ParseResultFormat(std::string_view text, ResultFormat& format) {
  if (text == "table") {
    format = ResultFormat::kTable;
  } else if (text == "csv") {
    format = ResultFormat::kCsv;
  } else if (text == "json") {
    format = ResultFormat::kJson;
  } else {
    return false;
  }
  return true;
}

ResultPrinter::ResultPrinter(ResultFormat format, std::FILE* out, size_t max_width)
    : format_(format), out_(out), max_width_(max_width) {}

std::string ResultPrinter::Text(const SqlValue& value) {
  switch (value.type) {
    case SqlValue::Type::kNull: return "";
    case SqlValue::Type::kInteger: return IntegerText(value);
    case SqlValue::Type::kReal: return RealText(value.real);
    case SqlValue::Type::kText: return value.text;
    case SqlValue::Type::kBlob: return Hex(value.text);
  }
  return "";
}

void ResultPrinter::Begin(std::vector<std::string> columns) {
  columns_ = std::move(columns);
  rows_ = 0;
  table_.clear();
  switch (format_) {
    case ResultFormat::kTable:
      if (results_ > 0) std::fputc('\n', out_);
      break;
    case ResultFormat::kCsv:
      if (results_ > 0) std::fputc('\n', out_);
      WriteCsvRow(std::vector<SqlValue>(), columns_);
      break;
    case ResultFormat::kJson:
      std::fputs("[", out_);
      break;
  }
}

void ResultPrinter::Row(std::vector<SqlValue> values) {
  switch (format_) {
    case ResultFormat::kTable:
      table_.push_back(std::move(values));
      break;
    case ResultFormat::kCsv: {
      std::vector<std::string> fields;
      fields.reserve(values.size());
      for (const SqlValue& v : values) fields.push_back(Text(v));
      WriteCsvRow(values, fields);
      break;
    }
    case ResultFormat::kJson:
      std::fputs(rows_ == 0 ? "\n" : ",\n", out_);
      WriteJsonRow(values);
      break;
  }
  ++rows_;
}

void ResultPrinter::End() {
  switch (format_) {
    case ResultFormat::kTable: WriteTable(); break;
    case ResultFormat::kCsv: break;
    case ResultFormat::kJson: std::fputs(rows_ == 0 ? "]\n" : "\n]\n", out_); break;
  }
  ++results_;
  std::fflush(out_);
}

size_t ResultPrinter::Abandon() {
  const size_t written = format_ == ResultFormat::kTable ? 0 : rows_;
  table_.clear();
  if (format_ == ResultFormat::kJson) std::fputs("\n", out_);
  ++results_;
  std::fflush(out_);
  return written;
}

void ResultPrinter::WriteTable() {
  const size_t n = columns_.size();
  std::vector<std::vector<std::string>> cells;
  cells.reserve(table_.size());
  std::vector<size_t> widths(n, 0);
  std::vector<bool> numeric(n, true);
  for (size_t c = 0; c < n; ++c) {
    columns_[c] = Cell(columns_[c], max_width_);
    widths[c] = Width(columns_[c]);
  }
  for (const std::vector<SqlValue>& row : table_) {
    std::vector<std::string>& line = cells.emplace_back();
    for (size_t c = 0; c < n && c < row.size(); ++c) {
      line.push_back(Cell(Text(row[c]), max_width_));
      widths[c] = std::max(widths[c], Width(line.back()));
      if (!IsNumber(row[c]) && row[c].type != SqlValue::Type::kNull) numeric[c] = false;
    }
    line.resize(n);
  }
  auto write_line = [&](const std::vector<std::string>& line, bool header) {
    std::string text;
    for (size_t c = 0; c < n; ++c) {
      const std::string padding(widths[c] - Width(line[c]), ' ');
      const bool right = numeric[c] && !header && !table_.empty();
      if (c > 0) text += "  ";
      text += right ? padding + line[c] : line[c] + (c + 1 < n ? padding : "");
    }
    std::fprintf(out_, "%s\n", text.c_str());
  };
  write_line(columns_, true);
  std::vector<std::string> rule(n);
  for (size_t c = 0; c < n; ++c) rule[c] = std::string(widths[c], '-');
  write_line(rule, true);
  for (const std::vector<std::string>& line : cells) write_line(line, false);
  std::fprintf(out_, "(%zu %s)\n", table_.size(), table_.size() == 1 ? "row" : "rows");
  table_.clear();
}

void ResultPrinter::WriteCsvRow(const std::vector<SqlValue>& values,
                                const std::vector<std::string>& fields) {
  std::string line;
  for (size_t i = 0; i < fields.size(); ++i) {
    if (i > 0) line += ',';
    const bool empty_text =
        i < values.size() && values[i].type == SqlValue::Type::kText && values[i].text.empty();
    AppendCsvField(line, fields[i], empty_text || (values.empty() && fields[i].empty()));
  }
  line += '\n';
  std::fwrite(line.data(), 1, line.size(), out_);
}

void ResultPrinter::WriteJsonRow(const std::vector<SqlValue>& values) {
  // Written by hand around the values, so that two columns of one name
  // (a.pid, b.pid) both appear, as in the result.
  std::string line = "{";
  for (size_t c = 0; c < columns_.size() && c < values.size(); ++c) {
    if (c > 0) line += ',';
    line += JsonText(Json(columns_[c]));
    line += ':';
    const SqlValue& v = values[c];
    switch (v.type) {
      case SqlValue::Type::kNull: line += "null"; break;
      case SqlValue::Type::kInteger: line += IntegerText(v); break;
      case SqlValue::Type::kReal:
        line += std::isfinite(v.real) ? RealText(v.real) : "null";
        break;
      case SqlValue::Type::kText: line += JsonText(Json(v.text)); break;
      case SqlValue::Type::kBlob: line += JsonText(Json(Hex(v.text))); break;
    }
  }
  line += '}';
  std::fwrite(line.data(), 1, line.size(), out_);
}

}  // namespace Tarn::Tool
