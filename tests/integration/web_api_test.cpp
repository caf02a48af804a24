// The dashboard's HTTP API, served on an ephemeral loopback port in this process and fed
// reports and trace records directly, asked through an HTTP client.
#include <gtest/gtest.h>
#include <httplib.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "dova/json/reader.h"
#include "threads.h"
#include "web_server.h"
#include "web_state.h"
#include "web_timeline.h"

namespace {

using dova::diagnostic_msgs::DiagnosticValue;
using dova::dova_msgs::Log;
using korcommon::cli::DashboardServer;
using korcommon::cli::DashboardState;
using namespace std::chrono_literals;

std::shared_ptr<const DiagnosticValue> report(const std::string& name, int level,
                                              const std::string& message,
                                              const std::string& node = "node_a") {
  auto value = std::make_shared<DiagnosticValue>();
  value->name = name;
  value->level = level;
  value->code = 7;
  value->message = message;
  value->caller_id = node;
  return value;
}

std::shared_ptr<const Log> record(int8_t level, const std::string& text) {
  auto value = std::make_shared<Log>();
  value->level = level;
  value->msg = text;
  value->name = "node_a";
  return value;
}

// An answer read with the project's JSON reader, whose top level is an object: arrays are
// wrapped as {"a":...}.
dova::json::Object parse(const std::string& json) {
  dova::json::Object object;
  std::istringstream stream(json.front() == '[' ? "{\"a\":" + json + "}" : json);
  dova::json::Reader::Read(object, stream);
  return object;
}

std::vector<std::string> texts(const std::string& json, const char* member) {
  std::vector<std::string> values;
  const dova::json::Object object = parse(json);
  for (const auto& item : object["a"].CastTo<dova::json::Array>()) {
    values.push_back(
        item.CastTo<dova::json::Object>()[member].CastTo<dova::json::String>().Value());
  }
  return values;
}

class WebApi : public ::testing::Test {
 protected:
  void start(const std::string& token = "") {
    korcommon::cli::ServerOptions options;
    options.port = 0;
    options.token = token;
    server_ = std::make_unique<DashboardServer>(state_, options);
    std::string error;
    ASSERT_TRUE(server_->bind(error)) << error;
    server_->start();
    client_ = std::make_unique<httplib::Client>("127.0.0.1", server_->port());
    client_->set_read_timeout(10s);
  }

  // Status and body of a GET.
  std::pair<int, std::string> get(const std::string& path, const httplib::Headers& headers = {}) {
    const httplib::Result result = client_->Get(path, headers);
    if (!result) return {-1, ""};
    return {result->status, result->body};
  }

  static void expectError(const std::pair<int, std::string>& answer, int status) {
    EXPECT_EQ(answer.first, status) << answer.second;
    EXPECT_FALSE(parse(answer.second)["error"].CastTo<dova::json::String>().Value().empty());
  }

