#include "server/AmfWriting.h"

#include "server/AmfMarkers.h"

namespace orv::amf {

ClassName classNameOf(const KTDataArray& array) {
  IndexText indexText;
  if (array.keyText(0, indexText) != kClassKey) return {false, kPlainClass};
  return {true, array.valueAt(0).text()};
}

}  // namespace orv::amf
