// Reads byte ranges of objects on web servers, by the published HTTP range requests (RFC 9110, section 14).

#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/Types.h"

namespace orv::host {

// The address without what may be secret: its query. For messages.
std::string shownAddress(const std::string& url);

// Patience and bounds. The defaults are for people; tests take smaller ones.
struct HttpLimits {
  std::chrono::milliseconds connect{10'000};
  std::chrono::milliseconds request{60'000};      // From the first byte sent to the last one received.
  std::chrono::milliseconds backOff{250};         // Before the first retry; doubles with each further one.
  std::chrono::milliseconds longestWait{10'000};  // A server that asks for more is given up.
  int retries = 4;
};

// What tells two states of an object apart.
struct ObjectState {
  i64 size = -1;
  std::string etag;
  std::string lastModified;
  bool operator==(const ObjectState&) const = default;
};

struct RangeAnswer {
  ObjectState state;
  std::vector<u8> bytes;  // Starts at the position asked for.
};

// Why an object can't be read, in a few words.
class HttpFault : public std::runtime_error {
 public:
  HttpFault(const std::string& text, bool isGone) : std::runtime_error(text), isGone_(isGone) {}
  bool isGone() const { return isGone_; }  // The server is sure that there is no such object.

 private:
  bool isGone_;
};

// Asks again, with growing pauses, where a server is busy or a connection breaks. Keeps connections open and
// uses them again. Follows at most five redirects, never from https to http; takes credentials from the
// user's netrc file alone; always checks certificates. Safe from any thread.
class HttpRanges {
 public:
  explicit HttpRanges(HttpLimits limits = {});
  ~HttpRanges();

  // Up to `size` bytes from `position` on, fewer only where the object ends. `known` is what the object was
  // when last asked, or null: if it has become another since, `bytes` may be empty and `state` is the new one
  // (its size is -1 where the server doesn't say). Throws HttpFault.
  RangeAnswer get(const std::string& url, i64 position, u32 size, const ObjectState* known);

  u64 requests() const;
  u64 bytesReceived() const;  // Of bodies.

 private:
  struct Handles;
  struct Exchange;

  bool attempt(Exchange& exchange);
  void judge(Exchange& exchange) const;

  const HttpLimits limits_;
  const std::unique_ptr<Handles> handles_;
};

}  // namespace orv::host
