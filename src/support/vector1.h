// Vectors that grow, with indices from 1 as those of array.h. Bounds are checked where TVX_BOUNDS is defined.
#pragma once
#include <cstddef>
#include <cstdlib>
#include <initializer_list>
#include <type_traits>
#include <utility>
#include <vector>

namespace tarvex {

template <class T> class vector1 {
    static_assert(!std::is_same_v<T, bool>, "flags are vector1<int>");

public:
    using index = std::ptrdiff_t;
    using value_type = T;
    using iterator = typename std::vector<T>::iterator;
    using const_iterator = typename std::vector<T>::const_iterator;

    vector1() = default;
    explicit vector1(index n, const T& value = T{}) : store_(length(n), value) {}
    vector1(std::initializer_list<T> values) : store_(values) {}

    T& operator()(index i) { return store_[place(i)]; }
    const T& operator()(index i) const { return store_[place(i)]; }
    T& front() { return (*this)(1); }
    const T& front() const { return (*this)(1); }
    T& back() { return (*this)(size()); }
    const T& back() const { return (*this)(size()); }

    index size() const { return static_cast<index>(store_.size()); } // the index of the last element
    bool empty() const { return store_.empty(); }
    void clear() { store_.clear(); }
    void resize(index n) { store_.resize(length(n)); }
    void assign(index n, const T& value) { store_.assign(length(n), value); }
    template <class I> void assign(I first, I last) requires(!std::is_arithmetic_v<I>) { store_.assign(first, last); }
    void push_back(T value) { store_.push_back(std::move(value)); }
    void erase(index i) { store_.erase(store_.begin() + static_cast<index>(place(i))); }
    void append(index n, const T& value) { store_.insert(store_.end(), length(n), value); }

    T* data() { return store_.data(); }
    const T* data() const { return store_.data(); }
    auto begin() { return store_.begin(); }
    auto end() { return store_.end(); }
    auto begin() const { return store_.begin(); }
    auto end() const { return store_.end(); }
    bool operator==(const vector1&) const = default;

private:
    static std::size_t length(index n) { return n > 0 ? n : 0; }
    std::size_t place(index i) const {
#ifdef TVX_BOUNDS
        if (i < 1 || i > size()) std::abort();
#endif
        return i - 1;
    }
    std::vector<T> store_;
};

} // namespace tarvex
