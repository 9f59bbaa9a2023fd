#pragma once

// An append-only text whose copies share one buffer. Appending is amortised O(1) and a
// copy is O(1): copies only ever read the prefix they were made with, which is never
// written again, so a copy may be read on another thread while the original grows.

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace osv {

class SharedText {
public:
    SharedText() = default;
    explicit SharedText(std::string_view text) { append(text); }

    void append(std::string_view more);
    std::string_view view() const { return buffer_ ? std::string_view(buffer_->data.get(), size_) : std::string_view(); }
    std::string str() const { return std::string(view()); }
    std::size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }

    friend bool operator==(const SharedText& a, const SharedText& b) { return a.view() == b.view(); }

private:
    struct Buffer {
        std::unique_ptr<char[]> data;
        std::size_t capacity = 0;
        // Bytes claimed by whichever copy appended last. A copy may append in place only
        // while its end is the frontier; any other copy moves to a buffer of its own.
        std::atomic<std::size_t> frontier{0};
    };

    std::shared_ptr<Buffer> buffer_;
    std::size_t size_ = 0;
};

}  // namespace osv
