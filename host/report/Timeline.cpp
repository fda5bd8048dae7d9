#include "host/report/Timeline.h"

namespace orv::host {

void Timeline::note(const Tag& tag, const std::optional<MediaHead>& head) {
  while (tag.time / stretchMs_ >= kMostStretches) halve();
  const std::size_t index = tag.time / stretchMs_;
  if (index >= stretches_.size()) stretches_.resize(index + 1);
  Stretch& stretch = stretches_[index];
  (tag.isVideo() ? stretch.video : tag.isAudio() ? stretch.audio : stretch.data) += tag.size;
  if (!head || !head->isKeyFrame) return;
  ++stretch.keyFrames;
  stretch.keyPlace = static_cast<double>(tag.time % stretchMs_) / static_cast<double>(stretchMs_);
}

void Timeline::halve() {
  for (std::size_t i = 0; i < stretches_.size(); ++i) {
    const Stretch part = stretches_[i];
    Stretch& whole = stretches_[i / 2];
    if (i % 2 == 0) whole = {};
    whole.video += part.video;
    whole.audio += part.audio;
    whole.data += part.data;
    whole.keyFrames += part.keyFrames;
    if (part.keyFrames > 0) whole.keyPlace = (part.keyPlace + static_cast<double>(i % 2)) / 2;
  }
  stretches_.resize((stretches_.size() + 1) / 2);
  stretchMs_ *= 2;
}

}  // namespace orv::host
