// Values by number, for tables in which millions of keys are looked up.
#pragma once
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace tarvex {

// Open addressing with linear steps (Knuth, The Art of Computer Programming, volume 3, section 6.4, algorithm L), at
// most half full; the key, times the golden ratio, gives the place. Keys are not 0, which marks a free place.
template <class V> class hash_map {
public:
    // Value of the key, V() where it is new. Holds until the next new key.
    V& operator[](std::uint64_t key) {
        if (2 * used_ > slots_.size()) grow();
        slot& s = slots_[place(key)];
        if (s.key == 0) {
            s.key = key;
            ++used_;
        }
        return s.value;
    }

    std::size_t size() const { return used_; }

    // All keys with their values, in no order.
    template <class F> void each(F visit) const {
        for (const slot& s : slots_)
            if (s.key != 0) visit(s.key, s.value);
    }

private:
    struct slot {
        std::uint64_t key = 0;
        V value{};
    };

    // The place of the key, or the free one where it belongs.
    std::size_t place(std::uint64_t key) const {
        const std::size_t mask = slots_.size() - 1; // the size is a power of two
        std::size_t at = static_cast<std::size_t>((key * 0x9E3779B97F4A7C15U) >> 20) & mask;
        while (slots_[at].key != 0 && slots_[at].key != key) at = (at + 1) & mask;
        return at;
    }

    void grow() {
        const std::vector<slot> old = std::exchange(slots_, std::vector<slot>(2 * slots_.size()));
        for (const slot& s : old)
            if (s.key != 0) slots_[place(s.key)] = s;
    }

    std::vector<slot> slots_ = std::vector<slot>(1024);
    std::size_t used_ = 0;
};

} // namespace tarvex
