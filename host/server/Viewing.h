// Media on their way to one client of the server.

#pragma once

#include "host/server/Client.h"
#include "host/server/SharedFile.h"

namespace orv::host {

// Piece by piece, as fast as the client takes them. Used by the network's thread alone.
class Viewing : public std::enable_shared_from_this<Viewing> {
 public:
  Viewing(std::shared_ptr<Client> client, ServerRequest request)
      : client_(std::move(client)), request_(std::move(request)) {
    ++client_->core.counters.viewers;
    const auto& asked = client_->parser->get();
    isChunked_ = asked.version() >= 11;
    isHead_ = asked.method() == http::verb::head;
  }
  ~Viewing() { --client_->core.counters.viewers; }

  void begin();

 private:
  void open();
  void waitForFirst();
  void start();
  void sendHead(SharedFile::Start start);
  template <class Then>
  void whenReady(i64 position, Then then);
  void next();
  bool loadsAhead(const Piece& piece) const;
  void take(const PiecePtr& piece);
  void send(std::shared_ptr<const std::vector<u8>> bytes, std::size_t begin, std::size_t end);
  void end();
  void cut();
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

}  // namespace orv::host
