#pragma once

// An immutable-by-sharing list: copies are O(1) and share storage; changing one copy
// copies only the chunk touched and the chunk table, never the elements. Used where a
// long list is handed out as a value after every small change (snapshots of a session
// of hours), so that the cost of a change doesn't grow with the length of the list.

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <iterator>
#include <memory>
#include <vector>

namespace osv {

template <class T>
class PersistentList {
    static constexpr std::size_t kChunk = 32;  // chunks split when they reach 2 * kChunk

    using Element = std::shared_ptr<const T>;
    using Chunk = std::vector<Element>;
    struct Table {
        std::vector<std::shared_ptr<const Chunk>> chunks;
        std::vector<std::size_t> ends;  // ends[i]: elements in chunks 0..i
    };

public:
    PersistentList() = default;

    static PersistentList fromVector(std::vector<T> items) {
        PersistentList list;
        auto table = std::make_shared<Table>();
        std::size_t total = 0;
        for (std::size_t i = 0; i < items.size(); i += kChunk) {
            auto chunk = std::make_shared<Chunk>();
            const std::size_t end = std::min(items.size(), i + kChunk);
            chunk->reserve(end - i);
            for (std::size_t k = i; k < end; ++k)
                chunk->push_back(std::make_shared<const T>(std::move(items[k])));
            total += chunk->size();
            table->chunks.push_back(std::move(chunk));
            table->ends.push_back(total);
        }
        list.table_ = std::move(table);
        return list;
    }

    std::size_t size() const { return table_ && !table_->ends.empty() ? table_->ends.back() : 0; }
    bool empty() const { return size() == 0; }

    const T& operator[](std::size_t index) const {
        auto [chunk, offset] = locate(index);
        return *(*table_->chunks[chunk])[offset];
    }
    const T& back() const { return (*this)[size() - 1]; }

    void insert(std::size_t index, T value) {
        assert(index <= size());
        auto element = std::make_shared<const T>(std::move(value));
        auto table = std::make_shared<Table>(table_ ? *table_ : Table{});
        if (table->chunks.empty()) {
            table->chunks.push_back(std::make_shared<Chunk>(Chunk{std::move(element)}));
            table->ends.push_back(1);
            table_ = std::move(table);
            return;
        }
        // An index at the very end goes into the last chunk.
        std::size_t c = 0, offset = 0;
        if (index == size()) {
            c = table->chunks.size() - 1;
            offset = table->chunks[c]->size();
        } else {
            std::tie(c, offset) = locate(index);
        }
        auto chunk = std::make_shared<Chunk>(*table->chunks[c]);
        chunk->insert(chunk->begin() + std::ptrdiff_t(offset), std::move(element));
        for (std::size_t k = c; k < table->ends.size(); ++k) ++table->ends[k];
        if (chunk->size() >= 2 * kChunk) {
            auto tail = std::make_shared<Chunk>(chunk->begin() + kChunk, chunk->end());
            chunk->resize(kChunk);
            table->chunks[c] = std::move(chunk);
            table->chunks.insert(table->chunks.begin() + std::ptrdiff_t(c) + 1, std::move(tail));
            const std::size_t before = c == 0 ? 0 : table->ends[c - 1];
            table->ends.insert(table->ends.begin() + std::ptrdiff_t(c), before + kChunk);
        } else {
            table->chunks[c] = std::move(chunk);
        }
        table_ = std::move(table);
    }

    void pushBack(T value) { insert(size(), std::move(value)); }

    void replace(std::size_t index, T value) {
        auto [c, offset] = locate(index);
        auto table = std::make_shared<Table>(*table_);
        auto chunk = std::make_shared<Chunk>(*table->chunks[c]);
        (*chunk)[offset] = std::make_shared<const T>(std::move(value));
        table->chunks[c] = std::move(chunk);
        table_ = std::move(table);
    }

    std::vector<T> toVector() const {
        std::vector<T> out;
        out.reserve(size());
        for (const T& v : *this) out.push_back(v);
        return out;
    }

    class const_iterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = T;
        using difference_type = std::ptrdiff_t;
        using pointer = const T*;
        using reference = const T&;

        const_iterator() = default;
        const T& operator*() const { return *(*table_->chunks[chunk_])[offset_]; }
        const T* operator->() const { return &**this; }
        const_iterator& operator++() {
            if (++offset_ == table_->chunks[chunk_]->size()) {
                ++chunk_;
                offset_ = 0;
            }
            return *this;
        }
        const_iterator operator++(int) {
            auto copy = *this;
            ++*this;
            return copy;
        }
        bool operator==(const const_iterator& o) const {
            return chunk_ == o.chunk_ && offset_ == o.offset_;
        }

    private:
        friend class PersistentList;
        const_iterator(const Table* table, std::size_t chunk) : table_(table), chunk_(chunk) {}
        const Table* table_ = nullptr;
        std::size_t chunk_ = 0;
        std::size_t offset_ = 0;
    };

    const_iterator begin() const { return const_iterator(table_.get(), 0); }
    const_iterator end() const { return const_iterator(table_.get(), table_ ? table_->chunks.size() : 0); }

private:
    std::pair<std::size_t, std::size_t> locate(std::size_t index) const {
        assert(index < size());
        const auto& ends = table_->ends;
        const std::size_t c =
            std::size_t(std::upper_bound(ends.begin(), ends.end(), index) - ends.begin());
        const std::size_t before = c == 0 ? 0 : ends[c - 1];
        return {c, index - before};
    }

    std::shared_ptr<const Table> table_;
};

}  // namespace osv
