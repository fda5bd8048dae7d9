// A publisher's stream on its way from its connection into a file.

#pragma once

#include <boost/asio/steady_timer.hpp>

#include "host/server/Client.h"
#include "host/server/Publication.h"

namespace orv::host {

// Reads from the network and writes to the file take turns. Used by the network's thread, but for the
// publication's own calls.
class Publishing : public std::enable_shared_from_this<Publishing> {
 public:
  Publishing(std::shared_ptr<Client> client, std::string name);

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
  std::vector<u8> chunk_;
  asio::steady_timer flushes_;
  bool isWorking_ = false;
  bool isReading_ = false;
  std::optional<std::pair<std::size_t, bool>> pending_;  // What was read while work was under way.
};

}  // namespace orv::host
