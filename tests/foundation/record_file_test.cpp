// Scratch files: what is written comes back; torn, short and foreign files are "no match".
#include "support/record_file.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>

using namespace tarvex;

namespace {

class record_file : public testing::Test {
protected:
    void SetUp() override {
        name = testing::TempDir() + "tvx_records_" + testing::UnitTest::GetInstance()->current_test_info()->name();
        std::filesystem::remove(name);
    }
    void TearDown() override {
        std::filesystem::remove(name);
        std::filesystem::remove(name + ".tmp");
    }
    std::string bytes() const {
        std::ifstream in(name, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    void put_bytes(const std::string& s) const { std::ofstream(name, std::ios::binary) << s; }
    void write_three() const {
        record_writer out;
        ASSERT_TRUE(out.open(name));
        out.record(1, 2.5, std::string("weight"));
        out.record(std::vector<int>{1, 2, 3});
        out.record(9);
        ASSERT_TRUE(out.close());
    }
    std::string name;
};

} // namespace

TEST_F(record_file, gives_back_what_was_written) {
    write_three();
    record_reader in;
    ASSERT_TRUE(in.open(name));
    int i = 0;
    double x = 0;
    std::string text(6, ' ');
    ASSERT_TRUE(in.record(i, x, text));
    EXPECT_EQ(i, 1);
    EXPECT_EQ(x, 2.5);
    EXPECT_EQ(text, "weight");
    std::vector<int> v(3);
    ASSERT_TRUE(in.record(std::span<int>(v)));
    EXPECT_EQ(v, (std::vector<int>{1, 2, 3}));
    ASSERT_TRUE(in.record(i));
    EXPECT_EQ(i, 9);
    EXPECT_FALSE(in.next());
    EXPECT_FALSE(in.next());
}

TEST_F(record_file, fields_not_taken_are_passed_over) {
    write_three();
    record_reader in;
    ASSERT_TRUE(in.open(name));
    int i = 0;
    ASSERT_TRUE(in.record(i));
    EXPECT_EQ(in.bytes_left(), 14u);
    ASSERT_TRUE(in.next());
    ASSERT_TRUE(in.record(i));
    EXPECT_EQ(i, 9);
}

TEST_F(record_file, short_record_reads_as_false_and_leaves_the_next) {
    write_three();
    record_reader in;
    ASSERT_TRUE(in.open(name));
    ASSERT_TRUE(in.next());
    ASSERT_TRUE(in.next());
    std::vector<int> v(4);
    EXPECT_FALSE(in.get(std::span<int>(v)));
    int i = 0;
    ASSERT_TRUE(in.record(i));
    EXPECT_EQ(i, 9);
}

TEST_F(record_file, every_truncation_is_an_end) {
    write_three();
    const std::string all = bytes();
    for (std::size_t n = 0; n < all.size(); ++n) {
        put_bytes(all.substr(0, n));
        record_reader in;
        ASSERT_TRUE(in.open(name));
        int records = 0;
        while (in.next()) ++records;
        EXPECT_EQ(records, n < 26 ? 0 : n < 46 ? 1 : 2) << n;
    }
}

TEST_F(record_file, foreign_file_is_no_match) {
    put_bytes("This is a text and not a file of records at all.\n");
    record_reader in;
    ASSERT_TRUE(in.open(name));
    EXPECT_FALSE(in.next());
    put_bytes(std::string(64, '\xff'));
    ASSERT_TRUE(in.open(name));
    EXPECT_FALSE(in.next());
}

TEST_F(record_file, missing_file_and_directory_do_not_open) {
    record_reader in;
    EXPECT_FALSE(in.open(name));
    EXPECT_FALSE(in.open(testing::TempDir()));
    EXPECT_FALSE(in.next());
    EXPECT_FALSE(file_exists(name));
    EXPECT_FALSE(file_exists(testing::TempDir()));
    record_writer out;
    EXPECT_FALSE(out.open(testing::TempDir() + "no_such_directory/file"));
}

TEST_F(record_file, rewind_starts_again) {
    write_three();
    record_reader in;
    ASSERT_TRUE(in.open(name));
    while (in.next()) {
    }
    in.rewind();
    int i = 0;
    ASSERT_TRUE(in.record(i));
    EXPECT_EQ(i, 1);
    in.rewind();
    ASSERT_TRUE(in.record(i));
    EXPECT_EQ(i, 1);
}

TEST_F(record_file, records_larger_than_the_buffer) {
    std::vector<double> x(400001);
    for (std::size_t i = 0; i < x.size(); ++i) x[i] = static_cast<double>(i);
    record_writer out;
    ASSERT_TRUE(out.open(name));
    out.record(7);
    out.record(x);
    out.record(x, 8);
    out.record(9);
    ASSERT_TRUE(out.close());
    record_reader in;
    ASSERT_TRUE(in.open(name));
    int i = 0;
    ASSERT_TRUE(in.record(i));
    std::vector<double> y(x.size());
    ASSERT_TRUE(in.next());
    for (double& v : y) ASSERT_TRUE(in.get(v));
    EXPECT_EQ(x, y);
    EXPECT_FALSE(in.get(i));
    ASSERT_TRUE(in.next()); // not taken at all
    ASSERT_TRUE(in.record(i));
    EXPECT_EQ(i, 9);
    EXPECT_FALSE(in.next());
}

TEST_F(record_file, many_small_records_across_buffers) {
    record_writer out;
    ASSERT_TRUE(out.open(name));
    for (int i = 0; i < 100000; ++i) out.record(i, static_cast<double>(i) / 3);
    ASSERT_TRUE(out.close());
    record_reader in;
    ASSERT_TRUE(in.open(name));
    int n = 0, i = 0;
    double x = 0;
    while (in.record(i, x)) {
        ASSERT_EQ(i, n);
        ASSERT_EQ(x, static_cast<double>(n) / 3);
        ++n;
    }
    EXPECT_EQ(n, 100000);
}

TEST_F(record_file, final_name_appears_on_close_only) {
    {
        record_writer out;
        ASSERT_TRUE(out.open(name, true));
        out.record(1);
        EXPECT_FALSE(file_exists(name));
    } // given up
    EXPECT_FALSE(file_exists(name));
    EXPECT_FALSE(file_exists(name + ".tmp"));
    record_writer out;
    ASSERT_TRUE(out.open(name, true));
    out.record(1);
    ASSERT_TRUE(out.close());
    EXPECT_TRUE(file_exists(name));
    EXPECT_FALSE(file_exists(name + ".tmp"));
}

TEST_F(record_file, empty_records_and_empty_files) {
    record_writer out;
    ASSERT_TRUE(out.open(name));
    out.record();
    out.record(std::vector<double>{});
    out.record(4);
    ASSERT_TRUE(out.close());
    record_reader in;
    ASSERT_TRUE(in.open(name));
    ASSERT_TRUE(in.next());
    ASSERT_TRUE(in.next());
    EXPECT_EQ(in.bytes_left(), 0u);
    int i = 0;
    ASSERT_TRUE(in.record(i));
    EXPECT_EQ(i, 4);
    put_bytes("");
    ASSERT_TRUE(in.open(name));
    EXPECT_FALSE(in.next());
}
