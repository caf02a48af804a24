// The dashboard's HTTP API, served on an ephemeral loopback port in this process and fed
// reports and trace records directly, asked through an HTTP client; the requests and answers
// of tests/data/cli/web.json.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>

#include <chrono>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "cli_rows.h"
#include "threads.h"
#include "web_server.h"
#include "web_state.h"
#include "web_timeline.h"

namespace {

using dova::diagnostic_msgs::DiagnosticValue;
using dova::dova_msgs::Log;
using korcommon::cli::DashboardServer;
using korcommon::cli::DashboardState;
using ::testing::HasSubstr;
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

// A dashboard with room for four reporters and `kTraceRecords` trace records.
template <size_t kTraceRecords>
class Dashboard : public ::testing::Test {
 protected:
  void start(korcommon::cli::ServerOptions options = {}) {
    options.port = 0;
    server_ = std::make_unique<DashboardServer>(state_, options);
    std::string error;
    ASSERT_TRUE(server_->bind(error)) << error;
    server_->start();
    client_ = std::make_unique<httplib::Client>("127.0.0.1", server_->port());
    client_->set_read_timeout(10s);
  }

  // A stopped wall clock, so that the timelines are known exactly.
  DashboardState state_{{5.0, 4, kTraceRecords, 500}, [] { return int64_t{1000}; }};
  std::unique_ptr<DashboardServer> server_;
  std::unique_ptr<httplib::Client> client_;
};
using WebApi = Dashboard<3>;
using WebEvents = Dashboard<10000>;

// Each row: "args" are the method, the path and "Name: value" request headers, "input" the
// body, "status" the HTTP status, "out" the body answered and "err", when given, the answer's
// headers as "Name: value" lines.
TEST_F(WebApi, AnswersTheRequestsOfTheTableWithAndWithoutAToken) {
  state_.addReport(report("b/ok", 0, "fine"));
  state_.addReport(report("a/warn", 1, "first"));
  state_.addReport(report("c/error", 2, "hot", "node_b"));
  state_.addReport(report("c/error", 2, "hot", "node_a"));
  state_.addReport(report("d/late", 2, "one reporter too many: dropped"));
  state_.addReport(report("a/warn", 1, "line\001break"));  // replaces the first, still followed
  state_.addRecord(record(8, "lost"));                     // the ring holds the latest three
  state_.addRecord(record(4, "warn"));
  state_.addRecord(record(8, "error <b>x</b>"));
  state_.addRecord(record(2, "info"));
  state_.close();  // an event stream let through by mistake ends after its first message
  for (const char* token : {"", "s3cret"}) {
    korcommon::cli::ServerOptions options;
    options.token = token;
    options.max_streams = 0;  // no page may follow the events
    start(options);
    for (const auto& row : korcommon::testing::rowsOf("web.json", *token ? "token" : "open",
                                                      {{"BIG", std::string(64 * 1024, 'x')}})) {
      SCOPED_TRACE(row.why);
      httplib::Headers headers;
      for (size_t i = 2; i < row.args.size(); ++i) {
        const size_t colon = row.args[i].find(": ");
        headers.emplace(row.args[i].substr(0, colon), row.args[i].substr(colon + 2));
      }
      const httplib::Result answer =
          row.args[0] == "POST" ? client_->Post(row.args[1], headers, row.input, "text/plain")
                                : client_->Get(row.args[1], headers);
      ASSERT_TRUE(answer) << httplib::to_string(answer.error());
      EXPECT_EQ(answer->status, row.status);
      korcommon::testing::expectText(answer->body, row.out, "body");
      std::string answered_headers;
      for (const auto& [name, value] : answer->headers)
        answered_headers += name + ": " + value + "\n";
      if (!row.err.empty()) korcommon::testing::expectText(answered_headers, row.err, "headers");
    }
    server_->stop();
  }
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

TEST_F(WebEvents, EventsStartWithTheWholeStateThenBatchChanges) {
  state_.addReport(report("late/join", 2, "<img src=x onerror=alert(1)>"));
  state_.addRecord(record(4, "before"));
  start();
  // One page's event stream, read on a thread of its own until the server stops.
  korcommon::testing::Inbox<std::string> messages;
  std::thread page([this, &messages] {
    std::string buffer;
    client_->Get("/api/events", [&](const char* data, size_t length) {
      buffer.append(data, length);
      for (size_t end; (end = buffer.find("\n\n")) != std::string::npos; buffer.erase(0, end + 2)) {
        messages.add(buffer.substr(0, end));
      }
      return true;
    });
  });

  EXPECT_TRUE(messages.waitFor(1));
  const std::string snapshot = messages.items().empty() ? "" : messages.items()[0];
  EXPECT_EQ(snapshot.rfind("retry: 2000\ndata: {\"type\":\"snapshot\"", 0), 0u) << snapshot;
  EXPECT_THAT(snapshot, HasSubstr(R"("message":"<img src=x onerror=alert(1)>")"));
  EXPECT_THAT(snapshot, HasSubstr(R"("msg":"before")"));
  EXPECT_THAT(snapshot, HasSubstr(R"("timeline":[[".",599],["2",1]])"));

  // A burst: every report reaches the page, in at most ten messages a second.
  const auto burst_start = std::chrono::steady_clock::now();
  for (int i = 0; i < 300; ++i) {
    state_.addReport(report("burst/" + std::to_string(i % 3), 1, "n" + std::to_string(i)));
    if (i == 150) state_.addReport(report("beyond/cap", 1, "dropped", "node_b"));
    state_.addRecord(record(2, "r" + std::to_string(i)));
    std::this_thread::sleep_for(2ms);
  }
  EXPECT_TRUE(messages.waitUntil([](const std::vector<std::string>& items) {
    return !items.empty() && items.back().find("\"msg\":\"r299\"") != std::string::npos;
  }));
  const double elapsed =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - burst_start).count();
  server_->stop();
  page.join();
  const std::vector<std::string> all = messages.items();
  std::string seen;
  for (size_t i = 1; i < all.size(); ++i) seen += all[i];
  EXPECT_LE(all.size() - 1, static_cast<size_t>(elapsed * 10) + 2);
  EXPECT_THAT(seen, HasSubstr(R"("message":"n299")"));
  EXPECT_THAT(seen, HasSubstr(R"("type":"changes")"));
  EXPECT_THAT(all.back(), HasSubstr(R"("status":{"reporters":4,"nodes":1,"rate":)"));
  EXPECT_THAT(all.back(), HasSubstr(R"("reports":301,"records":301,"dropped_reports":1})"));
  const std::regex burst_record(R"("msg":"r[0-9]+")");
  EXPECT_EQ(std::distance(std::sregex_iterator(seen.begin(), seen.end(), burst_record), {}), 300)
      << "each record of the burst once";
}

}  // namespace
