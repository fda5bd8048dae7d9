#include "host/files/HttpRanges.h"

#include <fmt/format.h>
#include <strings.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstdlib>
#include <optional>
#include <string_view>
#include <thread>

#include "host/files/Curl.h"

namespace orv::host {

namespace {

constexpr long kMostRedirects = 5;
constexpr std::size_t kMostHeaderBytes = 64 << 10;  // Of all answers to one request, redirects included.
constexpr i64 kLargestObject = i64{1} << 60;

enum Status : long {
  kOk = 200,
  kPartial = 206,
  kNotModified = 304,
  kNotFound = 404,
  kGone = 410,
  kRangeNotSatisfiable = 416,
  kTooManyRequests = 429,
};

bool startsWithNoCase(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() && strncasecmp(text.data(), prefix.data(), prefix.size()) == 0;
}

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r\n";
  const std::size_t begin = text.find_first_not_of(kBlanks);
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

// Takes a number off the front of `text`; none if there is no number, or one above `kLargestObject`.
std::optional<i64> takeNumber(std::string_view& text) {
  i64 value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || value < 0 || value > kLargestObject) return std::nullopt;
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  return value;
}

bool takeText(std::string_view& text, std::string_view expected) {
  if (!startsWithNoCase(text, expected)) return false;
  text.remove_prefix(expected.size());
  return true;
}

// "bytes 0-99/1000", or "bytes */1000" where the range can't be had.
struct ContentRange {
  i64 first = -1;
  i64 last = -1;
  i64 total = -1;

  static std::optional<ContentRange> parse(std::string_view text) {
    ContentRange range;
    if (!takeText(text, "bytes ")) return std::nullopt;
    if (!takeText(text, "*")) {
      const auto first = takeNumber(text);
      if (!first || !takeText(text, "-")) return std::nullopt;
      const auto last = takeNumber(text);
      if (!last || *last < *first) return std::nullopt;
      range.first = *first;
      range.last = *last;
    }
    if (!takeText(text, "/")) return std::nullopt;
    if (text == "*") return range;
    const auto total = takeNumber(text);
    if (!total || !text.empty() || range.last >= *total) return std::nullopt;
    range.total = *total;
    return range;
  }
};

// A busy server, or one that stumbled.
bool isTransient(long status) {
  return status == kTooManyRequests || status == 500 || (status >= 502 && status <= 504);
}

bool isTransient(CURLcode code) {
  switch (code) {
    case CURLE_OPERATION_TIMEDOUT:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
      return true;
    default:
      return false;
  }
}

}  // namespace

std::string shownAddress(const std::string& url) {
  const std::size_t query = url.find_first_of("?#");
  return query == std::string::npos ? url : url.substr(0, query) + "?...";
}

// Connections live in the handles that made them, so idle ones are kept.
struct HttpRanges::Handles {
  Handles() = default;
  ~Handles() {
    for (CURL* const handle : idle) Curl::get().easy_cleanup(handle);
  }
  Handles(const Handles&) = delete;
  Handles& operator=(const Handles&) = delete;

  CURL* take() {
    {
      const std::lock_guard lock(mutex);
      if (!idle.empty()) {
        CURL* const handle = idle.back();
        idle.pop_back();
        return handle;
      }
    }
    CURL* const handle = Curl::get().easy_init();
    if (!handle) throw HttpFault("no memory for a connection", false);
    return handle;
  }
  void giveBack(CURL* handle) {
    Curl::get().easy_reset(handle);  // Options alone; its connections stay.
    const std::lock_guard lock(mutex);
    idle.push_back(handle);
  }

  std::mutex mutex;
  std::vector<CURL*> idle;  // Under mutex.
  std::atomic<u64> requests{0};
  std::atomic<u64> bytes{0};
};

// One request with what has come of it so far.
struct HttpRanges::Exchange {
  const std::string& url;
  const i64 position;
  const u32 size;
  const ObjectState* const known;

  long status = 0;
  ObjectState state;
  std::optional<ContentRange> range;
  bool isEncoded = false;
  bool isEmpty = false;
  std::optional<i64> retryAfter;  // Seconds.
  std::vector<u8> bytes;
  std::size_t headerBytes = 0;
  CURLcode code = CURLE_OK;
  std::string error;

