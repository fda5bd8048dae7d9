// The only source that includes Beast and Asio, which take long to compile.

#include "host/server/HttpServer.h"

#include <fmt/format.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <csignal>
#include <limits>
#include <nlohmann/json.hpp>

#include "host/files/ReadOnlyFile.h"
#include "host/module/FileSummary.h"
#include "host/module/SegmentWalk.h"
#include "host/server/Page.h"
#include "host/server/Publication.h"
#include "host/text/Console.h"
#include "host/text/Failure.h"

namespace orv::host {

namespace {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using tcp = asio::ip::tcp;
using boost::system::error_code;
using Clock = std::chrono::steady_clock;

constexpr u32 kMostHeaderBytes = 8 << 10;
constexpr std::size_t kBodyChunk = 256 << 10;
// A viewer has the server's patience to take this much.
constexpr std::size_t kSlice = 64 << 10;
constexpr std::chrono::seconds kHeaderTime{15};
constexpr std::chrono::seconds kDrainTime{2};
constexpr std::size_t kMostDrained = 4 << 20;
// How often files that somebody else records are looked at while viewers wait for them to grow.
constexpr std::chrono::milliseconds kLookEvery{100};

struct Counters {
  u64 connections = 0;  // Open.
  u64 viewers = 0;      // Being sent media.
  u64 requests = 0;
  u64 refused = 0;
  u64 dropped = 0;  // For want of patience.
  u64 bytesSent = 0;
  u64 bytesPublished = 0;
};

// What a request comes to if it can't be served.
struct Refusal {
  http::status status;
  std::string text;
};

// Native paths are nobody's business.
std::string withoutPath(std::string text, const std::string& path, const std::string& name) {
  for (std::size_t at; !path.empty() && (at = text.find(path)) != std::string::npos;) {
    text.replace(at, path.size(), name);
  }
  return text;
}

bool isLoopbackHost(std::string_view host) {
  if (host.starts_with("[::1]")) return true;
  host = host.substr(0, host.find(':'));
  return host == "localhost" || host.starts_with("127.");
}

}  // namespace

struct HttpServer::Inside {
  explicit Inside(ServerOptions given)
      : options(std::move(given)),
        pool(std::max(1u, options.moduleThreads)),
        library(options.library, [this](std::function<void()> work) { asio::post(pool, std::move(work)); }),
        acceptor(network),
        signals(network, SIGINT, SIGTERM),
        looks(network),
        pause(network) {}
  ~Inside() { pool.join(); }

  void listen();
  void accept();
  void lookAgain();
  // Does `work` where it may block; then calls `then` on the network's thread with its result, or with why
  // there is none.
  template <class Work, class Then>
  void ask(std::string name, Work work, Then then);
  std::string metrics() const;

  // What is under way on the network ends first, and its publications are flushed into the library then.
  const ServerOptions options;
  asio::thread_pool pool;
  Library library;
  Counters counters;  // Of the network's thread.
  asio::io_context network;
  tcp::acceptor acceptor;
  asio::signal_set signals;
  asio::steady_timer looks;
  asio::steady_timer pause;
  std::string player;
};

// A connection. Whatever is under way on it keeps it alive. Used by the network's thread alone.
class HttpServer::Client : public std::enable_shared_from_this<Client> {
 public:
  Client(Inside& of, tcp::socket connected)
      : inside(of), socket(std::move(connected)), deadline_(socket.get_executor()) {
    ++inside.counters.connections;
  }
  ~Client() { --inside.counters.connections; }

  void readRequest();
  void answer(http::status status, const char* type, std::string body);
  void refuse(const Refusal& refusal) {
    ++inside.counters.refused;
    answer(refusal.status, "text/plain; charset=utf-8", refusal.text + "\n");
  }
  // The connection ends if no one calls again in time.
  void expectWithin(std::chrono::seconds time);
  void expectNothing() { deadline_.cancel(); }
  void close();
  // For what was begun on the network's thread.
  template <class Handler>
  auto bound(Handler handler) {
    return [self = shared_from_this(), handler = std::move(handler)](error_code error,
                                                                     std::size_t size) mutable {
      self->expectNothing();
      handler(error, size);
    };
  }

  Inside& inside;
  tcp::socket socket;
  boost::beast::flat_buffer buffer;
  std::optional<http::request_parser<http::buffer_body>> parser;

