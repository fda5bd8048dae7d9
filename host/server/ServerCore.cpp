#include "host/server/ServerCore.h"

#include <fmt/format.h>

#include <algorithm>

#include "host/text/Console.h"
#include "host/text/Failure.h"

namespace orv::host {

namespace {

// Native paths are nobody's business.
std::string withoutPath(std::string text, const std::string& path, const std::string& name) {
  for (std::size_t at; !path.empty() && (at = text.find(path)) != std::string::npos;) {
    text.replace(at, path.size(), name);
  }
  return text;
}

}  // namespace

ServerCore::ServerCore(ServerOptions given)
    : options(std::move(given)),
      library(options.library, [this](std::function<void()> work) { asio::post(pool, std::move(work)); }),
      pool(std::max(1u, options.moduleThreads)) {}

Refusal ServerCore::refusalNow(const std::string& name) const {
  try {
    throw;
  } catch (const NotServed&) {
    return {http::status::not_found, "nothing of that name is served"};
  } catch (const Failure& failure) {
    const bool isFiles = failure.code() == ExitCode::fileFault;
    return {isFiles ? http::status::unprocessable_entity : http::status::internal_server_error,
            withoutPath(failure.what(), library.nativeName(name), name)};
  } catch (const std::exception& fault) {
    report(fmt::format("{}: {}", name, fault.what()));
    return {http::status::internal_server_error, "the server failed"};
  }
}

std::string ServerCore::metrics() const {
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
  add("published_damages_total", "counter", "Byte runs of publishers' streams in which no tag was found.",
      library.streamFaults().damaged);
  add("published_lost_bytes_total", "counter", "Bytes of publishers' streams that belong to no whole tag.",
      library.streamFaults().lostBytes);
  add("cache_bytes", "gauge", "Memory of loaded segments.", library.cache().memory());
  add("module_bytes", "gauge", "Memory that the module holds for files with loaded segments.",
      library.cache().overhead());
  add("damaged_total", "counter", "Byte runs of files that could not be loaded whole.",
      library.faults().damaged);
  add("recovered_tags_total", "counter", "Tags found behind damage.", library.faults().recovered);
  add("failed_loads_total", "counter", "Loads that failed and ended a stream.", library.faults().failed);
  add("cache_hits_total", "counter", "Segments found in memory.", library.cache().hits());
  add("cache_misses_total", "counter", "Segments that had to be loaded.", library.cache().misses());
  return text;
}

}  // namespace orv::host
