#include "support/Module.h"

#include <dlfcn.h>

#include <stdexcept>

namespace orv::test {

Module::Module(const char* path) : library_(dlopen(path, RTLD_NOW | RTLD_LOCAL)) {
  if (!library_) throw std::runtime_error(dlerror());
}

Module::~Module() {
  dlclose(library_);
}

std::unique_ptr<IQVStreamAdaptor> Module::create(IQVStreamContext& context) const {
  const auto factory = reinterpret_cast<decltype(&IQVCreateAdaptor)>(dlsym(library_, "IQVCreateAdaptor"));
  IQVStreamAdaptor* adaptor = nullptr;
  if (!factory || factory(&context, &adaptor) != 1) throw std::runtime_error("no adaptor");
  return std::unique_ptr<IQVStreamAdaptor>(adaptor);
}

Stream::Stream(IQVStreamAdaptor& theAdaptor, const std::string& path, Mode mode, void* backup)
    : adaptor(theAdaptor) {
  adaptor.open(path.c_str(), mode, backup, handle);
}

std::optional<SegmentBounds> Stream::atTime(u32 time) {
  SegmentBounds bounds{};
  if (!adaptor.findSegmentByTime(handle, time, &bounds)) return {};
  return bounds;
}

std::optional<SegmentBounds> Stream::atPosition(i64 position) {
  SegmentBounds bounds{};
  if (!adaptor.findSegmentByIndex(handle, position, &bounds)) return {};
  return bounds;
}

std::vector<SegmentBounds> Stream::walk() {
  std::vector<SegmentBounds> segments;
  i64 next = 0;
  while (const auto found = atPosition(next)) {
    if (found->endPosition < next)
      throw std::runtime_error("a segment ends before the position it was asked for");
    segments.push_back(*found);
    next = found->endPosition + 1;
  }
  return segments;
}

std::optional<SegmentBounds> Stream::flush() {
  SegmentBounds bounds{};
  if (!adaptor.flushSegment(handle, &bounds)) return {};
  return bounds;
}

Bytes Stream::metadata() {
  Bytes body(65536);
  u32 size = static_cast<u32>(body.size());
  adaptor.getAttribute(handle, AttrMetaData, body.data(), size);
  body.resize(size);
  return body;
}

std::vector<Message> Stream::load(SegmentBounds bounds, bool* good) {
  CollectingHolder holder;
  const bool result = adaptor.loadSegment(handle, &bounds, &holder);
  if (good) *good = result;
  return holder.messages;
}

}  // namespace orv::test