 private:
  void drain(std::size_t most);
  void dispatch();
  void answerFile(const ServerRequest& request);
  void publish(const ServerRequest& request);
  std::optional<Refusal> forbidsPublishing(const ServerRequest& request) const;

  asio::steady_timer deadline_;
  http::response<http::string_body> response_;
};

// Media on their way to one client, piece by piece.
class HttpServer::Viewing : public std::enable_shared_from_this<Viewing> {
 public:
  Viewing(std::shared_ptr<Client> client, ServerRequest request)
      : client_(std::move(client)), request_(std::move(request)) {
    ++client_->inside.counters.viewers;
    const auto& asked = client_->parser->get();
    isChunked_ = asked.version() >= 11;
    isHead_ = asked.method() == http::verb::head;
  }
  ~Viewing() { --client_->inside.counters.viewers; }

  void begin();

 private:
  void waitForFirst();
  void start();
  void sendHead(SharedFile::Start start);
  template <class Then>
  void whenReady(i64 position, Then then);
  void next();
  void take(const PiecePtr& piece);
  void send(std::shared_ptr<const std::vector<u8>> bytes, std::size_t begin, std::size_t end);
  void end();
  void watchForLeaving();

  const std::shared_ptr<Client> client_;
  const ServerRequest request_;
  std::shared_ptr<SharedFile> file_;
  bool isChunked_;
  bool isHead_;
  bool hasLeft_ = false;
  i64 position_ = 0;
  u64 skip_ = 0;
  std::optional<u32> end_;
  std::string chunkHead_;
  std::string prefix_;
  char peeked_ = 0;
};

// A publisher's stream on its way into a file. Reads from the network and writes to the file take turns.
class HttpServer::Publishing : public std::enable_shared_from_this<Publishing> {
 public:
  Publishing(std::shared_ptr<Client> client, std::string name)
      : client_(std::move(client)), name_(std::move(name)), flushes_(client_->socket.get_executor()) {}

  void begin();

 private:
  void read();
  void took(error_code error);
  void work(std::size_t size, bool isLast);
  void worked(const std::optional<Refusal>& refusal, std::string summary, bool isLast);
  void armFlush();

