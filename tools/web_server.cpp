#include "web_server.h"

#include <httplib.h>

#include <cctype>
#include <charconv>
#include <optional>
#include <string_view>

#include "diag_report.h"
#include "dova/msgs/dova_msgs/Log.h"
#include "levels.h"
#include "web_assets.h"
#include "web_events.h"
#include "web_inspect.h"
#include "web_json.h"

namespace korcommon::cli {
namespace {

using httplib::Request;
using httplib::Response;

constexpr char kJson[] = "application/json";
constexpr char kTokenCookie[] = "korcommon_token";
constexpr size_t kMaxRecordsAnswered = 10000;
constexpr size_t kDefaultRecordsAnswered = 100;

void fail(Response& response, int status, std::string_view message) {
  response.status = status;
  response.set_content(errorJson(message), kJson);
}

const char* contentType(std::string_view name) {
  const auto endsWith = [name](std::string_view suffix) {
    return name.size() >= suffix.size() && name.substr(name.size() - suffix.size()) == suffix;
  };
  if (endsWith(".html")) return "text/html; charset=utf-8";
  if (endsWith(".css")) return "text/css; charset=utf-8";
  if (endsWith(".js")) return "text/javascript; charset=utf-8";
  if (endsWith(".svg")) return "image/svg+xml";
  return "application/octet-stream";
}

const WebAsset* findAsset(std::string_view name) {
  for (size_t i = 0; i < kWebAssetCount; ++i) {
    if (name == kWebAssets[i].name) return &kWebAssets[i];
  }
  return nullptr;
}

std::string lower(std::string_view text) {
  std::string result;
  for (const char c : text)
    result += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return result;
}

// Trace levels by name or by the record's number.
std::optional<int> traceLevel(const std::string& text) {
  using dova::dova_msgs::Log;
  const std::string name = lower(text);
  if (name == "debug" || name == "1") return Log::DEBUG;
  if (name == "info" || name == "2") return Log::INFO;
  if (name == "warn" || name == "4") return Log::WARN;
  if (name == "error" || name == "8") return Log::ERROR;
  if (name == "fatal" || name == "16") return Log::FATAL;
  return std::nullopt;
}

std::optional<size_t> count(const std::string& text) {
  size_t value = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
  if (result.ec != std::errc() || result.ptr != text.data() + text.size()) return std::nullopt;
  return value;
}

// Compares without an early exit, so the time taken tells nothing about the token.
bool sameSecret(std::string_view given, std::string_view expected) {
  if (given.size() != expected.size()) return false;
  unsigned char difference = 0;
  for (size_t i = 0; i < given.size(); ++i) {
    difference |= static_cast<unsigned char>(given[i] ^ expected[i]);
  }
  return difference == 0;
}

std::string cookieValue(const std::string& cookies, std::string_view name) {
  size_t start = 0;
  while (start < cookies.size()) {
    size_t end = cookies.find(';', start);
    if (end == std::string::npos) end = cookies.size();
    std::string_view pair(cookies.data() + start, end - start);
    while (!pair.empty() && pair.front() == ' ') pair.remove_prefix(1);
    if (pair.size() > name.size() && pair.substr(0, name.size()) == name &&
        pair[name.size()] == '=') {
      return std::string(pair.substr(name.size() + 1));
    }
    start = end + 1;
  }
  return "";
}

// What a status that the server library sets by itself means, in the words of this API.
std::string statusText(int status, size_t max_body) {
  switch (status) {
    case 400:
      return "malformed request";
    case 404:
      return "no such page or API";
    case 413:
      return "request body larger than " + std::to_string(max_body / 1024) + " KiB";
    case 414:
      return "request line too long";
    default:
      return "request refused (HTTP " + std::to_string(status) + ")";
  }
}

// The host name of a Host header, without the port.
std::string hostName(const std::string& header) {
  if (!header.empty() && header.front() == '[') return header.substr(1, header.find(']') - 1);
  return header.substr(0, header.find(':'));
}

}  // namespace

bool isLoopbackHost(const std::string& host) {
  const std::string name = lower(host);
  return name == "localhost" || name == "::1" || name.rfind("127.", 0) == 0;
}

DashboardServer::DashboardServer(DashboardState& state, ServerOptions options)
    : state_(state), options_(std::move(options)), server_(std::make_unique<httplib::Server>()) {
  const size_t threads = options_.max_streams + 8;  // room for requests beside the streams
  server_->new_task_queue = [threads] { return new httplib::ThreadPool(threads); };
  server_->set_payload_max_length(options_.max_body);
  server_->set_keep_alive_timeout(2);
  server_->set_default_headers({
      {"Cache-Control", "no-store"},
      {"X-Content-Type-Options", "nosniff"},
      {"Referrer-Policy", "no-referrer"},
      {"Content-Security-Policy",
       "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; "
       "img-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'"},
  });
  addRoutes();
}

DashboardServer::~DashboardServer() { stop(); }

bool DashboardServer::bind(std::string& error) {
  const std::string where = options_.bind + ":" + std::to_string(options_.port);
  if (options_.port == 0) {
    port_ = server_->bind_to_any_port(options_.bind);
  } else if (server_->bind_to_port(options_.bind, options_.port)) {
    port_ = options_.port;
  } else {
    port_ = -1;
  }
  if (port_ > 0) return true;
  error = "cannot listen on " + where + ": the port is in use or the address is not this machine's";
  return false;
}

void DashboardServer::start() {
  thread_ = std::thread([this] { server_->listen_after_bind(); });
}

void DashboardServer::stop() {
  state_.close();
  if (!thread_.joinable()) return;
  server_->stop();
  thread_.join();
}

void DashboardServer::addRoutes() {
  addAccessCheck();
  addErrorAnswers();
  addPageRoutes();
  addReadRoutes();
  addInspectRoute();
  addEventStream();
}

void DashboardServer::addAccessCheck() {
  server_->set_pre_routing_handler([this](const Request& request, Response& response) {
    if (options_.token.empty()) {
      if (isLoopbackHost(hostName(request.get_header_value("Host")))) {
        return httplib::Server::HandlerResponse::Unhandled;
      }
      fail(response, 403, "this dashboard answers only requests addressed to the loopback");
      return httplib::Server::HandlerResponse::Handled;
    }
    const std::string authorization = request.get_header_value("Authorization");
    const bool presented =
        sameSecret(request.get_param_value("token"), options_.token) ||
        sameSecret(cookieValue(request.get_header_value("Cookie"), kTokenCookie), options_.token) ||
        (authorization.rfind("Bearer ", 0) == 0 &&
         sameSecret(std::string_view(authorization).substr(7), options_.token));
    if (!presented) {
      fail(response, 401, "this dashboard needs its access token: open the URL it printed");
      return httplib::Server::HandlerResponse::Handled;
    }
    if (request.has_param("token")) {
      response.set_header("Set-Cookie", std::string(kTokenCookie) + "=" + options_.token +
                                            "; Path=/; HttpOnly; SameSite=Strict");
    }
    return httplib::Server::HandlerResponse::Unhandled;
  });
}

void DashboardServer::addErrorAnswers() {
  server_->set_error_handler([this](const Request&, Response& response) {
    if (response.body.empty())
      fail(response, response.status, statusText(response.status, options_.max_body));
  });
  server_->set_exception_handler([](const Request&, Response& response, const std::exception_ptr&) {
    fail(response, 500, "internal error");
  });
}

void DashboardServer::addPageRoutes() {
  const auto serveAsset = [](std::string_view name, Response& response) {
    const WebAsset* asset = findAsset(name);
    if (asset == nullptr) return fail(response, 404, "no such page");
    response.set_content(reinterpret_cast<const char*>(asset->bytes), asset->size,
                         contentType(name));
  };
  server_->Get("/", [serveAsset](const Request&, Response& response) {
    serveAsset("index.html", response);
  });
  server_->Get(R"(/([A-Za-z0-9_-]+\.[a-z]+))",
               [serveAsset](const Request& request, Response& response) {
                 serveAsset(request.matches[1].str(), response);
               });
}

void DashboardServer::addReadRoutes() {
  server_->Get("/api/diagnostics", [this](const Request& request, Response& response) {
    ReportFilter filter;
    if (request.has_param("level")) {
      filter.min_level = parseLevel(LevelScale::kReport, request.get_param_value("level"));
      if (!filter.min_level) return fail(response, 400, "level must be ok, warn or error");
    }
    if (request.has_param("name")) {
      try {
        filter.name.emplace(request.get_param_value("name"), std::regex::ECMAScript);
      } catch (const std::regex_error& error) {
        return fail(response, 400,
                    std::string("name is not a regular expression: ") + error.what());
      }
    }
    response.set_content(state_.diagnosticsJson(filter), kJson);
  });

  server_->Get("/api/logs", [this](const Request& request, Response& response) {
    int min_level = 0;
    if (request.has_param("level")) {
      const std::optional<int> level = traceLevel(request.get_param_value("level"));
      if (!level) return fail(response, 400, "level must be debug, info, warn, error or fatal");
      min_level = *level;
    }
    size_t limit = kDefaultRecordsAnswered;
    if (request.has_param("limit")) {
      const std::optional<size_t> given = count(request.get_param_value("limit"));
      if (!given || *given < 1 || *given > kMaxRecordsAnswered) {
        return fail(response, 400,
                    "limit must be a number from 1 to " + std::to_string(kMaxRecordsAnswered));
      }
      limit = *given;
    }
    response.set_content(state_.recordsJson(min_level, limit), kJson);
  });
}

void DashboardServer::addInspectRoute() {
  server_->Post("/api/envelope/inspect", [](const Request& request, Response& response) {
    std::string error;
    const std::optional<std::string> answer = inspectEnvelope(request.body, error);
    if (!answer) return fail(response, 400, "the envelope is not a JSON object: " + error);
    response.set_content(*answer, kJson);
  });
}

void DashboardServer::addEventStream() {
  server_->Get("/api/events", [this](const Request&, Response& response) {
    if (open_streams_.fetch_add(1) >= options_.max_streams) {
      --open_streams_;
      return fail(response, 503, "too many pages are open");
    }
    auto stream = std::make_shared<EventStream>(state_);
    response.set_chunked_content_provider(
        "text/event-stream",
        [stream](size_t, httplib::DataSink& sink) {
          const std::optional<std::string> message = stream->next();
          if (!message) {
            sink.done();
            return true;
          }
          return sink.write(message->data(), message->size());
        },
        [this](bool) { --open_streams_; });
  });
}

}  // namespace korcommon::cli
