// Windows logs as they are kept: each regression case of the detection
// rules read from its .evtx file and from the dump tools' JSON of it must
// give the same fields and rows; an .evtx reader that crashes, hangs or
// meets a damaged record costs only what it could not read; and inputs come
// as files, folders and archives.

#include <gtest/gtest.h>

#include <archive.h>
#include <archive_entry.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <map>

#include <nlohmann/json.hpp>

#include "tarn/import/ChildReader.h"
#include "tarn/import/EvtxRecords.h"
#include "tarn/import/JsonValues.h"
#include "tarn/import/WindowsDocuments.h"
#include "tarn/import/WindowsEvents.h"
#include "tools/tool_runner.h"

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;
using Tarn::Tool::Windows::Event;
using tarn::test::Tool;
using tarn::test::ToolRun;

const std::string kRegression = std::string(TARN_SIGMA_DATA) + "/regression_data";

std::vector<Json> EvtxFields(const std::string& path, std::string& failure) {
  std::vector<Json> out;
  const Tarn::Tool::EvtxReport report = Tarn::Tool::ReadEvtxRecords(
      path,
      [&](uint64_t, std::string_view xml) {
        Json fields;
        std::string error;
        EXPECT_TRUE(Tarn::Tool::Windows::FlattenEventXml(xml, fields, error)) << error;
        out.push_back(std::move(fields));
      },
      [&](uint64_t index, std::string_view why) {
        ADD_FAILURE() << path << " record " << index << ": " << why;
      });
  failure = report.failure;
  return out;
}

std::vector<Json> DumpFields(const std::string& path) {
  const std::string text = tarn::test::ReadWholeFile(path);
  Tarn::Tool::JsonValues values(text);
  std::string_view value;
  uint64_t line = 0;
  std::string error;
  std::vector<Json> out;
  while (values.Next(value, line, error)) {
    Json fields;
    EXPECT_TRUE(Tarn::Tool::Windows::FlattenDumpEvent(Json::parse(value), fields, error)) << error;
    out.push_back(std::move(fields));
  }
  EXPECT_EQ(error, "") << path << ":" << line;
  return out;
}

// The rows of an event, each as its table and its fields in text form.
std::vector<std::string> RowsOf(const Json& fields) {
  Event event;
  std::string error;
  EXPECT_TRUE(Tarn::Tool::Windows::ReadFields(fields, event, error)) << error << fields.dump();
  std::vector<std::string> out;
  for (const auto& row : event.rows) {
    out.push_back(row->GetDescriptor()->name() + " " + row->ShortDebugString());
  }
  return out;
}

TEST(WindowsDocuments, EveryRegressionCaseGivesTheSameFieldsAndRowsFromEvtxAndFromJson) {
  ASSERT_TRUE(fs::is_directory(kRegression)) << kRegression;
  size_t cases = 0;
  size_t events = 0;
  size_t rows = 0;
  for (const auto& entry : fs::recursive_directory_iterator(kRegression)) {
    if (entry.path().extension() != ".evtx") continue;
    const std::string evtx = entry.path().string();
    const std::string json = entry.path().parent_path() / (entry.path().stem().string() + ".json");
    SCOPED_TRACE(evtx);
    std::string failure;
    const std::vector<Json> from_evtx = EvtxFields(evtx, failure);
    EXPECT_EQ(failure, "");
    const std::vector<Json> from_json = DumpFields(json);
    ASSERT_EQ(from_evtx.size(), from_json.size());
    EXPECT_FALSE(from_evtx.empty());
    for (size_t i = 0; i < from_evtx.size(); ++i) {
      EXPECT_EQ(from_evtx[i].dump(1), from_json[i].dump(1)) << "event " << i;
      const std::vector<std::string> evtx_rows = RowsOf(from_evtx[i]);
      EXPECT_EQ(evtx_rows, RowsOf(from_json[i])) << "event " << i;
      rows += evtx_rows.size();
    }
    ++cases;
    events += from_evtx.size();
  }
  EXPECT_EQ(cases, 96u);
  EXPECT_EQ(events, 120u);
  EXPECT_GE(rows, 110u);  // a few events have no table, a few two rows
}

