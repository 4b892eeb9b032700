// Which arrays are areas of their own, that go back to the system.
#include "support/freed_memory.h"

#include <gtest/gtest.h>
#include <malloc.h>
#include <vector>

namespace tarvex {
namespace {

#if !defined(__SANITIZE_ADDRESS__) // which has an allocator of its own
// Areas of their own that an array of so many bytes takes.
std::size_t areas_of(std::size_t bytes) {
    const std::size_t before = mallinfo2().hblks;
    const std::vector<char> array(bytes, 1);
    return mallinfo2().hblks - before;
}

// Left to itself the bound of the C library grows with what is freed.
TEST(freed_memory, large_arrays_are_returned_whatever_was_freed_before) {
    return_freed_memory();
    for (int k = 0; k < 3; ++k) EXPECT_EQ(areas_of(20'000'000), 1U);
}

TEST(freed_memory, work_space_of_evaluations_is_kept) {
    return_freed_memory();
    EXPECT_EQ(areas_of(900'000), 0U);
    EXPECT_EQ(areas_of(4'000'000), 1U);
    keep_freed_memory();
    EXPECT_EQ(areas_of(4'000'000), 0U);
    EXPECT_EQ(areas_of(20'000'000), 1U);
}
#endif

} // namespace
} // namespace tarvex