  const std::shared_ptr<Client> client_;
  const std::string name_;
  std::shared_ptr<Publication> publication_;
  std::vector<u8> chunk_ = std::vector<u8>(kBodyChunk);
  asio::steady_timer flushes_;
  bool isWorking_ = false;
  bool isReading_ = false;
  std::optional<std::pair<std::size_t, bool>> pending_;  // What was read while work was under way.
};

// ---- The server

template <class Work, class Then>
void HttpServer::Inside::ask(std::string name, Work work, Then then) {
  asio::post(pool, [this, name = std::move(name), work = std::move(work), then = std::move(then)]() mutable {
    using Result = decltype(work());
    std::optional<Result> result;
    std::optional<Refusal> refusal;
    try {
      result = work();
    } catch (const NotServed&) {
      refusal = {http::status::not_found, "nothing of that name is served"};
    } catch (const AlreadyPublished&) {
      refusal = {http::status::conflict, name + ": is being published by somebody else"};
    } catch (const Failure& failure) {
      const bool isFiles = failure.code() == ExitCode::fileFault;
      const std::string path = library.nativeName(name);
      refusal = {isFiles ? http::status::unprocessable_entity : http::status::internal_server_error,
                 withoutPath(failure.what(), path, name)};
    } catch (const std::exception& fault) {
      tell(fmt::format("{}: {}", name, fault.what()));
      refusal = {http::status::internal_server_error, "the server failed"};
    }
    asio::post(network,
               [then = std::move(then), result = std::move(result), refusal = std::move(refusal)]() mutable {
                 then(std::move(result), std::move(refusal));
               });
  });
}

void HttpServer::Inside::listen() {
  error_code error;
  const auto address = asio::ip::make_address(options.address, error);
  if (error) throw hostFault(options.address + ": isn't an address to listen on");
  const tcp::endpoint endpoint(address, options.port);
  acceptor.open(endpoint.protocol());
  acceptor.set_option(tcp::acceptor::reuse_address(true));
  acceptor.bind(endpoint, error);
  if (!error) acceptor.listen(asio::socket_base::max_listen_connections, error);
  if (error) throw hostFault(fmt::format("{}:{}: {}", options.address, options.port, error.message()));
}

void HttpServer::Inside::accept() {
  acceptor.async_accept([this](error_code error, tcp::socket socket) {
    if (error == asio::error::operation_aborted) return;
    if (!error) {
      error_code ignored;
      socket.set_option(tcp::no_delay(true), ignored);
      const bool isFull = counters.connections >= options.mostConnections;
      const auto client = std::make_shared<Client>(*this, std::move(socket));
      if (isFull) {
        client->refuse({http::status::service_unavailable, "too many connections"});
      } else {
        client->readRequest();
      }
      return accept();
    }
    // Out of descriptors, perhaps: some will come back.
    pause.expires_after(kLookEvery);
    pause.async_wait([this](error_code) { accept(); });
  });
}

void HttpServer::Inside::lookAgain() {
  looks.expires_after(kLookEvery);
  looks.async_wait([this](error_code error) {
    if (error) return;
    asio::post(pool, [this] { library.wakeAll(); });
    lookAgain();
  });
}

std::string HttpServer::Inside::metrics() const {
  std::string text;
  const auto add = [&](const char* name, const char* kind, const char* help, u64 value) {
    text += fmt::format("# HELP flvhost_{0} {2}\n# TYPE flvhost_{0} {1}\nflvhost_{0} {3}\n", name, kind, help,
                        value);
  };
  add("connections", "gauge", "Open connections.", counters.connections);
  add("viewers", "gauge", "Viewers that media are sent to.", counters.viewers);
  add("publishers", "gauge", "Streams that are being published.", library.published().size());
  add("open_files", "gauge", "Files that are open for viewers.", library.openFiles());
  add("requests_total", "counter", "Requests.", counters.requests);
  add("refused_total", "counter", "Requests that were answered with an error.", counters.refused);
  add("dropped_total", "counter", "Clients that were dropped because they took or sent nothing.",
      counters.dropped);
  add("sent_bytes_total", "counter", "Bytes of media sent.", counters.bytesSent);
  add("published_bytes_total", "counter", "Bytes of media taken from publishers.", counters.bytesPublished);
  add("cache_bytes", "gauge", "Memory of loaded segments.", library.cache().memory());
  add("cache_hits_total", "counter", "Segments found in memory.", library.cache().hits());
  add("cache_misses_total", "counter", "Segments that had to be loaded.", library.cache().misses());
  return text;
}

// ---- A connection

void HttpServer::Client::expectWithin(std::chrono::seconds time) {
  deadline_.expires_after(time);
  deadline_.async_wait([weak = weak_from_this()](error_code error) {
    const auto self = weak.lock();
    if (error || !self) return;
    ++self->inside.counters.dropped;
    self->close();
  });
}

void HttpServer::Client::close() {
  error_code ignored;
  socket.close(ignored);
  deadline_.cancel();
}

void HttpServer::Client::readRequest() {
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
          return refuse({http::status::bad_request, "not a request that can be read"});
        }
        dispatch();
      }));
}