// The forms the two documents write differently, each read as Windows
// writes it.
TEST(WindowsDocuments, RenderingsAgreeOnGuidsHexNumbersBlanksAndCarriageReturns) {
  const std::string xml =
      "<Event xmlns='http://schemas.microsoft.com/win/2004/08/events/event'><System>"
      "<Provider Name='Microsoft-Windows-Sysmon'/><EventID>1</EventID>"
      "<TimeCreated SystemTime='2025-10-24T23:34:34.640670000Z'/>"
      "<Channel>Microsoft-Windows-Sysmon/Operational</Channel></System><EventData>"
      "<Data Name='ProcessGuid'>{5AA13A44-0D08-68FC-DC1D-000000004002}</Data>"
      "<Data Name='LogonId'>0x00000000000003E7</Data>"
      "<Data Name='CommandLine'>cmd.exe /c a&amp;b  </Data>"
      "<Data Name='TaskContent'>line one\r\nline two</Data>"
      "<Data Name='Empty'></Data><Data>unnamed one</Data><Data>two</Data>"
      "</EventData></Event>";
  const Json dump = {
      {"Event",
       {{"System",
         {{"Provider", {{"#attributes", {{"Name", "Microsoft-Windows-Sysmon"}}}}},
          {"EventID", 1},
          {"TimeCreated", {{"#attributes", {{"SystemTime", "2025-10-24T23:34:34.640670Z"}}}}},
          {"Channel", "Microsoft-Windows-Sysmon/Operational"}}},
        {"EventData",
         {{"ProcessGuid", "5AA13A44-0D08-68FC-DC1D-000000004002"},
          {"LogonId", "0x3e7"},
          {"CommandLine", "cmd.exe /c a&b"},
          {"TaskContent", "line one\r\nline two"},
          {"Empty", nullptr},
          {"Data", {{"#text", {"unnamed one", "two"}}}}}}}}};
  Json from_xml;
  Json from_dump;
  std::string error;
  ASSERT_TRUE(Tarn::Tool::Windows::FlattenEventXml(xml, from_xml, error)) << error;
  ASSERT_TRUE(Tarn::Tool::Windows::FlattenDumpEvent(dump, from_dump, error)) << error;
  EXPECT_EQ(from_xml["ProcessGuid"], "{5AA13A44-0D08-68FC-DC1D-000000004002}");
  EXPECT_EQ(from_xml["LogonId"], "0x3E7");
  EXPECT_EQ(from_xml["CommandLine"], "cmd.exe /c a&b");
  EXPECT_EQ(from_xml["TaskContent"], "line one\r\nline two");
  EXPECT_EQ(from_xml["Data"], "unnamed one,two");
  EXPECT_FALSE(from_xml.contains("Empty"));
  EXPECT_EQ(from_xml["TimeCreated"], "2025-10-24T23:34:34.640670Z");
  from_xml["LogonId"] = "0x3e7";  // hex digits' case is the renderer's
  EXPECT_EQ(from_xml.dump(1), from_dump.dump(1));

  for (const char* bad : {"<Event><System>", "<NotAnEvent/>", "plain text", ""}) {
    EXPECT_FALSE(Tarn::Tool::Windows::FlattenEventXml(bad, from_xml, error)) << bad;
    EXPECT_NE(error, "");
  }
  std::string deep;
  for (int i = 0; i < 100; ++i) deep += "<a>";
  EXPECT_FALSE(Tarn::Tool::Windows::FlattenEventXml("<Event>" + deep, from_xml, error));
}

