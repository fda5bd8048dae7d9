// AMF values as JSON that a person can read and that loses nothing.
//
// Numbers, booleans, texts and null stand for themselves; a whole number without a point is an AMF3 integer.
// All else is an object with a "type": "undefined", "date", "int64", "xml", "bytes" (hexadecimal), or a
// container, whose name sets AMF3's apart from AMF0's. A container's content is "values" if it is a plain
// list, "entries" if each key occurs once, else "pairs"; its class, if it has one, is "class". A container
// that is met again, perhaps inside itself, is shown as {"type": "reference", "to": n}, and the first time
// bears "id": n.

#pragma once

#include "host/flv/Tags.h"
#include "host/text/JsonWriter.h"

namespace orv::host {

// Write members into the object that was begun last. Of a data tag: "encoding", "name", "values", and "torn"
// if the payload ends inside a value. Of a tag that isn't data, or whose bytes are no AMF: "bytes".
void writePayload(const Tag& tag, JsonWriter& out);
// A single AMF0 value, or {"bytes"}.
void writeAmfValue(const std::vector<u8>& bytes, JsonWriter& out);

}  // namespace orv::host