void HttpServer::Client::answer(http::status status, const char* type, std::string body) {
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
  expectWithin(inside.options.patience);
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
void HttpServer::Client::drain(std::size_t most) {
  expectWithin(kDrainTime);
  socket.async_read_some(buffer.prepare(kSlice), bound([this, most](error_code error, std::size_t size) {
                           if (error || size >= most) return close();
                           drain(most - size);
                         }));
}

void HttpServer::Client::dispatch() {
  ++inside.counters.requests;
  const auto& asked = parser->get();
  const auto host = asked[http::field::host];
  // A page of another site whose name was made to point here must not read what is served to this machine.
  if (socket.local_endpoint().address().is_loopback() && !host.empty() &&
      !isLoopbackHost({host.data(), host.size()})) {
    return refuse({http::status::forbidden, "this server answers to its own address alone"});
  }
  const ServerRequest request = orv::host::readRequest({asked.target().data(), asked.target().size()});
  using Kind = ServerRequest::Kind;
  if (request.isBad) return refuse({http::status::bad_request, "a time or an escape in it can't be read"});
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
      if (inside.player.empty()) return refuse({http::status::not_found, "no player was given (--player)"});
      return answer(http::status::ok, "text/javascript; charset=utf-8", inside.player);
    case Kind::metrics:
      return answer(http::status::ok, "text/plain; version=0.0.4", inside.metrics());
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

void HttpServer::Client::answerFile(const ServerRequest& request) {
  const auto work = [&library = inside.library, request] {
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
  inside.ask(request.name, work, [self = shared_from_this()](auto text, auto refusal) {
    if (refusal) return self->refuse(*refusal);
    self->answer(http::status::ok, "application/json", std::move(*text));
  });
}

std::optional<Refusal> HttpServer::Client::forbidsPublishing(const ServerRequest& request) const {
  const auto& asked = parser->get();
  if (!inside.options.allowPublish) return Refusal{http::status::forbidden, "publishing isn't allowed here"};
  if (request.kind != ServerRequest::Kind::media)
    return Refusal{http::status::not_found, "not a name to publish"};
  // A page of another site must not make a browser write here.
  const auto origin = asked[http::field::origin];
  if (!origin.empty() && !origin.ends_with(std::string("://") + std::string(asked[http::field::host]))) {
    return Refusal{http::status::forbidden, "publishing from another site's page isn't allowed"};
  }
  if (inside.options.token.empty()) return std::nullopt;
  constexpr std::string_view kBearer = "Bearer ";
  const auto field = asked[http::field::authorization];
  std::string_view given(field.data(), field.size());
  given = given.starts_with(kBearer) ? given.substr(kBearer.size()) : std::string_view(request.token);
  if (isSameSecret(given, inside.options.token)) return std::nullopt;
  return Refusal{http::status::unauthorized, "publishing needs the right token"};
}

void HttpServer::Client::publish(const ServerRequest& request) {
  if (const auto refusal = forbidsPublishing(request)) return refuse(*refusal);
  std::make_shared<Publishing>(shared_from_this(), request.name)->begin();
}

// ---- A viewer

void HttpServer::Viewing::begin() {
  Inside& inside = client_->inside;
  inside.ask(
      request_.name, [&inside, name = request_.name] { return inside.library.open(name); },
      [self = shared_from_this()](auto file, auto refusal) {
        if (refusal) return self->client_->refuse(*refusal);
        self->file_ = std::move(*file);
        self->watchForLeaving();
        self->waitForFirst();
      });
}

// Of a live stream that has only just begun nothing can be told yet.
void HttpServer::Viewing::waitForFirst() {
  whenReady(0, [](Viewing& self, const PiecePtr&) { self.start(); });
}

void HttpServer::Viewing::start() {
  client_->inside.ask(
      request_.name, [file = file_, request = request_] { return file->start(request.from, request.to); },
      [self = shared_from_this()](auto start, auto refusal) {
        if (refusal) return self->client_->refuse(*refusal);
        self->sendHead(std::move(*start));
      });
}

void HttpServer::Viewing::sendHead(SharedFile::Start start) {
  position_ = start.place.position;
  skip_ = start.place.skip;
  end_ = start.end;
  prefix_ = fmt::format(
      "HTTP/1.{} 200 OK\r\nServer: flvhost\r\nContent-Type: video/x-flv\r\nCache-Control: no-store\r\n"
      "X-Content-Type-Options: nosniff\r\n{}\r\n",
      isChunked_ ? 1 : 0, isChunked_ ? "Transfer-Encoding: chunked\r\n" : "Connection: close\r\n");
  if (isHead_) {
    client_->expectWithin(client_->inside.options.patience);
    return asio::async_write(client_->socket, asio::buffer(prefix_),
                             client_->bound([self = shared_from_this()](error_code error, std::size_t) {
                               if (error || !self->isChunked_) return self->client_->close();
                               self->hasLeft_ = true;
                               error_code ignored;
                               self->client_->socket.cancel(ignored);
                               self->client_->readRequest();
                             }));
  }
  auto head = std::make_shared<const std::vector<u8>>(std::move(start.head));
  send(head, 0, head->size());
}

void HttpServer::Viewing::next() {
  whenReady(position_, [](Viewing& self, const PiecePtr& piece) {
    if (!piece) return self.end();
    self.take(piece);
  });
}

// While it waits, what watches for the viewer's leaving alone keeps it alive.
template <class Then>
void HttpServer::Viewing::whenReady(i64 position, Then then) {
  const std::weak_ptr<Viewing> weak = weak_from_this();
  file_->next(position, {weak, [weak, then, &network = client_->inside.network](PiecePtr piece) {
                           asio::post(network, [weak, then, piece = std::move(piece)] {
                             const auto self = weak.lock();
                             if (self && !self->hasLeft_) then(*self, piece);
                           });
                         }});
}

void HttpServer::Viewing::take(const PiecePtr& piece) {
  position_ = piece->next;
  const std::size_t count = piece->marks.size();
  const std::size_t first = static_cast<std::size_t>(std::min<u64>(skip_, count));
  skip_ -= first;
  const std::size_t begin = first < count ? piece->marks[first].offset : piece->bytes.size();
  if (!end_) return send({piece, &piece->bytes}, begin, piece->bytes.size());

  auto kept = std::make_shared<std::vector<u8>>();
  for (std::size_t i = first; i < count; ++i) {
    if (piece->marks[i].time >= *end_) continue;
    const auto from = piece->bytes.begin() + static_cast<std::ptrdiff_t>(piece->marks[i].offset);
    const auto to = i + 1 < count
                        ? piece->bytes.begin() + static_cast<std::ptrdiff_t>(piece->marks[i + 1].offset)
                        : piece->bytes.end();
    kept->insert(kept->end(), from, to);
  }
  if (first < count && kept->empty()) return end();
  send(kept, 0, kept->size());
}

void HttpServer::Viewing::send(std::shared_ptr<const std::vector<u8>> bytes, std::size_t begin,
                               std::size_t end) {
  if (begin == end && prefix_.empty()) return next();
  const std::size_t size = std::min(end - begin, kSlice);
  chunkHead_ = std::move(prefix_);
  prefix_.clear();
  if (isChunked_) chunkHead_ += fmt::format("{:x}\r\n", size);
  const std::array<asio::const_buffer, 3> buffers = {asio::buffer(chunkHead_),
                                                     asio::buffer(bytes->data() + begin, size),
                                                     asio::buffer("\r\n", isChunked_ ? 2 : 0)};
  client_->expectWithin(client_->inside.options.patience);
  asio::async_write(client_->socket, buffers,
                    client_->bound([self = shared_from_this(), bytes, begin, end, size](error_code error,
                                                                                        std::size_t sent) {
                      self->client_->inside.counters.bytesSent += sent;
                      if (error) {
                        self->hasLeft_ = true;
                        return self->client_->close();
                      }
                      self->send(bytes, begin + size, end);
                    }));
}

void HttpServer::Viewing::end() {
  if (!isChunked_) return client_->close();
  client_->expectWithin(client_->inside.options.patience);
  asio::async_write(client_->socket, asio::buffer("0\r\n\r\n", 5),
                    client_->bound([self = shared_from_this()](error_code error, std::size_t) {
                      self->hasLeft_ = true;
                      error_code ignored;
                      self->client_->socket.cancel(ignored);
                      if (error) return self->client_->close();
                      self->client_->readRequest();
                    }));
}

// A viewer that waits for a live stream to grow is sent nothing for a while, so its leaving shows here alone.
void HttpServer::Viewing::watchForLeaving() {
  client_->socket.async_wait(tcp::socket::wait_read, [self = shared_from_this()](error_code error) {
    if (error || self->hasLeft_) return;
    error_code peekError;
    self->client_->socket.non_blocking(true);
    const std::size_t size =
        self->client_->socket.receive(asio::buffer(&self->peeked_, 1), tcp::socket::message_peek, peekError);
    if (size > 0) return;  // The next request, ahead of its time.
    self->hasLeft_ = true;
    self->client_->close();
  });
}

// ---- A publisher

void HttpServer::Publishing::begin() {
  Inside& inside = client_->inside;
  inside.ask(
      name_, [&inside, name = name_] { return std::make_shared<Publication>(inside.library, name); },
      [self = shared_from_this()](auto publication, auto refusal) {
        if (refusal) return self->client_->refuse(*refusal);
        self->publication_ = std::move(*publication);
        const auto expected = self->client_->parser->get()[http::field::expect];
        if (!boost::beast::iequals(expected, "100-continue")) return self->read();
        constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";
        asio::async_write(self->client_->socket, asio::buffer(kContinue),
                          self->client_->bound([self](error_code error, std::size_t) {
                            if (error) return self->client_->close();
                            self->read();
                          }));
      });
}

void HttpServer::Publishing::read() {
  auto& body = client_->parser->get().body();
  if (client_->parser->is_done()) return work(0, true);
  client_->parser->get().body().more = true;
  body.data = chunk_.data();
  body.size = chunk_.size();
  isReading_ = true;
  client_->expectWithin(client_->inside.options.patience);
  armFlush();
  http::async_read_some(
      client_->socket, client_->buffer, *client_->parser,
      client_->bound([self = shared_from_this()](error_code error, std::size_t) { self->took(error); }));
}

void HttpServer::Publishing::took(error_code error) {
  isReading_ = false;
  const std::size_t size = chunk_.size() - client_->parser->get().body().size;
  if (error == http::error::need_buffer) error = {};
  client_->inside.counters.bytesPublished += size;
  // A publisher that vanishes leaves what it sent.
  const bool isLast = error || client_->parser->is_done();
  flushes_.cancel();
  if (size == 0 && !isLast && !isWorking_) return read();
  if (isWorking_) {
    pending_ = {size, isLast};
  } else {
    work(size, isLast);
  }
}

void HttpServer::Publishing::work(std::size_t size, bool isLast) {
  isWorking_ = true;
  const auto job = [this, size, isLast] {
    if (size > 0) publication_->take(chunk_.data(), size);
    if (!isLast) return std::string();
    return publication_->finish();
  };
  client_->inside.ask(name_, job, [self = shared_from_this(), isLast](auto summary, auto refusal) {
    self->worked(refusal, summary.value_or(""), isLast);
  });
}

void HttpServer::Publishing::worked(const std::optional<Refusal>& refusal, std::string summary, bool isLast) {
  isWorking_ = false;
  if (refusal || isLast) {
    // Its file is closed before its publisher is told, and not on the network's thread.
    client_->inside.ask(
        name_, [publication = std::move(publication_)]() mutable { return publication.reset(), true; },
        [self = shared_from_this(), refusal, summary](auto, auto) {
          if (refusal) return self->client_->refuse(*refusal);
          self->client_->answer(http::status::ok, "text/plain; charset=utf-8", summary + "\n");
        });
    return;
  }
  if (pending_) {
    const auto [size, last] = *std::exchange(pending_, std::nullopt);
    return work(size, last);
  }
  if (!isReading_) read();
}

// What came is flushed in time also while nothing more comes.
void HttpServer::Publishing::armFlush() {
  const auto wait = publication_->untilFlush();
  if (!wait) return;
  flushes_.expires_after(*wait);
  flushes_.async_wait([self = shared_from_this()](error_code error) {
    if (error || self->isWorking_ || !self->isReading_) return;
    self->isWorking_ = true;
    self->client_->inside.ask(
        self->name_, [publication = self->publication_] { return publication->flushIfDue(), std::string(); },
        [self](auto, auto refusal) { self->worked(refusal, {}, false); });
  });
}

// ---- Outside

HttpServer::HttpServer(ServerOptions options) : inside_(std::make_unique<Inside>(std::move(options))) {
  if (!inside_->options.playerFile.empty()) {
    const ReadOnlyFile file(inside_->options.playerFile);
    const i64 size = checkReadable(inside_->options.playerFile).size;
    const std::vector<u8> bytes = file.read(0, static_cast<std::size_t>(std::min<i64>(size, 16 << 20)));
    inside_->player.assign(bytes.begin(), bytes.end());
  }
  inside_->listen();
}

HttpServer::~HttpServer() = default;

std::string HttpServer::address() const {
  const tcp::endpoint here = inside_->acceptor.local_endpoint();
  const std::string host = here.address().to_string();
  return fmt::format("http://{}:{}/", here.address().is_v6() ? "[" + host + "]" : host, here.port());
}

void HttpServer::run() {
  inside_->signals.async_wait([this](error_code error, int) {
    if (!error) inside_->network.stop();
  });
  inside_->accept();
  inside_->lookAgain();
  inside_->network.run();
}

void HttpServer::stop() {
  inside_->network.stop();
}

}  // namespace orv::host