  korcommon::cli::DashboardLimits limits_;
  // A stopped wall clock, so that the timelines are known exactly.
  DashboardState state_{limits_, [] { return int64_t{1000}; }};
  std::unique_ptr<DashboardServer> server_;
  std::unique_ptr<httplib::Client> client_;
};

TEST_F(WebApi, DiagnosticsWorstFirstThenByNameWithFilters) {
  state_.addReport(report("b/ok", 0, "fine"));
  state_.addReport(report("a/warn", 1, "first"));
  state_.addReport(report("c/error", 2, "hot", "node_b"));
  state_.addReport(report("c/error", 2, "hot", "node_a"));
  state_.addReport(report("a/warn", 1,
                          "line\x01"
                          "break"));  // replaces the first a/warn
  start();

  const auto all = get("/api/diagnostics");
  ASSERT_EQ(all.first, 200);
  EXPECT_EQ(texts(all.second, "name"),
            (std::vector<std::string>{"c/error", "c/error", "a/warn", "b/ok"}));
  EXPECT_EQ(texts(all.second, "caller_id")[0], "node_a");
  // Raw control bytes of a report reach a browser escaped, or JSON.parse refuses the answer.
  EXPECT_NE(all.second.find("line\\u0001break"), std::string::npos);
  EXPECT_EQ(all.second.find('\x01'), std::string::npos);
  // The members of "diag echo --json", in its order.
  const dova::json::Object answer = parse(all.second);
  std::vector<std::string> members;
  for (const auto& member :
       answer["a"].CastTo<dova::json::Array>()[0].CastTo<dova::json::Object>()) {
    members.push_back(member.name);
  }
  EXPECT_EQ(members, (std::vector<std::string>{"name", "level", "code", "message", "frame_id",
                                               "stamp", "caller_id"}));

  EXPECT_EQ(texts(get("/api/diagnostics?level=warn").second, "name"),
            (std::vector<std::string>{"c/error", "c/error", "a/warn"}));
  EXPECT_EQ(texts(get("/api/diagnostics?name=%5Ea%7Cok%24&level=ok").second, "name"),
            (std::vector<std::string>{"a/warn", "b/ok"}));
  expectError(get("/api/diagnostics?level=loud"), 400);
  expectError(get("/api/diagnostics?name=(unclosed"), 400);
}

TEST_F(WebApi, BoundedRingOfRecordsByLevelAndLimitAndReportersBeyondTheCapDropped) {
  limits_.trace_records = 4;
  limits_.reporters = 2;
  DashboardState small(limits_);
  for (const char* name : {"r1", "r2", "r3"}) small.addReport(report(name, 0, ""));
  small.addReport(report("r1", 1, "still followed"));
  EXPECT_EQ(texts(small.diagnosticsJson({}), "name"), (std::vector<std::string>{"r1", "r2"}));
  DashboardState::Cursor cursor;
  EXPECT_NE(small.snapshotJson(cursor).find(R"("reporters":2,"nodes":1,"rate":)"),
            std::string::npos);
  EXPECT_NE(small.changesJson(cursor).find(R"("reports":3,"records":0,"dropped_reports":1})"),
            std::string::npos);

  for (const auto& [level, text] : std::vector<std::pair<int8_t, std::string>>{
           {8, "lost"}, {2, "i1"}, {4, "w1"}, {8, "e1"}, {2, "i2"}, {4, "w2"}}) {
    small.addRecord(record(level, text));
  }
  EXPECT_EQ(texts(small.recordsJson(0, 100), "msg"),
            (std::vector<std::string>{"w1", "e1", "i2", "w2"}));
  EXPECT_EQ(texts(small.recordsJson(4, 2), "msg"), (std::vector<std::string>{"e1", "w2"}));

  state_.addRecord(record(8, "error <b>x</b>"));
  start();
  EXPECT_EQ(texts(get("/api/logs?level=error&limit=1").second, "msg"),
            (std::vector<std::string>{"error <b>x</b>"}));
  for (const char* bad : {"level=verbose", "limit=0", "limit=10001", "limit=5x", "limit=-1"}) {
    expectError(get(std::string("/api/logs?") + bad), 400);
  }
}

TEST_F(WebApi, EnvelopeInspectionAndRefusedBodies) {
  start();
  const auto inspect = [this](const std::string& body) {
    const httplib::Result result = client_->Post("/api/envelope/inspect", body, "text/plain");
    return result ? std::make_pair(result->status, result->body) : std::make_pair(-1, "");
  };
  const auto valid = inspect(
      R"({"accid":"sn1","title":"pose","guid":"g-1","timestamp":1700000000123.7,"data":{"x":1}})");
  ASSERT_EQ(valid.first, 200) << valid.second;
  EXPECT_EQ(valid.second,
            R"({"valid":true,"members":[{"name":"accid","present":true,"value":"sn1"},)"
            R"({"name":"title","present":true,"value":"pose"},)"
            R"({"name":"guid","present":true,"value":"g-1"},)"
            R"({"name":"timestamp","present":true,"value":1700000000123},)"
            R"({"name":"data","present":true,"value":"{\"x\":1}"}]})");
  const auto no_guid = inspect(R"({"accid":"sn1","title":5,"timestamp":"x","data":null})");
  EXPECT_NE(no_guid.second.find(R"("valid":false)"), std::string::npos);
  EXPECT_NE(no_guid.second.find(R"({"name":"guid","present":false,"value":""})"),
            std::string::npos);
  EXPECT_NE(no_guid.second.find(R"({"name":"timestamp","present":true,"value":0})"),
            std::string::npos);

  expectError(inspect("{\"accid\":"), 400);
  expectError(inspect(""), 400);
  expectError(inspect("{\"data\":\"" + std::string(64 * 1024, 'x') + "\"}"), 413);
  expectError(get("/api/nothing"), 404);
}

TEST_F(WebApi, TokenOnEveryRequestAndLoopbackHostsOnlyWithout) {
  start("s3cret");
  expectError(get("/"), 401);
  expectError(get("/api/diagnostics?token=guess"), 401);
  expectError(get("/api/diagnostics", {{"Authorization", "Bearer s3cre"}}), 401);
  EXPECT_EQ(get("/api/diagnostics", {{"Authorization", "Bearer s3cret"}}).first, 200);
  EXPECT_EQ(get("/app.js", {{"Cookie", "a=1; korcommon_token=s3cret"}}).first, 200);
  const httplib::Result page = client_->Get("/?token=s3cret");
  ASSERT_TRUE(page);
  EXPECT_EQ(page->status, 200);
  EXPECT_EQ(page->get_header_value("Set-Cookie").rfind("korcommon_token=s3cret;", 0), 0u);
  EXPECT_EQ(page->get_header_value("Content-Type"), "text/html; charset=utf-8");
  EXPECT_NE(page->get_header_value("Content-Security-Policy").find("script-src 'self'"),
            std::string::npos);

  server_->stop();
  DashboardState open_state(limits_);
  korcommon::cli::ServerOptions options;
  options.port = 0;
  DashboardServer open_server(open_state, options);
  std::string error;
  ASSERT_TRUE(open_server.bind(error)) << error;
  open_server.start();
  httplib::Client client("127.0.0.1", open_server.port());
  // A page of another site that reaches this port through a name of its own is refused.
  const httplib::Result rebound = client.Get("/api/diagnostics", {{"Host", "evil.example"}});
  ASSERT_TRUE(rebound);
  EXPECT_EQ(rebound->status, 403);
  EXPECT_EQ(client.Get("/api/diagnostics", {{"Host", "localhost:1"}})->status, 200);
}

