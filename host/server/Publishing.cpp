#include "host/server/Publishing.h"

#include <boost/asio/write.hpp>
#include <utility>

namespace orv::host {

namespace {

constexpr std::size_t kBodyChunk = 256 << 10;

}  // namespace

Publishing::Publishing(std::shared_ptr<Client> client, std::string name)
    : client_(std::move(client)),
      name_(std::move(name)),
      chunk_(kBodyChunk),
      flushes_(client_->socket.get_executor()) {}

void Publishing::begin() {
  ServerCore& core = client_->core;
  // At once: whoever asks for the name from now on waits for its file.
  const auto claim = NameClaim::take(core.library, name_);
  if (!claim) {
    return client_->refuse({http::status::conflict, name_ + ": is being published by somebody else"});
  }
  core.ask(
      name_, [claim] { return std::make_shared<Publication>(claim); },
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

void Publishing::read() {
  auto& body = client_->parser->get().body();
  if (client_->parser->is_done()) return work(0, true);
  client_->parser->get().body().more = true;
  body.data = chunk_.data();
  body.size = chunk_.size();
  isReading_ = true;
  client_->expectWithin(client_->core.options.patience);
  armFlush();
  http::async_read_some(
      client_->socket, client_->buffer, *client_->parser,
      client_->bound([self = shared_from_this()](error_code error, std::size_t) { self->took(error); }));
}

void Publishing::took(error_code error) {
  isReading_ = false;
  const std::size_t size = chunk_.size() - client_->parser->get().body().size;
  if (error == http::error::need_buffer) error = {};
  client_->core.counters.bytesPublished += size;
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

void Publishing::work(std::size_t size, bool isLast) {
  isWorking_ = true;
  const auto job = [this, size, isLast] {
    if (size > 0) publication_->take(chunk_.data(), size);
    if (!isLast) return std::string();
    return publication_->finish();
  };
  client_->core.ask(name_, job, [self = shared_from_this(), isLast](auto summary, auto refusal) {
    self->worked(refusal, summary.value_or(""), isLast);
  });
}

void Publishing::worked(const std::optional<Refusal>& refusal, std::string summary, bool isLast) {
  isWorking_ = false;
  if (refusal || isLast) {
    // Its file is closed before its publisher gets an answer, and not on the network's thread.
    client_->core.ask(
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
void Publishing::armFlush() {
  const auto wait = publication_->untilFlush();
  if (!wait) return;
  flushes_.expires_after(*wait);
  flushes_.async_wait([self = shared_from_this()](error_code error) {
    if (error || self->isWorking_ || !self->isReading_) return;
    self->isWorking_ = true;
    self->client_->core.ask(
        self->name_, [publication = self->publication_] { return publication->flushIfDue(), std::string(); },
        [self](auto, auto refusal) { self->worked(refusal, {}, false); });
  });
}

}  // namespace orv::host
