// Sums over content, seals of scratch files, and files that are replaced as a whole.
#include "support/digest.h"
#include "support/fixture.h"
#include "support/record_file.h"
#include "support/replace_file.h"
#include "support/seal.h"

#include <filesystem>
#include <set>

namespace tarvex {
namespace {

class digest_test : public tarvex_test {
protected:
    static digest of(std::string_view text) {
        digest_maker sum;
        sum.bytes(text.data(), text.size());
        return sum.value();
    }
    static void make(const std::string& name, const digest& from, int records = 40) {
        record_writer out;
        ASSERT_TRUE(out.open(name, true));
        for (int i = 1; i <= records; ++i) out.record(i, 0.5 * i);
        ASSERT_TRUE(out.close({from, {3.0, 0.25}}));
    }
};

TEST_F(digest_test, published_value_of_nothing) { EXPECT_EQ(hex(of("")), "99aa06d3014798d86001c324468d497f"); }

TEST_F(digest_test, pieces_give_the_sum_of_the_whole) {
    const std::string text(3000, 'q');
    digest_maker sum;
    for (std::size_t at = 0; at < text.size(); at += 7)
        sum.bytes(text.data() + at, std::min<std::size_t>(7, 3000 - at));
    EXPECT_EQ(sum.value(), of(text));
}

TEST_F(digest_test, lists_are_told_apart) {
    std::set<std::string> all;
    for (const auto& lists :
         {std::vector<std::vector<int>>{{1, 2}, {3}}, {{1}, {2, 3}}, {{1, 2, 3}}, {{}, {1, 2, 3}}}) {
        digest_maker sum;
        for (const auto& list : lists) sum.add(list);
        all.insert(hex(sum.value()));
    }
    EXPECT_EQ(all.size(), 4u);
}

TEST_F(digest_test, text_and_back) {
    digest d{1, 2};
    const digest x = of("x");
    EXPECT_TRUE(from_hex(hex(x), d));
    EXPECT_EQ(d, x);
    for (const char* bad : {"", "12", "99aa06d3014798d86001c324468d497", "99aa06d3014798d86001c324468d497g",
                            "-9aa06d3014798d86001c324468d497f"})
        EXPECT_FALSE(from_hex(bad, d)) << bad;
    EXPECT_EQ(d, x);
}

TEST_F(digest_test, seal_is_the_end_of_the_records) {
    make("a.bin", of("source"));
    record_reader in;
    ASSERT_TRUE(in.open("a.bin"));
    int i = 0, n = 0;
    double x = 0.0;
    while (in.record(i, x)) ++n;
    EXPECT_EQ(n, 40);
    EXPECT_EQ(std::filesystem::file_size("a.bin"), 40 * (8 + 12) + seal_bytes);
    seal s;
    ASSERT_TRUE(read_seal("a.bin", s));
    EXPECT_EQ(s.made_from, of("source"));
    EXPECT_EQ(s.note[0], 3.0);
    EXPECT_EQ(s.note[1], 0.25);
    EXPECT_TRUE(sealed("a.bin", of("source")));
    EXPECT_FALSE(sealed("a.bin", of("other")));
    EXPECT_FALSE(sealed("none.bin", of("source")));
}

TEST_F(digest_test, any_bit_and_any_cut_breaks_the_seal) {
    make("a.bin", of("source"), 5);
    const std::string whole = read_file("a.bin");
    seal s;
    for (std::size_t byte = 0; byte < whole.size(); ++byte) {
        std::string spoilt = whole;
        spoilt[byte] = static_cast<char>(spoilt[byte] ^ (1 << (byte % 8)));
        write_file("a.bin", spoilt);
        EXPECT_FALSE(read_seal("a.bin", s)) << byte;
        write_file("a.bin", whole.substr(0, byte));
        EXPECT_FALSE(read_seal("a.bin", s)) << byte;
    }
    write_file("a.bin", whole + "x");
    EXPECT_FALSE(read_seal("a.bin", s));
    write_file("a.bin", whole);
    EXPECT_TRUE(read_seal("a.bin", s));
}

TEST_F(digest_test, file_is_replaced_as_a_whole_or_not_at_all) {
    EXPECT_TRUE(replace_file("a.txt", "first\n"));
    EXPECT_EQ(read_file("a.txt"), "first\n");
    std::filesystem::create_symlink("/dev/full", "a.txt.tmp");
    EXPECT_FALSE(replace_file("a.txt", "second\n"));
    EXPECT_EQ(read_file("a.txt"), "first\n");
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status("a.txt.tmp")));
    EXPECT_FALSE(replace_file("no/such/folder", "x"));
}

} // namespace
} // namespace tarvex
