// tarn query: one table query as a requester on the message bus sends it,
// and the store's answer as it came: its status, row count and token, then
// the rows.

#include <CLI/CLI.hpp>

#include <charconv>
#include <cstdio>
#include <filesystem>
#include <set>

#include <nlohmann/json.hpp>

#include "osquery/Tables.h"
#include "tarn/cli/Command.h"
#include "tarn/cli/CommonOptions.h"
#include "tarn/host/QueryClient.h"
#include "tarn/import/RowJson.h"
#include "tarn/sql/SqlAddresses.h"

namespace Tarn::Tool {
namespace {

struct QueryOptions {
  HostOptions host;
  QueryLimits limits;  // unset: the store's defaults, as an agent's requester meets them
  std::string table;
  std::string columns;
  std::string constraints;
  std::string token;  // the hexadecimal position an earlier answer gave
  uint16_t page = 0;
};


using OrderedJson = nlohmann::ordered_json;

const char* Meaning(uint32_t status) {
  switch (status) {
    case 0: return "complete";
    case 1: return "row limit: no rows";
    case 2: return "page limit: no rows";
    case 3: return "a row could not be made: no rows";
    case 4: return "bad time range: no rows";
    case 5: return "the store could not answer: no rows";
    case 8: return "partial: send the token and page for the rest";
    case 9: return "token not after the range's start: no rows";
    default: return "unknown status";
  }
}

bool ParseToken(const std::string& text, uint64_t& token) {
  std::string_view digits = text;
  if (digits.rfind("0x", 0) == 0) digits.remove_prefix(2);
  auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), token, 16);
  return !digits.empty() && ec == std::errc() && end == digits.data() + digits.size();
}

std::string Hex(uint64_t value) {
  char text[17];
  std::snprintf(text, sizeof(text), "%016llx", static_cast<unsigned long long>(value));
  return text;
}

// The columns a query's text names; empty when it asks for all of them.
std::set<std::string, std::less<>> Selected(const std::string& columns) {
  std::set<std::string, std::less<>> names;
  size_t start = 0;
  while (start <= columns.size() && !columns.empty()) {
    size_t comma = columns.find(',', start);
    if (comma == std::string::npos) comma = columns.size();
    std::string name = columns.substr(start, comma - start);
    if (name == "*") return {};
    names.insert(std::move(name));
    start = comma + 1;
  }
  return names;
}

void PrintRows(const std::string& table, const QueryAnswer& answer, const std::string& columns) {
  RowReader reader;
  reader.Open(table);
  const auto selected = Selected(columns);
  for (std::string_view bytes : answer.rows) {
    if (!reader.Parse(bytes)) {
      std::printf("{\"table\":\"%s\",\"error\":\"the row does not parse\"}\n", table.c_str());
      continue;
    }
    std::string line = RowJson::Write(reader.row());
    if (!selected.empty()) {
      OrderedJson all = OrderedJson::parse(line, nullptr, false);
      OrderedJson kept = OrderedJson::object();
      for (auto& [name, value] : all.items()) {
        if (name == "table" || selected.count(name) != 0) kept[name] = value;
      }
      line = kept.dump(-1, ' ', false, OrderedJson::error_handler_t::replace);
    }
    std::printf("%s\n", line.c_str());
  }
}


int RunQuery(const QueryOptions& options) {
  if (Storage::OSQuery::TableIdByName(options.table) == 0) {
    PrintError("unknown table \"" + options.table + "\"");
    return kUsageError;
  }
  QueryRequest request;
  request.table = options.table;
  request.columns = options.columns;
  // An address copied from a log finds the row that spells it another way.
  request.constraints = WithRowSpellings(options.constraints, options.table);
  request.page = options.page;
  if (!options.token.empty() && !ParseToken(options.token, request.token)) {
    PrintError("--token takes the hexadecimal position an answer gave, not \"" + options.token +
               "\"");
    return kUsageError;
  }
  if (!std::filesystem::is_directory(options.host.store)) {
    PrintError("there is no store in " + options.host.store);
    return 1;
  }
  HostOptions host = options.host;
  host.limits.widest_by_default = true;  // opening to read evicts nothing
  ModuleHost module;
  std::string error;
  if (!module.Open(host, error)) {
    PrintError(error);
    return 1;
  }
  QueryClient client(module);
  QueryAnswer answer;
  bool ok = client.ApplyLimits(options.limits, /*widest=*/false, error) &&
            client.Ask(request, answer, error);
  if (ok) {
    OrderedJson head = {{"status", answer.status},
                        {"meaning", Meaning(answer.status)},
                        {"rows", answer.row_count}};
    if (answer.has_token) {
      head["token"] = Hex(answer.next_token);
      head["page"] = answer.next_page;
    }
    std::printf("%s\n", head.dump().c_str());
    if (answer.HasRows()) {
      PrintRows(options.table, answer, options.columns);
    } else {
      error = client.Explain(answer);
      ok = false;
    }
  }
  if (!ok) PrintError(error);
  std::string close_error;
  if (!module.Close(close_error)) {
    PrintError(close_error);
    ok = false;
  }
  return ok ? 0 : 1;
}

class QueryCommand : public Command {
 public:
  CLI::App* Add(CLI::App& app) override {
    CLI::App* command = app.add_subcommand(
        "query", "Send one raw table query and print the answer as JSON lines");
    command->footer(
        "The first line holds the answer's status, row count and, for a partial answer "
        "(status 8), the token and page to send back for the rest; one line per row follows. "
        "Constraints are the store's JSON: {\"pid\": {\"affinity\": \"bigint\", \"list\": "
        "[{\"op\": 4, \"expr\": \"1000\"}]}} with operators 2 =, 4 >, 8 <=, 16 <, 32 >=, "
        "65 LIKE; date_time takes milliseconds since 1970.");
    AddStoreOption(command, options_.host.store);
    command->add_option("--table", options_.table, "the table, e.g. edr_process_create")
        ->required();
    command->add_option("--columns", options_.columns, "columns joined by \",\" (all)");
    command->add_option("--constraints", options_.constraints, "the constraints JSON (none)");
    command->add_option("--token", options_.token,
                        "the token an earlier answer gave (hexadecimal)");
    command->add_option("--page", options_.page, "the page an earlier answer gave (0)");
    AddQueryLimits(command, limits_, "unset: the store's default");
    return command;
  }

  int Run() override {
    return ReadHostOptions(options_.host, limits_, options_.limits) ? RunQuery(options_)
                                                                    : kUsageError;
  }

 private:
  QueryOptions options_;
  QueryLimitTexts limits_;
};

}  // namespace

std::unique_ptr<Command> MakeQueryCommand() { return std::make_unique<QueryCommand>(); }

}  // namespace Tarn::Tool