// The child that reads a file sends frames; what arrived before it crashed
// or hung is kept, and the failure says which it was.
TEST(ChildReader, KeepsWhatArrivedBeforeTheReaderCrashedOrHung) {
  struct Case {
    const char* name;
    void (*after_two)();
    const char* failure;
  };
  const Case cases[] = {
      {"runs to its end", [] {}, ""},
      // A sanitizer turns the fault into an abort: the signal may be either.
      {"crashes", [] { ::raise(SIGSEGV); }, "its reader crashed (signal "},
      {"aborts", [] { std::abort(); }, "its reader crashed (signal 6"},
      {"exits early", [] { ::_exit(3); }, "its reader stopped with status 3"},
      {"hangs", [] { ::pause(); }, "its reader stopped answering for 1 s"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<std::string> got;
    const Tarn::Tool::ChildOutcome outcome = Tarn::Tool::RunInChild(
        [&](Tarn::Tool::FrameWriter& out) {
          out.Send(1, "first");
          out.Send(2, std::string(200'000, 'x'));  // more than a pipe holds at once
          c.after_two();
        },
        [&](uint8_t kind, std::string_view payload) {
          got.push_back(std::to_string(kind) + ":" + std::to_string(payload.size()));
        },
        1);
    EXPECT_EQ(got, (std::vector<std::string>{"1:5", "2:200000"}));
    EXPECT_EQ(outcome.clean, std::string(c.failure).empty());
    EXPECT_EQ(outcome.failure.substr(0, std::string(c.failure).size()), c.failure);
  }
}

// The largest regression case, damaged in one record, cut short, and
// replaced by bytes that only start like an event log.
TEST(EvtxRecords, ADamagedRecordCostsItselfAndADamagedFileSaysSo) {
  const std::string pristine =
      kRegression +
      "/rules-emerging-threats/2025/Malware/Shai-Hulud/"
      "proc_creation_win_mal_shai_hulud_malicious_node_bun_execution/"
      "5299fadf-f228-4526-8274-251db1960be9.evtx";
  const std::string bytes = tarn::test::ReadWholeFile(pristine);
  std::vector<size_t> records;  // where each record starts: its signature "**\0\0"
  for (size_t at = bytes.find(std::string("**\0\0", 4)); at != std::string::npos;
       at = bytes.find(std::string("**\0\0", 4), at + 4)) {
    records.push_back(at);
  }
  ASSERT_EQ(records.size(), 6u);
  tarn::test::TempDir dir;
  struct Case {
    const char* name;
    std::string bytes;
    std::vector<uint64_t> bad;
    uint64_t read;
    bool damaged;
    std::string failure;
  };
  std::string one_bad = bytes;
  for (size_t i = 40; i < 56; ++i) one_bad[records[2] + i] ^= 0xFF;  // its XML, not its header
  std::vector<Case> cases = {
      {"whole", bytes, {}, 6, false, ""},
      {"one record damaged", one_bad, {2}, 5, true, ""},
      {"cut inside its chunk", bytes.substr(0, records[3] + 100), {}, 0, true, ""},
      {"no event log", "ElfFile" + std::string(1, '\0') + std::string(5000, 'z'), {}, 0, false,
       "libevtx_file_open"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    tarn::test::WriteWholeFile(dir.File("log.evtx"), c.bytes);
    std::vector<uint64_t> bad;
    uint64_t read = 0;
    const Tarn::Tool::EvtxReport report = Tarn::Tool::ReadEvtxRecords(
        dir.File("log.evtx"), [&](uint64_t, std::string_view) { ++read; },
        [&](uint64_t index, std::string_view) { bad.push_back(index); });
    EXPECT_EQ(bad, c.bad);
    EXPECT_EQ(read, c.read);
    EXPECT_EQ(report.unreadable, c.bad.size());
    EXPECT_EQ(report.damaged, c.damaged);
    EXPECT_EQ(report.failure.substr(0, c.failure.size()), c.failure) << report.failure;
    EXPECT_EQ(report.failure.empty(), c.failure.empty()) << report.failure;
  }
}

// ---- Inputs: files, folders, archives ----------------------------------------

// A .zip of `members`, or with `gzip` a .gz of the one member.
void WriteArchive(const std::string& path, const std::map<std::string, std::string>& members,
                  bool gzip = false) {
  archive* out = archive_write_new();
  if (gzip) {
    archive_write_add_filter_gzip(out);
    archive_write_set_format_raw(out);
  } else {
    archive_write_set_format_zip(out);
  }
  ASSERT_EQ(archive_write_open_filename(out, path.c_str()), ARCHIVE_OK);
  for (const auto& [name, bytes] : members) {
    archive_entry* entry = archive_entry_new();
    archive_entry_set_pathname(entry, name.c_str());
    archive_entry_set_size(entry, static_cast<la_int64_t>(bytes.size()));
    archive_entry_set_filetype(entry, AE_IFREG);
    archive_entry_set_perm(entry, 0644);
    archive_write_header(out, entry);
    archive_write_data(out, bytes.data(), bytes.size());
    archive_entry_free(entry);
  }
  archive_write_close(out);
  archive_write_free(out);
}

std::string ShipperLine(const std::string& time, int pid, const std::string& image) {
  return Json{{"Channel", "Microsoft-Windows-Sysmon/Operational"},
              {"EventID", 1},
              {"@timestamp", time},
              {"ProcessGuid", "{5AA13A44-0D08-68FC-DC1D-00000000" + std::to_string(4000 + pid) +
                                  "}"},
              {"ProcessId", pid},
              {"Image", image}}
             .dump();
}

// One folder with a bit of everything: the store gets every event of every
// readable document, in time order across them; the rest is told.
TEST(WindowsInputs, FoldersAndArchivesAreReadAsTheyAreAndEveryFileIsAccountedFor) {
  tarn::test::TempDir dir;
  const std::string logs = dir.File("logs");
  fs::create_directories(logs + "/deeper");
  const std::string anydesk =
      kRegression + "/rules/windows/file/file_event/file_event_win_anydesk_artefact/"
                    "0b9ad457-2554-44c1-82c2-d56a99c42377";
  fs::copy_file(anydesk + ".evtx", logs + "/anydesk.evtx");  // 5 events, 2025-10-24
  WriteArchive(logs + "/deeper/anydesk.json.gz",
               {{"data", tarn::test::ReadWholeFile(anydesk + ".json")}}, true);
  // Shipper lines in a zip, their times between and around the others.
  WriteArchive(logs + "/shipped.zip",
               {{"a/early.json", ShipperLine("2025-10-24T23:00:00Z", 11, "C:\\a.exe") + "\n"},
                {"b/late.json", ShipperLine("2025-10-25T01:00:00Z", 12, "C:\\b.exe") + "\n"},
                {"c/notes.txt", "not a log"}});
  tarn::test::WriteWholeFile(logs + "/README.md", "# logs of host 7\n");
  tarn::test::WriteWholeFile(dir.File("empty.json"), "");
  tarn::test::WriteWholeFile(dir.File("utf16.json"), std::string("\xFF\xFE{\0", 4));
  tarn::test::WriteWholeFile(dir.File("rows.json"),
                             "{\"table\":\"edr_process_create\",\"date_time\":1}\n");

  const std::string store = dir.File("store");
  ToolRun run = Tool::Run({"--quiet", "ingest", "--store", store, "--from", logs,
                           dir.File("empty.json"), dir.File("utf16.json"), dir.File("rows.json"),
                           dir.File("missing.evtx")},
                          dir.path());
  EXPECT_EQ(run.status, 1) << run.err;  // not every input could be read
  for (const std::string& told : {
           logs + "/shipped.zip:c/notes.txt is not an event log: it starts with bytes 6e 6f 74",
           dir.File("empty.json") + " is empty",
           dir.File("utf16.json") + " is UTF-16 text",
           dir.File("rows.json") + " holds rows as `tarn export` writes them",
           dir.File("missing.evtx") + " does not exist"}) {
    EXPECT_NE(run.err.find("tarn: " + told), std::string::npos) << told << "\n" << run.err;
  }
  EXPECT_EQ(run.err.find("README"), std::string::npos) << run.err;  // a folder's other files
  EXPECT_NE(run.out.find("windows events: 12 read from 1 .evtx file and 3 JSON files, "),
            std::string::npos)
      << run.out;
  EXPECT_NE(run.out.find("files in the folders that hold no event log, passed over: 1\n"),
            std::string::npos)
      << run.out;
  EXPECT_NE(run.out.find("inputs not read whole: 5 (told above)"), std::string::npos) << run.out;

  // Stored in time order across the files: the zip's first line goes first.
  run = Tool::Run({"--quiet", "sql", "--store", store, "--format", "csv",
                   "SELECT count(*) AS n, min(date_time) = (SELECT min(date_time) FROM "
                   "edr_process_create) AS early_first FROM edr_file_create"},
                  dir.path());
  EXPECT_EQ(run.out, "n,early_first\n10,0\n") << run.err;
  run = Tool::Run({"--quiet", "export", "--store", store}, dir.path());
  std::vector<uint64_t> times;
  for (size_t at = run.out.find("\"date_time\":"); at != std::string::npos;
       at = run.out.find("\"date_time\":", at + 1)) {
    times.push_back(std::stoull(run.out.substr(at + 12)));
  }
  EXPECT_EQ(times.size(), 12u + 2u);  // and anydesk's two processes, found running
  EXPECT_TRUE(std::is_sorted(times.begin(), times.end()));

  // Standard input is one more document among them.
  tarn::test::WriteWholeFile(dir.File("piped"),
                             ShipperLine("2025-10-25T02:00:00Z", 13, "C:\\c.exe") + "\n");
  run = Tool::Run({"--quiet", "ingest", "--store", dir.File("store2"), "--from", logs, "-"},
                  dir.path(), dir.File("piped"));
  EXPECT_EQ(run.status, 1) << run.err;  // the zip's notes.txt
  EXPECT_NE(run.out.find("windows events: 13 read from 1 .evtx file and 4 JSON files, "),
            std::string::npos)
      << run.out << run.err;
}

}  // namespace
