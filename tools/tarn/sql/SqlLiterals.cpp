#include "tarn/sql/SqlLiterals.h"

#include <charconv>
#include <cstdint>
#include <functional>
#include <limits>
#include <set>
#include <vector>

#include "osquery/Tables.h"
#include "tarn/cli/TextForms.h"

namespace Tarn::Tool {
namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// Letters, digits, "_", "$" and any byte of a UTF-8 sequence, as SQLite's
// tokenizer has them.
bool IsNameChar(char c) {
  return IsDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == '$' ||
         static_cast<unsigned char>(c) >= 0x80;
}

// The end of the quoted text opened at `at` (a doubled quote stays inside).
size_t QuotedEnd(std::string_view sql, size_t at) {
  const char close = sql[at] == '[' ? ']' : sql[at];
  for (size_t i = at + 1; i < sql.size(); ++i) {
    if (sql[i] != close) continue;
    if (close != ']' && i + 1 < sql.size() && sql[i + 1] == close) {
      ++i;
      continue;
    }
    return i + 1;
  }
  return sql.size();
}

size_t CommentEnd(std::string_view sql, size_t at) {
  if (sql[at] == '-') {
    const size_t end = sql.find('\n', at);
    return end == std::string_view::npos ? sql.size() : end + 1;
  }
  const size_t end = sql.find("*/", at + 2);
  return end == std::string_view::npos ? sql.size() : end + 2;
}

// The end of the number at `at`: digits, a fraction, an exponent and any
// name characters stuck to it (0x1F, 12abc). `plain` when only digits.
size_t NumberEnd(std::string_view sql, size_t at, bool& plain) {
  size_t i = at;
  while (i < sql.size() && IsDigit(sql[i])) ++i;
  plain = true;
  if (i < sql.size() && sql[i] == '.') {
    plain = false;
    ++i;
    while (i < sql.size() && IsDigit(sql[i])) ++i;
  }
  if (i < sql.size() && (sql[i] == 'e' || sql[i] == 'E')) {
    plain = false;
    ++i;
    if (i < sql.size() && (sql[i] == '+' || sql[i] == '-')) ++i;
  }
  while (i < sql.size() && IsNameChar(sql[i])) {
    plain = false;
    ++i;
  }
  return i;
}

// One token of the statement, as far as deciding what a literal meets
// needs: where it lies, and what it is.
struct Token {
  enum Kind { kName, kQuoted, kNumber, kOther } kind;
  size_t begin, end;
};

std::vector<Token> Tokens(std::string_view sql) {
  std::vector<Token> tokens;
  size_t i = 0;
  while (i < sql.size()) {
    const char c = sql[i];
    const char next = i + 1 < sql.size() ? sql[i + 1] : '\0';
    size_t end = i + 1;
    Token::Kind kind = Token::kOther;
    if (c == ' ' || c == '\t' || c == '\r' || c == '\n') {
      i = end;
      continue;
    }
    if (c == '\'' || c == '"' || c == '`' || c == '[') {
      end = QuotedEnd(sql, i);
      kind = c == '\'' ? Token::kOther : Token::kQuoted;  // a string, or a quoted name
    } else if ((c == '-' && next == '-') || (c == '/' && next == '*')) {
      i = CommentEnd(sql, i);
      continue;
    } else if (IsDigit(c) || (c == '.' && IsDigit(next))) {
      bool plain = false;
      end = NumberEnd(sql, c == '.' ? i + 1 : i, plain);
      kind = plain && c != '.' ? Token::kNumber : Token::kOther;
    } else if (IsNameChar(c) || c == '?' || c == ':' || c == '@') {
      // A name, a blob's x prefix or a parameter, digits and all.
      while (end < sql.size() && IsNameChar(sql[end])) ++end;
      kind = IsNameChar(c) ? Token::kName : Token::kOther;
    } else if ((c == '<' || c == '>' || c == '!' || c == '=') &&
               (next == '=' || (c == '<' && next == '>'))) {
      end = i + 2;  // <=, >=, !=, ==, <>
    }
    tokens.push_back({kind, i, end});
    i = end;
  }
  return tokens;
}

std::string Lower(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

// The names of the 64-bit id columns of every table.
const std::set<std::string>& IdColumns() {
  static const std::set<std::string> names = [] {
    std::set<std::string> found;
    for (const auto& table : Storage::OSQuery::AllTables()) {
      for (const auto& column : table.Columns()) {
        if (column.kind == Storage::OSQuery::ColumnKind::kUInt64) found.insert(column.name);
      }
    }
    return found;
  }();
  return names;
}

class Context {
 public:
  Context(std::string_view sql, const std::vector<Token>& tokens) : sql_(sql), tokens_(tokens) {}

  std::string Text(size_t t) const {
    const Token& token = tokens_[t];
    std::string_view text = sql_.substr(token.begin, token.end - token.begin);
    if (token.kind == Token::kQuoted && text.size() >= 2) text = text.substr(1, text.size() - 2);
    return Lower(text);
  }
  bool Is(size_t t, std::string_view text) const { return t < tokens_.size() && Text(t) == text; }
  bool IsComparison(size_t t) const {
    for (const char* op : {"=", "==", "!=", "<>", "<", "<=", ">", ">="}) {
      if (Is(t, op)) return true;
    }
    return false;
  }
  // Whether the column named by the tokens ending at `t` (a name, or
  // table "." name) is an id column.
  bool IdColumnEndsAt(size_t t) const {
    if (t >= tokens_.size()) return false;
    const Token::Kind kind = tokens_[t].kind;
    return (kind == Token::kName || kind == Token::kQuoted) && IdColumns().count(Text(t)) != 0;
  }
  // Whether the column named from `t` on (a name, or table "." name) is one.
  bool IdColumnStartsAt(size_t t) const {
    if (t + 2 < tokens_.size() && Is(t + 1, ".")) return IdColumnEndsAt(t + 2);
    return IdColumnEndsAt(t);
  }

  // Whether number token `t` meets an id column.
  bool MeetsIdColumn(size_t t) const {
    if (t > 0 && Is(t - 1, "-")) return false;  // a negative number already
    if (t >= 2 && IsComparison(t - 1) && IdColumnEndsAt(t - 2)) return true;
    if (t + 1 < tokens_.size() && IsComparison(t + 1) && IdColumnStartsAt(t + 2)) return true;
    // column BETWEEN t AND u, or column BETWEEN s AND t
    if (t >= 2 && Is(t - 1, "between") && IdColumnEndsAt(t - 2)) return true;
    if (t >= 4 && Is(t - 1, "and") && Is(t - 3, "between") && IdColumnEndsAt(t - 4)) return true;
    // column IN (..., t, ...)
    size_t k = t;
    while (k > 0 && (Is(k - 1, ",") || tokens_[k - 1].kind == Token::kNumber || Is(k - 1, "-"))) {
      --k;
    }
    return k >= 3 && Is(k - 1, "(") && Is(k - 2, "in") && IdColumnEndsAt(k - 3);
  }

 private:
  std::string_view sql_;
  const std::vector<Token>& tokens_;
};

// The literal as the signed number of its 64 bits, or none when it is no
// number past 2^63.
bool Signed(std::string_view digits, std::string& out) {
  uint64_t value = 0;
  auto [stop, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
  if (ec != std::errc() || stop != digits.data() + digits.size() ||
      value <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
    return false;
  }
  out = "(" + std::to_string(static_cast<int64_t>(value)) + ")";
  return true;
}

// `sql` with some runs of its tokens replaced: `replace(t, text)` gives the
// text for a run that starts at token t and returns how many tokens it
// spans (0: the token stays).
std::string Rewritten(std::string_view sql, const std::vector<Token>& tokens,
                      const std::function<size_t(size_t, std::string&)>& replace) {
  std::string out;
  out.reserve(sql.size());
  size_t copied = 0;
  for (size_t t = 0; t < tokens.size(); ++t) {
    std::string text;
    const size_t span = replace(t, text);
    if (span == 0) continue;
    out.append(sql.substr(copied, tokens[t].begin - copied));
    out += text;
    copied = tokens[t + span - 1].end;
    t += span - 1;
  }
  out.append(sql.substr(copied));
  return out;
}

}  // namespace

std::string SignedIdLiterals(std::string_view sql) {
  const std::vector<Token> tokens = Tokens(sql);
  const Context context(sql, tokens);
  return Rewritten(sql, tokens, [&](size_t t, std::string& text) -> size_t {
    const Token& token = tokens[t];
    return token.kind == Token::kNumber &&
                   Signed(sql.substr(token.begin, token.end - token.begin), text) &&
                   context.MeetsIdColumn(t)
               ? 1
               : 0;
  });
}

std::string TimeLiterals(std::string_view sql) {
  const std::vector<Token> tokens = Tokens(sql);
  const Context context(sql, tokens);
  return Rewritten(sql, tokens, [&](size_t t, std::string& text) -> size_t {
    if (t + 3 >= tokens.size()) return 0;
    const Token& quoted = tokens[t + 2];
    if (tokens[t].kind != Token::kName || context.Text(t) != "ts" || !context.Is(t + 1, "(") ||
        sql[quoted.begin] != '\'' || !context.Is(t + 3, ")")) {
      return 0;
    }
    std::string value(sql.substr(quoted.begin + 1, quoted.end - quoted.begin - 2));
    for (size_t i = value.find("''"); i != std::string::npos; i = value.find("''", i + 1)) {
      value.erase(i, 1);
    }
    int64_t ms = 0;
    if (!ParseTime(value, /*end_of_day=*/false, ms)) return 0;
    text = std::to_string(ms);
    return 4;
  });
}

}  // namespace Tarn::Tool
