// Scratch files of binary records. A record is an 8-byte length and then its fields; it is written and read as a unit.
// Reading goes through a large buffer. A torn frame, a foreign file or a short record reads as "false", never as a
// fault.
#pragma once
#include "support/seal.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace tarvex {

class record_writer {
public:
    record_writer() = default;
    ~record_writer();
    record_writer(const record_writer&) = delete;
    record_writer& operator=(const record_writer&) = delete;

    // Opens `name` for writing. With `final_on_close` the records go to a temporary name that takes the place of `name`
    // when close() is called, so that later runs never see a half-written file.
    bool open(const std::string& name, bool final_on_close = false);
    bool close();              // false if anything could not be written
    bool close(const seal& s); // the same with a seal behind the records; for files opened with `final_on_close`
    bool is_open() const { return file_ != nullptr; }

    // One record of the given fields: numbers, spans of numbers, or text (its bytes).
    template <class... F> void record(const F&... fields) {
        const std::uint64_t length = (std::uint64_t{0} + ... + bytes_of(fields));
        put(&length, sizeof length);
        (put_field(fields), ...);
    }

private:
    template <class T>
    requires std::is_arithmetic_v<T>
    static std::uint64_t bytes_of(const T&) { return sizeof(T); }
    template <class T> static std::uint64_t bytes_of(const std::span<T>& s) { return s.size_bytes(); }
    template <class T> static std::uint64_t bytes_of(const std::vector<T>& s) { return s.size() * sizeof(T); }
    static std::uint64_t bytes_of(const std::string& s) { return s.size(); }
    template <class T>
    requires std::is_arithmetic_v<T>
    void put_field(const T& x) { put(&x, sizeof x); }
    template <class T> void put_field(const std::span<T>& s) { put(s.data(), s.size_bytes()); }
    template <class T> void put_field(const std::vector<T>& s) { put(s.data(), s.size() * sizeof(T)); }
    void put_field(const std::string& s) { put(s.data(), s.size()); }
    void put(const void* p, std::size_t n) {
        if (buffer_.size() + n > capacity) flush();
        if (n > capacity) {
            write_through(p, n);
            return;
        }
        const auto* c = static_cast<const char*>(p);
        buffer_.insert(buffer_.end(), c, c + n);
    }
    void flush();
    void write_through(const void* p, std::size_t n);
    static constexpr std::size_t capacity = std::size_t{1} << 20;
    std::FILE* file_ = nullptr;
    std::vector<char> buffer_;
    std::string name_, temporary_;
    std::unique_ptr<digest_maker> content_; // of a file that later runs may take over
    bool good_ = true;
};

class record_reader {
public:
    record_reader() = default;
    ~record_reader() { close(); }
    record_reader(const record_reader&) = delete;
    record_reader& operator=(const record_reader&) = delete;

    [[nodiscard]] bool open(const std::string& name); // false if the file cannot be opened
    void close();
    bool is_open() const { return file_ != nullptr; }
    void rewind();                          // back to the first record
    bool failed() const { return failed_; } // the device could not be read: what looked like the end was none
    // Where the next record begins, and back there; false if the file is shorter.
    std::uint64_t position() const { return passed_; }
    [[nodiscard]] bool go_to(std::uint64_t position);

    // Goes to the next record; false at the end of the file or on a torn frame. Fields that the last one still held are
    // passed over.
    [[nodiscard]] bool next();
    // Takes the next field of the record; false when the record is too short for it.
    template <class T>
    requires std::is_arithmetic_v<T>
    [[nodiscard]] bool get(T& x) { return take(&x, sizeof x); }
    template <class T> [[nodiscard]] bool get(std::span<T> s) { return take(s.data(), s.size_bytes()); }
    [[nodiscard]] bool get(std::string& s) { return take(s.data(), s.size()); } // s.size() bytes
    std::uint64_t bytes_left() const { return left_; }                          // of the current record
    // Reads the next record whole: next() and all fields.
    template <class... F> [[nodiscard]] bool record(F&&... fields) { return next() && (get(fields) && ...); }

private:
    bool take(void* p, std::size_t n) {
        if (n > left_) return false;
        if (n <= end_ - at_) {
            if (n > 0) std::memcpy(p, buffer_.data() + at_, n);
            at_ += n;
            left_ -= n;
            return true;
        }
        return take_slow(p, n);
    }
    bool take_slow(void* p, std::size_t n);
    bool fill();
    static constexpr std::size_t capacity = std::size_t{1} << 20;
    std::FILE* file_ = nullptr;
    std::vector<char> buffer_;
    std::size_t at_ = 0, end_ = 0;
    bool failed_ = false;
    std::uint64_t left_ = 0, size_ = 0, passed_ = 0; // left in the record; file size; bytes of the file framed so far
};

bool file_exists(const std::string& name);

} // namespace tarvex
