#include "host/module/SetupList.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <sstream>

#include "host/files/OutputFile.h"
#include "host/text/Failure.h"

namespace orv::host {

namespace {

constexpr char kFirstLine[] = "flvhost set-ups 1";
constexpr std::size_t kMostText = 128 << 10;

std::string readText(const std::string& name) {
  const Descriptor file = Descriptor::open(name, O_RDONLY | O_NOFOLLOW);
  std::string text(kMostText + 1, '\0');
  text.resize(file ? readAt(file.get(), 0, text.data(), text.size()).bytes : 0);
  return text;
}

// Somebody's file that happens to bear the name stays.
bool mayBeReplaced(const std::string& name) {
  struct stat status {};
  if (::lstat(name.c_str(), &status) != 0) return errno == ENOENT;
  return S_ISREG(status.st_mode) && readText(name).starts_with(kFirstLine);
}

}  // namespace

std::string SetupList::text() const {
  std::string text = fmt::format("{}\ncovers {} {}\n", kFirstLine, from, to);
  for (const SetupPlace& p : places) {
    text += fmt::format("{} {} {} {} {}\n", p.position, p.time, p.size, p.type, p.codec);
  }
  return text;
}

std::optional<SetupList> SetupList::parse(const std::string& text) {
  std::istringstream in(text);
  SetupList list;
  std::string line, word;
  if (text.size() > kMostText || !std::getline(in, line) || line != kFirstLine) return std::nullopt;
  if (!(in >> word >> list.from >> list.to) || word != "covers" || list.from < 0) return std::nullopt;
  SetupPlace place{};
  i64 last = list.from - 1;
  for (unsigned type = 0; in >> place.position >> place.time >> place.size >> type >> place.codec;) {
    place.type = static_cast<u8>(type);
    const bool isSound = place.position > last && place.position < list.to && type <= 0xFF &&
                         place.size <= CodecSetups::kMostSize && list.places.size() < kMostPlaces;
    if (!isSound) return std::nullopt;
    last = place.position;
    list.places.push_back(place);
  }
  if (!in.eof() || list.places.empty()) return std::nullopt;
  return list;
}

std::optional<SetupList> SetupList::read(const std::string& media) {
  return parse(readText(fileFor(media)));
}

void SetupList::write(const std::string& media) const {
  const std::string name = fileFor(media), bytes = text();
  if (!mayBeReplaced(name)) throw hostFault(name + ": is not a list of set-ups; it is not replaced");
  OutputFile out(name, Existing::replace, FileIdentity{});
  out.write(bytes.data(), bytes.size());
  out.close();
}

void SetupList::remove(const std::string& media) {
  if (const std::string name = fileFor(media); mayBeReplaced(name)) ::unlink(name.c_str());
}

void SetupList::rename(const std::string& media, const std::string& newName) {
  const std::string from = fileFor(media), to = fileFor(newName);
  if (mayBeReplaced(from) && mayBeReplaced(to)) std::rename(from.c_str(), to.c_str());
}

std::optional<OwnedTag> readSetup(int fd, const SetupPlace& place) {
  if (place.size > CodecSetups::kMostSize) return std::nullopt;
  std::vector<u8> bytes(place.size + flv::kTagOverhead);
  if (readAt(fd, place.position, bytes.data(), bytes.size()).bytes < bytes.size()) return std::nullopt;
  const flv::TagHeader header{bytes.data()};
  const u8* const data = bytes.data() + flv::kTagHeaderSize;
  const Tag tag{header.typeByte(), header.time(), 0, data, header.dataSize()};
  if (tag.type != place.type || tag.time != place.time || tag.size != place.size ||
      flv::readU32(data + tag.size) != tag.size + flv::kTagHeaderSize ||
      CodecSetups::keyOf(tag) != place.key()) {
    return std::nullopt;
  }
  return OwnedTag(tag);
}

bool noteSetups(int fd, i64 end, CodecSetups& valid, SetupList& list) {
  std::vector<u8> front(flv::kTagHeaderSize + Tag::kFrontSize);
  std::vector<SetupPlace> found;
  i64 at = list.to;
  while (at < end) {
    const std::size_t held = readAt(fd, at, front.data(), front.size()).bytes;
    if (held < flv::kTagOverhead) return false;
    const flv::TagHeader header{front.data()};
    const i64 next = at + header.dataSize() + flv::kTagOverhead;
    if (next > end) return false;
    const Tag seen{header.typeByte(), header.time(), 0, front.data() + flv::kTagHeaderSize,
                   header.dataSize()};
    if (const auto key = CodecSetups::keyOf(seen)) {
      const SetupPlace place{at, seen.time, seen.size, seen.type, key->second};
      const auto tag = readSetup(fd, place);
      if (!tag) return false;
      if (valid.note(tag->view())) found.push_back(place);
    }
    at = next;
  }
  list.places.insert(list.places.end(), found.begin(), found.end());
  list.to = end;
  return true;
}

}  // namespace orv::host