TEST(WebTimeline, WorstLevelPerSecondCarriedWhileFreshForTenMinutes) {
  korcommon::cli::Timeline timeline(5);
  EXPECT_EQ(timeline.marks(100, 3), "...");
  timeline.record(100, 1);
  timeline.record(103, 0);
  EXPECT_EQ(timeline.marks(110, 12), ".11100000...");
  timeline.record(103, 2);  // the worst of a second stays, the latest is carried
  timeline.record(103, 1);
  timeline.record(102, 7);  // a clock stepped back counts as the latest second
  EXPECT_EQ(timeline.marks(106, 5), "13333");
  timeline.record(100 + 600 + 3, 0);
  EXPECT_EQ(timeline.marks(703, 4), "...0");
  EXPECT_EQ(timeline.marks(703).size(), 600u);
  EXPECT_EQ(timeline.runs(703),
            (std::vector<std::pair<char, int64_t>>{{'3', 4}, {'.', 595}, {'0', 1}}));
}

// One page's event stream, read on a thread of its own.
class EventReader {
 public:
  explicit EventReader(int port) : client_("127.0.0.1", port) {
    thread_ = std::thread([this] {
      client_.Get("/api/events", [this](const char* data, size_t length) {
        buffer_.append(data, length);
        for (size_t end; (end = buffer_.find("\n\n")) != std::string::npos;) {
          messages.add(buffer_.substr(0, end));
          buffer_.erase(0, end + 2);
        }
        return !stop_;
      });
    });
  }
  ~EventReader() {
    stop_ = true;
    thread_.join();
  }

  // The `index`th message, once it arrived (empty after 10 s).
  std::string message(size_t index) {
    return messages.waitFor(index + 1, 10s) ? messages.items()[index] : "";
  }

  korcommon::testing::Inbox<std::string> messages;

 private:
  httplib::Client client_;
  std::string buffer_;  // touched by the reading thread only
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

TEST_F(WebApi, EventsStartWithTheWholeStateThenBatchChanges) {
  state_.addReport(report("late/join", 2, "<img src=x onerror=alert(1)>"));
  state_.addRecord(record(4, "before"));
  start();
  EventReader page(server_->port());

  const std::string snapshot = page.message(0);
  ASSERT_EQ(snapshot.rfind("retry: 2000\ndata: {\"type\":\"snapshot\"", 0), 0u) << snapshot;
  EXPECT_NE(snapshot.find(R"("message":"<img src=x onerror=alert(1)>")"), std::string::npos);
  EXPECT_NE(snapshot.find(R"("msg":"before")"), std::string::npos);
  EXPECT_NE(snapshot.find(R"("timeline":[[".",599],["2",1]])"), std::string::npos);

  // A burst: every report reaches the page, in at most ten messages a second.
  const auto burst_start = std::chrono::steady_clock::now();
  for (int i = 0; i < 300; ++i) {
    state_.addReport(report("burst/" + std::to_string(i % 30), 1, "n" + std::to_string(i)));
    state_.addRecord(record(2, "r" + std::to_string(i)));
    std::this_thread::sleep_for(2ms);
  }
  std::string seen;
  for (size_t i = 1; seen.find("\"msg\":\"r299\"") == std::string::npos && i < 100; ++i) {
    seen += page.message(i);
  }
  const double elapsed =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - burst_start).count();
  EXPECT_LE(page.messages.size() - 1, static_cast<size_t>(elapsed * 10) + 2);
  EXPECT_NE(seen.find(R"("message":"n299")"), std::string::npos);
  for (int i = 0; i < 300; i += 37) {  // each record once
    const std::string text = "\"msg\":\"r" + std::to_string(i) + "\"";
    const size_t at = seen.find(text);
    EXPECT_TRUE(at != std::string::npos && seen.find(text, at + 1) == std::string::npos) << i;
  }
  EXPECT_NE(seen.find(R"("type":"changes")"), std::string::npos);
  EXPECT_NE(seen.find(R"("reporters":31)"), std::string::npos);
}

}  // namespace
