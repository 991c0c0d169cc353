// Text kept for a file another program holds.
#include "shared/held_file.h"

#include <algorithm>

namespace korva {

void HeldText::Hold(const std::string& piece) {
  if (text_.size() + piece.size() <= maxBytes_) {
    text_ += piece;
  } else if (!piece.empty()) {
    ++dropped_;
  }
}

std::size_t HeldText::lines() const { return static_cast<std::size_t>(std::count(text_.begin(), text_.end(), '\n')); }

void HeldText::Clear() {
  std::string().swap(text_);
  dropped_ = 0;
}

}  // namespace korva
