// Set of 64-bit codes that grows while the data are read: open addressing, sorted out at the end.
#pragma once
#include <algorithm>
#include <cstdint>
#include <vector>

namespace tarvex {

class code_set {
public:
    // True if the code was not in the set. INT64_MIN is kept for empty cells.
    bool insert(std::int64_t code) {
        if (code == last_) return false; // neighbouring records often share their codes
        last_ = code;
        if (2 * (count_ + 1) > cells_.size()) grow();
        return place(code);
    }
    std::int64_t size() const { return static_cast<std::int64_t>(count_); }
    std::vector<std::int64_t> sorted() const {
        std::vector<std::int64_t> list;
        list.reserve(count_);
        for (const auto code : cells_)
            if (code != empty) list.push_back(code);
        std::sort(list.begin(), list.end());
        return list;
    }

private:
    static constexpr std::int64_t empty = INT64_MIN;
    bool place(std::int64_t code) {
        const std::size_t mask = cells_.size() - 1;
        auto h = static_cast<std::uint64_t>(code) * 0x9e3779b97f4a7c15U;
        for (std::size_t i = static_cast<std::size_t>(h >> 20) & mask;; i = (i + 1) & mask) {
            if (cells_[i] == code) return false;
            if (cells_[i] != empty) continue;
            cells_[i] = code;
            ++count_;
            return true;
        }
    }
    void grow() {
        std::vector<std::int64_t> old(cells_.empty() ? 16 : 2 * cells_.size(), empty);
        old.swap(cells_);
        count_ = 0;
        for (const auto code : old)
            if (code != empty) place(code);
    }
    std::vector<std::int64_t> cells_;
    std::size_t count_ = 0;
    std::int64_t last_ = empty;
};

} // namespace tarvex
