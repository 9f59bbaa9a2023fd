#include "core/SharedText.h"

#include <algorithm>
#include <cstring>

namespace osv {

void SharedText::append(std::string_view more) {
    if (more.empty()) return;
    if (buffer_ && size_ + more.size() <= buffer_->capacity) {
        std::size_t expected = size_;
        if (buffer_->frontier.compare_exchange_strong(expected, size_ + more.size())) {
            std::memcpy(buffer_->data.get() + size_, more.data(), more.size());
            size_ += more.size();
            return;
        }
    }
    auto grown = std::make_shared<Buffer>();
    grown->capacity = std::max<std::size_t>(64, 2 * (size_ + more.size()));
    grown->data = std::make_unique<char[]>(grown->capacity);
    if (size_ > 0) std::memcpy(grown->data.get(), buffer_->data.get(), size_);
    std::memcpy(grown->data.get() + size_, more.data(), more.size());
    size_ += more.size();
    grown->frontier.store(size_);
    buffer_ = std::move(grown);
}

}  // namespace osv
