#include "host/server/Viewing.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <boost/asio/write.hpp>

namespace orv::host {

namespace {

// A viewer has the server's patience to take this much.
constexpr std::size_t kSlice = 64 << 10;
// About what two pieces of a file take, the one that is sent and the next.
constexpr std::size_t kTwoPieces = 768 << 10;

}  // namespace

// A publisher that has only just come makes its file meanwhile.
void Viewing::begin() {
  ServerCore& core = client_->core;
  const bool waits = core.library.awaitBeginning(request_.name, [self = shared_from_this(), &core] {
    asio::post(core.network, [self] {
      self->client_->expectNothing();
      self->open();
    });
  });
  if (!waits) return open();
  client_->expectWithin(core.options.patience);
}

void Viewing::open() {
  ServerCore& core = client_->core;
  core.ask(
      request_.name, [&core, name = request_.name] { return core.library.open(name); },
      [self = shared_from_this()](auto file, auto refusal) {
        if (refusal) return self->client_->refuse(*refusal);
        self->file_ = std::move(*file);
        self->watchForLeaving();
        self->waitForFirst();
      });
}

// Of a live stream that has only just begun nothing is known yet.
void Viewing::waitForFirst() {
  whenReady(0, [](Viewing& self, const SharedFile::Next&) { self.start(); });
}

void Viewing::start() {
  client_->core.ask(
      request_.name, [file = file_, request = request_] { return file->start(request.from, request.to); },
      [self = shared_from_this()](auto start, auto refusal) {
        if (refusal) return self->client_->refuse(*refusal);
        self->sendHead(std::move(*start));
      });
}

void Viewing::sendHead(SharedFile::Start start) {
  position_ = start.place.position;
  skip_ = start.place.skip;
  end_ = start.end;
  prefix_ = fmt::format(
      "HTTP/1.{} 200 OK\r\nServer: flvhost\r\nContent-Type: video/x-flv\r\nCache-Control: no-store\r\n"
      "X-Content-Type-Options: nosniff\r\n{}\r\n",
      isChunked_ ? 1 : 0, isChunked_ ? "Transfer-Encoding: chunked\r\n" : "Connection: close\r\n");
  if (isHead_) {
    client_->expectWithin(client_->core.options.patience);
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

void Viewing::next() {
  whenReady(position_, [](Viewing& self, const SharedFile::Next& next) {
    if (next.piece) return self.take(next.piece);
    if (next.isFailed) return self.cut();
    self.end();
  });
}

// While it waits, what watches for the viewer's leaving alone keeps it alive.
template <class Then>
void Viewing::whenReady(i64 position, Then then) {
  const std::weak_ptr<Viewing> weak = weak_from_this();
  file_->next(position, {weak, [weak, then, &network = client_->core.network](SharedFile::Next next) {
                           asio::post(network, [weak, then, next = std::move(next)] {
                             const auto self = weak.lock();
                             if (self && !self->hasLeft_) then(*self, next);
                           });
                         }});
}

// While a piece is sent the next one is loaded, if the cache has room for it until it is asked for. A small
// piece is a live stream's, with nothing behind it yet.
bool Viewing::loadsAhead(const Piece& piece) const {
  const ServerCore& core = client_->core;
  return piece.bytes.size() > kSlice && core.counters.viewers * kTwoPieces <= core.options.library.cacheBytes;
}

void Viewing::take(const PiecePtr& piece) {
  position_ = piece->next;
  if (loadsAhead(*piece)) file_->loadAhead(position_);
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

void Viewing::send(std::shared_ptr<const std::vector<u8>> bytes, std::size_t begin, std::size_t end) {
  if (begin == end && prefix_.empty()) return next();
  const std::size_t size = std::min(end - begin, kSlice);
  chunkHead_ = std::move(prefix_);
  prefix_.clear();
  if (isChunked_) chunkHead_ += fmt::format("{:x}\r\n", size);
  const std::array<asio::const_buffer, 3> buffers = {asio::buffer(chunkHead_),
                                                     asio::buffer(bytes->data() + begin, size),
                                                     asio::buffer("\r\n", isChunked_ ? 2 : 0)};
  client_->expectWithin(client_->core.options.patience);
  asio::async_write(client_->socket, buffers,
                    client_->bound([self = shared_from_this(), bytes, begin, end, size](error_code error,
                                                                                        std::size_t sent) {
                      self->client_->core.counters.bytesSent += sent;
                      if (error) {
                        self->hasLeft_ = true;
                        return self->client_->close();
                      }
                      self->send(bytes, begin + size, end);
                    }));
}

void Viewing::end() {
  if (!isChunked_) return client_->close();
  client_->expectWithin(client_->core.options.patience);
  asio::async_write(client_->socket, asio::buffer("0\r\n\r\n", 5),
                    client_->bound([self = shared_from_this()](error_code error, std::size_t) {
                      self->hasLeft_ = true;
                      error_code ignored;
                      self->client_->socket.cancel(ignored);
                      if (error) return self->client_->close();
                      self->client_->readRequest();
                    }));
}

// A chunked body that lacks its last chunk isn't taken for the whole.
void Viewing::cut() {
  hasLeft_ = true;
  client_->close();
}

// A viewer that waits for a live stream to grow is sent nothing for a while, so its leaving shows here alone.
void Viewing::watchForLeaving() {
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

}  // namespace orv::host
