// Builds an "onMetaData" anew, in the form in which the module writes it.

#pragma once

#include <vector>

#include "host/flv/Tags.h"
#include "server/KTCommand.h"

namespace orv::host {

inline constexpr char kMetadataName[] = "onMetaData";

// Whether `key` states what only holds of one whole file: its size, its index, its last tags. Keys are
// compared without regard to case.
bool isWholeFileKey(const KTString& key);

// Returns a number whose length in a message doesn't depend on its value: with AMF3, small whole ones are
// shorter unless forced to be doubles.
KTData fixedNumber(double value);

class MetadataWriter {
 public:
  // For a message of type 18 or 15, whose one argument is a container of this type.
  MetadataWriter(u8 messageType, u8 containerType);

  void add(orv::KeyView key, const KTData& value);
  // Returns the payload; empty if it is too big for a message.
  std::vector<u8> payload();

 private:
  const bool asArray_;
  KTCommand writer_;
};

}  // namespace orv::host