  void clear() {
    status = 0;
    state = {};
    range.reset();
    isEncoded = false;
    isEmpty = false;
    retryAfter.reset();
    bytes.clear();
  }

  void header(std::string_view line) {
    if (startsWithNoCase(line, "HTTP/")) return clear();  // The next answer, behind a redirect.
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) return;
    const std::string_view name = line.substr(0, colon);
    const std::string_view value = trimmed(line.substr(colon + 1));
    const auto is = [&](std::string_view other) {
      return name.size() == other.size() && startsWithNoCase(name, other);
    };
    if (is("ETag")) state.etag = value;
    if (is("Last-Modified")) state.lastModified = value;
    if (is("Content-Range")) range = ContentRange::parse(value);
    if (is("Content-Length")) isEmpty = value == "0";
    if (is("Content-Encoding")) isEncoded = value != "identity";
    if (is("Retry-After")) {
      std::string_view rest = value;
      retryAfter = takeNumber(rest);
    }
  }

  static std::size_t onHeader(char* data, std::size_t, std::size_t size, void* self) {
    auto& exchange = *static_cast<Exchange*>(self);
    exchange.headerBytes += size;
    if (exchange.headerBytes > kMostHeaderBytes) return 0;
    exchange.header({data, size});
    return size;
  }

  // Only what was asked for is taken: anything else ends the transfer, however long it would go on.
  static std::size_t onBody(char* data, std::size_t, std::size_t size, void* self) {
    auto& exchange = *static_cast<Exchange*>(self);
    if (!exchange.range || size > exchange.size - exchange.bytes.size()) return 0;
    exchange.bytes.insert(exchange.bytes.end(), data, data + size);
    return size;
  }

  // A strong validator: with it, the server sends a range of the known object or reports that it has changed.
  std::string condition() const {
    if (!known) return {};
    if (!known->etag.empty() && !known->etag.starts_with("W/")) return "If-Range: " + known->etag;
    return {};
  }
};

HttpRanges::HttpRanges(HttpLimits limits) : limits_(limits), handles_(std::make_unique<Handles>()) {}
HttpRanges::~HttpRanges() = default;

u64 HttpRanges::requests() const {
  return handles_->requests;
}
u64 HttpRanges::bytesReceived() const {
  return handles_->bytes;
}

// True if the answer is final; false if it is worth asking again.
bool HttpRanges::attempt(Exchange& exchange) {
  struct Lease {
    Handles& handles;
    CURL* const handle = handles.take();
    curl_slist* headers = nullptr;
    ~Lease() {
      handles.giveBack(handle);
      Curl::get().slist_free_all(headers);
    }
  } lease{*handles_};
  const Curl& curl = Curl::get();
  const auto set = [&](CURLoption option, auto value) { curl.easy_setopt(lease.handle, option, value); };
  const bool isSecure = startsWithNoCase(exchange.url, "https:");
  const std::string range =
      fmt::format("{}-{}", exchange.position, exchange.position + std::max<i64>(exchange.size, 1) - 1);
  char reason[CURL_ERROR_SIZE] = "";
  exchange.clear();
  exchange.headerBytes = 0;

  set(CURLOPT_URL, exchange.url.c_str());
  set(CURLOPT_PROTOCOLS_STR, isSecure ? "https" : "http,https");
  set(CURLOPT_REDIR_PROTOCOLS_STR, isSecure ? "https" : "http,https");
  set(CURLOPT_FOLLOWLOCATION, 1L);
  set(CURLOPT_MAXREDIRS, kMostRedirects);
  set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
  set(CURLOPT_NETRC, static_cast<long>(CURL_NETRC_OPTIONAL));
  set(CURLOPT_NOSIGNAL, 1L);
  set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(limits_.connect.count()));
  set(CURLOPT_TIMEOUT_MS, static_cast<long>(limits_.request.count()));
  set(CURLOPT_USERAGENT, "flvhost");
  // As the curl program does; the library itself goes by the system's authorities alone.
  if (const char* const authorities = std::getenv("SSL_CERT_FILE"); authorities && *authorities) {
    set(CURLOPT_CAINFO, authorities);
  }
  set(CURLOPT_RANGE, range.c_str());
  set(CURLOPT_ERRORBUFFER, &reason[0]);
  set(CURLOPT_HEADERFUNCTION, &Exchange::onHeader);
  set(CURLOPT_HEADERDATA, &exchange);
  set(CURLOPT_WRITEFUNCTION, &Exchange::onBody);
  set(CURLOPT_WRITEDATA, &exchange);
  lease.headers = curl.slist_append(lease.headers, "Accept-Encoding: identity");
  if (const std::string condition = exchange.condition(); !condition.empty()) {
    lease.headers = curl.slist_append(lease.headers, condition.c_str());
  }
  set(CURLOPT_HTTPHEADER, lease.headers);

  exchange.code = curl.easy_perform(lease.handle);
  curl.easy_getinfo(lease.handle, CURLINFO_RESPONSE_CODE, &exchange.status);
  exchange.error = reason[0] ? reason : curl.easy_strerror(exchange.code);
  handles_->requests.fetch_add(1, std::memory_order_relaxed);
  handles_->bytes.fetch_add(exchange.bytes.size(), std::memory_order_relaxed);
  return !isTransient(exchange.code) && !(exchange.code == CURLE_OK && isTransient(exchange.status)) &&
         !(exchange.code == CURLE_WRITE_ERROR && isTransient(exchange.status));
}

