#include "host/server/Client.h"

#include <limits>
#include <nlohmann/json.hpp>

#include "host/module/FileSummary.h"
#include "host/module/SegmentWalk.h"
#include "host/server/Page.h"
#include "host/server/Publishing.h"
#include "host/server/Viewing.h"

namespace orv::host {

namespace {

constexpr u32 kMostHeaderBytes = 8 << 10;
constexpr std::chrono::seconds kHeaderTime{15};
constexpr std::chrono::seconds kDrainTime{2};
constexpr std::size_t kDrainStep = 64 << 10;
constexpr std::size_t kMostDrained = 4 << 20;

bool isLoopbackHost(std::string_view host) {
  if (host.starts_with("[::1]")) return true;
  host = host.substr(0, host.find(':'));
  return host == "localhost" || host.starts_with("127.");
}

}  // namespace

void Client::expectWithin(std::chrono::seconds time) {
  deadline_.expires_after(time);
  deadline_.async_wait([weak = weak_from_this()](error_code error) {
    const auto self = weak.lock();
    if (error || !self) return;
    ++self->core.counters.dropped;
    self->close();
  });
}

void Client::close() {
  error_code ignored;
  socket.close(ignored);
  deadline_.cancel();
}

void Client::readRequest() {
  parser.emplace();
  parser->header_limit(kMostHeaderBytes);
  parser->body_limit(std::numeric_limits<u64>::max());
  expectWithin(kHeaderTime);
  http::async_read_header(
      socket, buffer, *parser, bound([this](error_code error, std::size_t) {
        if (error == http::error::end_of_stream || error == asio::error::operation_aborted) {
          return close();
        }
        if (error) {
          parser.emplace();
          return refuse({http::status::bad_request, "the request cannot be read"});
        }
        dispatch();
      }));
}

void Client::answer(http::status status, const char* type, std::string body) {
  const auto& asked = parser ? parser->get() : http::request<http::buffer_body>{};
  const bool isHead = asked.method() == http::verb::head;
  response_ = {status, parser ? asked.version() : 11};
  // A body that nobody reads would be taken for the next request.
  response_.keep_alive(parser && parser->is_done() && asked.keep_alive() &&
                       status != http::status::bad_request);
  response_.set(http::field::server, "flvhost");
  response_.set(http::field::content_type, type);
  response_.set(http::field::cache_control, "no-store");
  response_.set("X-Content-Type-Options", "nosniff");
  response_.set("Content-Security-Policy",
                "default-src 'self'; style-src 'self' 'unsafe-inline'; img-src 'self' data:; media-src "
                "'self' blob:; worker-src blob:; "
                "frame-ancestors 'none'");
  response_.content_length(body.size());
  if (!isHead) response_.body() = std::move(body);
  expectWithin(core.options.patience);
  auto sent = bound([this](error_code error, std::size_t) {
    if (error) return close();
    if (response_.keep_alive()) return readRequest();
    socket.shutdown(tcp::socket::shutdown_send, error);
    buffer.clear();
    drain(kMostDrained);
  });
  if (!isHead) return http::async_write(socket, response_, std::move(sent));
  auto header = std::make_shared<http::response_serializer<http::string_body>>(response_);
  http::async_write_header(
      socket, *header,
      [sent = std::move(sent), header](error_code error, std::size_t size) mutable { sent(error, size); });
}

// Closing on bytes that weren't read would take the answer away from the client before it has read it.
void Client::drain(std::size_t most) {
  expectWithin(kDrainTime);
  socket.async_read_some(buffer.prepare(kDrainStep), bound([this, most](error_code error, std::size_t size) {
                           if (error || size >= most) return close();
                           drain(most - size);
                         }));
}

void Client::dispatch() {
  ++core.counters.requests;
  const auto& asked = parser->get();
  const auto host = asked[http::field::host];
  // A page of another site whose name was made to point here must not read what is served to this machine.
  if (socket.local_endpoint().address().is_loopback() && !host.empty() &&
      !isLoopbackHost({host.data(), host.size()})) {
    return refuse({http::status::forbidden, "this server answers at its own address only"});
  }
  const ServerRequest request = orv::host::readRequest({asked.target().data(), asked.target().size()});
  using Kind = ServerRequest::Kind;
  if (request.isBad)
    return refuse({http::status::bad_request, "the address holds a time or an escape that cannot be read"});
  if (asked.method() == http::verb::put || asked.method() == http::verb::post) return publish(request);
  if (asked.method() != http::verb::get && asked.method() != http::verb::head) {
    return refuse({http::status::method_not_allowed, "GET, HEAD, PUT and POST are served"});
  }
  switch (request.kind) {
    case Kind::page:
      return answer(http::status::ok, "text/html; charset=utf-8", kPage);
    case Kind::script:
      return answer(http::status::ok, "text/javascript; charset=utf-8", kPageScript);
    case Kind::player:
      if (core.player.empty()) return refuse({http::status::not_found, "no player was given (--player)"});
      return answer(http::status::ok, "text/javascript; charset=utf-8", core.player);
    case Kind::metrics:
      return answer(http::status::ok, "text/plain; version=0.0.4", core.metrics());
    case Kind::media:
      return std::make_shared<Viewing>(shared_from_this(), request)->begin();
    case Kind::list:
    case Kind::summary:
    case Kind::segments:
      return answerFile(request);
    case Kind::unknown:
      return refuse({http::status::not_found, "nothing of that name is served"});
  }
}

void Client::answerFile(const ServerRequest& request) {
  const auto work = [&library = core.library, request] {
    if (request.kind == ServerRequest::Kind::list) return jsonText(library.list());
    return library.open(request.name)->with([&](Stream& stream) {
      if (request.kind == ServerRequest::Kind::summary) {
        FileSummary summary = summarize(stream, Depth::front);
        summary.name = request.name;
        return jsonText(summaryJson(summary));
      }
      SegmentWalk walk(stream);
      auto list = nlohmann::ordered_json::array();
      while (const auto bounds = walk.next()) list.push_back(boundsJson(*bounds));
      return jsonText({{"file", request.name}, {"playableEnd", walk.end()}, {"segments", std::move(list)}});
    });
  };
  core.ask(request.name, work, [self = shared_from_this()](auto text, auto refusal) {
    if (refusal) return self->refuse(*refusal);
    self->answer(http::status::ok, "application/json", std::move(*text));
  });
}

std::optional<Refusal> Client::forbidsPublishing(const ServerRequest& request) const {
  const auto& asked = parser->get();
  if (!core.options.allowPublish) return Refusal{http::status::forbidden, "publishing is not allowed here"};
  if (request.kind != ServerRequest::Kind::media)
    return Refusal{http::status::not_found, "nothing can be published under this name"};
  // A page of another site must not make a browser write here.
  const auto origin = asked[http::field::origin];
  if (!origin.empty() && !origin.ends_with(std::string("://") + std::string(asked[http::field::host]))) {
    return Refusal{http::status::forbidden, "publishing from another site's page is not allowed"};
  }
  if (core.options.token.empty()) return std::nullopt;
  constexpr std::string_view kBearer = "Bearer ";
  const auto field = asked[http::field::authorization];
  std::string_view given(field.data(), field.size());
  given = given.starts_with(kBearer) ? given.substr(kBearer.size()) : std::string_view(request.token);
  if (isSameSecret(given, core.options.token)) return std::nullopt;
  return Refusal{http::status::unauthorized, "publishing needs the right token"};
}

void Client::publish(const ServerRequest& request) {
  if (const auto refusal = forbidsPublishing(request)) return refuse(*refusal);
  std::make_shared<Publishing>(shared_from_this(), request.name)->begin();
}

}  // namespace orv::host
