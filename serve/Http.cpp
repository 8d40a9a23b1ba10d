#include "Http.h"

#include <httplib.h>

#include <algorithm>
#include <stdexcept>

#include "Events.h"
#include "Metrics.h"
#include "WebAssets.h"

namespace tamrik::serve {
namespace {

// Each open event stream holds a thread of the pool; the page opens one per viewer.
constexpr size_t kHttpThreads = 32;

void Reply(httplib::Response& response, int status, const Json& body) {
  response.status = status;
  response.set_content(body.dump(), "application/json");
}

int StatusOf(WriteOutcome::Kind kind) {
  switch (kind) {
    case WriteOutcome::Ok: return 200;
    case WriteOutcome::Malformed: return 400;
    case WriteOutcome::NotWritable: return 403;
    case WriteOutcome::DriverFailure: return 502;
  }
  return 500;
}

// Compares in time independent of where the texts differ.
bool SameSecret(const std::string& given, const std::string& token) {
  if (given.size() != token.size()) return false;
  unsigned char difference = 0;
  for (size_t i = 0; i < given.size(); ++i) difference |= uint8_t(given[i] ^ token[i]);
  return difference == 0;
}

}  // namespace

HttpServer::HttpServer(const HttpConfig& config, StateStore& store, std::vector<Poller*> pollers, const MqttBridge* mqtt)
    : config_(config), store_(store), pollers_(std::move(pollers)), mqtt_(mqtt),
      server_(std::make_unique<httplib::Server>()), events_(std::make_unique<EventHub>(store)) {
  server_->new_task_queue = [] { return new httplib::ThreadPool(kHttpThreads); };
  Routes();
}

HttpServer::~HttpServer() { Stop(); }

uint16_t HttpServer::Start() {
  int port = config_.port;
  if (port == 0) {
    port = server_->bind_to_any_port(config_.address);
    if (port <= 0) throw std::runtime_error("http: cannot listen on " + config_.address);
  } else if (!server_->bind_to_port(config_.address, port)) {
    throw std::runtime_error("http: cannot listen on " + config_.address + ":" + std::to_string(port));
  }
  thread_ = std::thread([this] { server_->listen_after_bind(); });
  return uint16_t(port);
}

void HttpServer::Stop() {
  events_->Close();
  server_->stop();
  if (thread_.joinable()) thread_.join();
}

bool HttpServer::Authorized(const std::string& path, const std::string& header, const std::string& query) const {
  if (config_.token.empty()) return true;
  if (path.rfind("/api", 0) != 0 && path.rfind("/metrics", 0) != 0) return true;
  const std::string bearer = "Bearer ";
  if (header.rfind(bearer, 0) == 0 && SameSecret(header.substr(bearer.size()), config_.token)) return true;
  return SameSecret(query, config_.token);
}

void HttpServer::Routes() {
  server_->set_pre_routing_handler([this](const httplib::Request& request, httplib::Response& response) {
    if (Authorized(request.path, request.get_header_value("Authorization"), request.get_param_value("token")))
      return httplib::Server::HandlerResponse::Unhandled;
    response.set_header("WWW-Authenticate", "Bearer");
    Reply(response, 401, {{"error", "a token is required: Authorization: Bearer TOKEN, or ?token=TOKEN"}});
    return httplib::Server::HandlerResponse::Handled;
  });
  ApiRoutes();
  server_->Get("/metrics", [this](const httplib::Request&, httplib::Response& response) {
    response.set_content(MetricsText(store_, mqtt_), "text/plain; version=0.0.4");
  });
  server_->Get("/api/events", [this](const httplib::Request& request, httplib::Response& response) {
    EventFilter filter;
    for (size_t i = 0; i < request.get_param_value_count("gateway"); ++i)
      filter.gateways.insert(request.get_param_value("gateway", i));
    std::string error;
    if (request.has_param("topics") && !ParseTopics(request.get_param_value("topics"), &filter.topics, &error)) {
      Reply(response, 400, {{"error", error}});
      return;
    }
    auto stream = events_->Open(std::move(filter));
    response.set_header("Cache-Control", "no-cache");
    response.set_chunked_content_provider(
        "text/event-stream", [stream](size_t, httplib::DataSink& sink) {
          const std::string chunk = stream->Next();
          return !chunk.empty() && sink.write(chunk.data(), chunk.size());
        },
        [this, stream](bool) { events_->Release(stream); });
  });
  server_->Get(R"(/.*)", [](const httplib::Request& request, httplib::Response& response) {
    const WebAsset* asset = FindWebAsset(request.path);
    if (asset == nullptr) {
      Reply(response, 404, {{"error", "nothing at " + request.path}});
      return;
    }
    response.set_content(std::string(asset->body), std::string(asset->contentType).c_str());
  });
}

void HttpServer::ApiRoutes() {
  server_->Get("/api/gateways", [this](const httplib::Request&, httplib::Response& response) {
    Json list = Json::array();
    for (size_t i = 0; i < store_.Size(); ++i) store_.Read(i, [&](const GatewayState& s) { list.push_back(SummaryJson(s)); });
    Reply(response, 200, {{"gateways", list}});
  });
  server_->Get(R"(/api/gateways/([A-Za-z0-9_-]+))", [this](const httplib::Request& request, httplib::Response& response) {
    const auto index = store_.Find(request.matches[1].str());
    if (!index) return Reply(response, 404, {{"error", "no gateway " + request.matches[1].str()}});
    Json detail;
    store_.Read(*index, [&](const GatewayState& s) { detail = DetailJson(s); });
    Reply(response, 200, detail);
  });
  server_->Post(R"(/api/gateways/([A-Za-z0-9_-]+)/outputs)",
                [this](const httplib::Request& request, httplib::Response& response) {
    const auto index = store_.Find(request.matches[1].str());
    if (!index) return Reply(response, 404, {{"error", "no gateway " + request.matches[1].str()}});
    const Json body = Json::parse(request.body, nullptr, false);
    const Json bytes = body.is_object() && body.contains("bytes") ? body["bytes"] : Json(nullptr);
    const WriteOutcome outcome = WriteOutputs(*pollers_[*index], bytes);
    Reply(response, StatusOf(outcome.kind), outcome.body);
  });
}

}  // namespace tamrik::serve
