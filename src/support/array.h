// Arrays as the field's formulas write them: indices from 1, the first index running fastest in memory.
//
// array<T, rank, low> has `rank` dimensions; the last one may start at `low` instead of 1 (block 0 of the covariance
// arrays is the residual). allocate(n1, .., nr) takes the upper bound of each dimension and fills with T{}.
// Bounds are checked where TVX_BOUNDS is defined (debug and sanitizer builds).
#pragma once
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <span>
#include <vector>

namespace tarvex {

template <class T, int rank = 1, int low = 1> class array {
    static_assert(rank >= 1 && rank <= 4);
    static_assert(!std::is_same_v<T, bool>, "flags are array<int>");

public:
    using index = std::ptrdiff_t;

    // Bounds n (upper index of each dimension; a negative extent counts as 0). Throws std::bad_alloc.
    template <class... N> void allocate(N... n) {
        static_assert(sizeof...(N) == rank);
        const std::array<index, rank> up{static_cast<index>(n)...};
        index total = 1;
        for (int d = 0; d < rank; ++d) {
            index extent = up[d] - (d == rank - 1 ? low : 1) + 1;
            if (extent < 0) extent = 0;
            if (extent > 0 && total > PTRDIFF_MAX / static_cast<index>(sizeof(T)) / extent) throw std::bad_alloc();
            total *= extent;
        }
        std::vector<T>().swap(store_);
        store_.resize(total);
        upper_ = up;
        allocated_ = true;
    }
    void deallocate() {
        std::vector<T>().swap(store_);
        upper_ = {};
        allocated_ = false;
    }
    // Changes the upper bound of the last dimension, keeping the values in common; new ones are T{}.
    void resize(index n) {
        index stride = 1;
        for (int d = 0; d + 1 < rank; ++d) stride *= upper_[d];
        index extent = n - low + 1;
        store_.resize(extent > 0 ? extent * stride : 0);
        upper_[rank - 1] = n;
        allocated_ = true;
    }
    bool allocated() const { return allocated_; }
    index size() const { return static_cast<index>(store_.size()); }
    index upper(int d = 1) const { return upper_[d - 1]; }
    void fill(const T& v) { store_.assign(store_.size(), v); }

    T* data() { return store_.data(); }
    const T* data() const { return store_.data(); }
    auto begin() { return store_.begin(); }
    auto end() { return store_.end(); }
    auto begin() const { return store_.begin(); }
    auto end() const { return store_.end(); }
    // The first n elements in memory order.
    std::span<T> prefix(index n) { return {store_.data(), checked_length(n)}; }
    std::span<const T> prefix(index n) const { return {store_.data(), checked_length(n)}; }
    // Rank 2: column j, all rows.
    std::span<T> column(index j) { return std::span(store_.data() + column_offset(j), upper_[0]); }
    std::span<const T> column(index j) const { return std::span(store_.data() + column_offset(j), upper_[0]); }

    template <class... I> T& operator()(I... i) { return store_[offset(i...)]; }
    template <class... I> const T& operator()(I... i) const { return store_[offset(i...)]; }

private:
    std::size_t checked_length(index n) const {
#ifdef TVX_BOUNDS
        if (n < 0 || n > size()) std::abort();
#endif
        return n;
    }
    index column_offset(index j) const {
        static_assert(rank == 2);
#ifdef TVX_BOUNDS
        if (j < low || j > upper_[1]) std::abort();
#endif
        return (j - low) * upper_[0];
    }
    template <class... I> index offset(I... i) const {
        static_assert(sizeof...(I) == rank);
        const index at[rank] = {static_cast<index>(i)...};
        index place = 0;
        for (int d = rank - 1; d >= 0; --d) {
            const index first = d == rank - 1 ? low : 1;
#ifdef TVX_BOUNDS
            if (at[d] < first || at[d] > upper_[d]) std::abort();
#endif
            if (d == rank - 1)
                place = at[d] - first;
            else
                place = place * upper_[d] + at[d] - first;
        }
        return place;
    }
    std::vector<T> store_;
    std::array<index, rank> upper_{};
    bool allocated_ = false;
};

} // namespace tarvex