// Throws what is wrong with the answer.
void HttpRanges::judge(Exchange& exchange) const {
  const long status = exchange.status;
  const auto fail = [](const std::string& text, bool isGone = false) { throw HttpFault(text, isGone); };
  if (exchange.headerBytes > kMostHeaderBytes) fail("the server sends headers without end");
  // An error's page is never taken in, which ends its transfer.
  const bool isCutShort = exchange.code == CURLE_WRITE_ERROR;
  if (exchange.code != CURLE_OK && !isCutShort) fail(exchange.error);
  if (status >= 400 && status != kRangeNotSatisfiable) {
    fail(fmt::format("the server answers {}", status), status == kNotFound || status == kGone);
  }
  if (status == kOk && exchange.isEmpty) {
    exchange.state.size = 0;
    return;
  }
  // Where the object was known, this is how a server says that it has become another.
  if (status == kOk && !exchange.condition().empty()) {
    exchange.state.size = -1;
    exchange.bytes.clear();
    return;
  }
  if (status == kOk) {
    fail(
        "the server does not send ranges (it answers 200 to a range request), so it cannot be read at any "
        "position");
  }
  if (status == kNotModified || (status != kPartial && status != kRangeNotSatisfiable)) {
    fail(fmt::format("the server answers {} to a range request", status));
  }
  if (exchange.isEncoded) fail("the server sends it compressed, so positions mean nothing");
  if (!exchange.range || exchange.range->total < 0) fail("the server does not say how long it is");
  exchange.state.size = exchange.range->total;
  if (status == kRangeNotSatisfiable) {
    exchange.bytes.clear();
    return;
  }
  const i64 wanted = std::min<i64>(exchange.size, exchange.state.size - exchange.position);
  const bool isRange = exchange.range->first == exchange.position &&
                       exchange.range->last - exchange.range->first + 1 == wanted;
  if (!isRange) fail("the server sends another range than the one asked for");
  if (isCutShort) fail("the server sends more than was asked for");
  if (static_cast<i64>(exchange.bytes.size()) != wanted) fail("the server sends less than it promised");
}

RangeAnswer HttpRanges::get(const std::string& url, i64 position, u32 size, const ObjectState* known) {
  if (url.substr(0, url.find('/', url.find("//") + 2)).find('@') != std::string::npos) {
    throw HttpFault("the address holds credentials; put them into ~/.netrc instead", false);
  }
  Exchange exchange{url, position, size, known, 0, {}, {}, false, false, {}, {}, 0, CURLE_OK, {}};
  auto pause = limits_.backOff;
  for (int tries = 0; !attempt(exchange) && tries < limits_.retries; ++tries, pause *= 2) {
    auto wait = pause;
    if (exchange.retryAfter) {
      wait = std::max(wait, std::chrono::milliseconds(std::min<i64>(*exchange.retryAfter, 1 << 20) * 1000));
    }
    if (wait > limits_.longestWait) break;
    std::this_thread::sleep_for(wait);
  }
  judge(exchange);
  return {std::move(exchange.state), std::move(exchange.bytes)};
}

}  // namespace orv::host
