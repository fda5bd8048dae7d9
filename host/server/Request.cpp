#include "host/server/Request.h"

#include <algorithm>

#include "host/text/TimeText.h"

namespace orv::host {

namespace {

constexpr std::size_t kMostName = 255;
constexpr int kMostParts = 8;
constexpr std::string_view kEnding = ".flv";
constexpr std::string_view kSummary = ".json";
constexpr std::string_view kSegments = "/segments.json";

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

std::optional<std::string> decoded(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out += text[i];
      continue;
    }
    if (text.size() - i < 3 || hexValue(text[i + 1]) < 0 || hexValue(text[i + 2]) < 0) return std::nullopt;
    out += static_cast<char>(hexValue(text[i + 1]) << 4 | hexValue(text[i + 2]));
    i += 2;
  }
  return out;
}

std::optional<ViewTime> readTime(std::string_view text) {
  const bool fromEnd = text.starts_with('-');
  const std::optional<u32> time = parseTime(fromEnd ? text.substr(1) : text);
  if (!time) return std::nullopt;
  return ViewTime{*time, fromEnd};
}

void readQuery(std::string_view query, ServerRequest& request) {
  while (!query.empty()) {
    const std::string_view pair = query.substr(0, query.find('&'));
    query.remove_prefix(std::min(pair.size() + 1, query.size()));
    const std::size_t equals = pair.find('=');
    if (equals == std::string_view::npos) continue;
    const std::string_view key = pair.substr(0, equals);
    const auto value = decoded(pair.substr(equals + 1));
    if (!value) {
      request.isBad = true;
    } else if (key == "token") {
      request.token = *value;
    } else if (key == "from" || key == "to") {
      const std::optional<ViewTime> time = readTime(*value);
      (key == "from" ? request.from : request.to) = time;
      request.isBad |= !time;
    }
  }
}

void readPath(std::string path, ServerRequest& request) {
  using Kind = ServerRequest::Kind;
  const auto media = [&](Kind kind, std::string name) {
    if (!isServedName(name)) return;
    request.kind = kind;
    request.name = std::move(name);
  };
  if (path == "/") {
    request.kind = Kind::page;
  } else if (path == "/page.js") {
    request.kind = Kind::script;
  } else if (path == "/mpegts.js") {
    request.kind = Kind::player;
  } else if (path == "/list.json") {
    request.kind = Kind::list;
  } else if (path == "/metrics") {
    request.kind = Kind::metrics;
  } else if (!path.starts_with('/')) {
    return;
  } else if (path.ends_with(kSegments)) {
    media(Kind::segments, path.substr(1, path.size() - 1 - kSegments.size()).append(kEnding));
  } else if (path.ends_with(kSummary)) {
    media(Kind::summary, path.substr(1, path.size() - 1 - kSummary.size()).append(kEnding));
  } else {
    media(Kind::media, path.substr(1));
  }
}

}  // namespace

bool isServedName(std::string_view name) {
  if (name.size() > kMostName || !name.ends_with(kEnding) || name.size() == kEnding.size()) return false;
  for (const char c : name) {
    if (static_cast<unsigned char>(c) < ' ' || c == '\x7f' || c == '\\') return false;
  }
  for (int parts = 1;; ++parts) {
    const std::string_view part = name.substr(0, name.find('/'));
    if (part.empty() || part.front() == '.' || parts > kMostParts) return false;
    if (part.size() == name.size()) return true;
    name.remove_prefix(part.size() + 1);
  }
}

ServerRequest readRequest(std::string_view target) {
  ServerRequest request;
  const std::size_t question = target.find('?');
  if (question != std::string_view::npos) readQuery(target.substr(question + 1), request);
  const auto path = decoded(target.substr(0, question));
  if (path) {
    readPath(*path, request);
  } else {
    request.isBad = true;
  }
  return request;
}

bool isSameSecret(std::string_view a, std::string_view b) {
  unsigned different = a.size() != b.size();
  for (std::size_t i = 0; i < a.size() && !b.empty(); ++i) {
    different |= static_cast<unsigned>(a[i] ^ b[i % b.size()]);
  }
  return different == 0;
}

}  // namespace orv::host
