#include "support/record_file.h"

#include <algorithm>
#include <filesystem>
#include <unistd.h>

namespace tarvex {

record_writer::~record_writer() {
    if (!file_) return;
    flush();
    std::fclose(file_);
    if (!temporary_.empty()) std::remove(temporary_.c_str()); // never completed
}

bool record_writer::open(const std::string& name, bool final_on_close) {
    if (file_) close();
    name_ = name;
    temporary_ = final_on_close ? name + ".tmp" : std::string();
    file_ = std::fopen((final_on_close ? temporary_ : name).c_str(), "wb");
    if (!file_) return false;
    // own buffers are larger: the library need not copy once more
    std::setvbuf(file_, nullptr, _IONBF, 0);
    buffer_.clear();
    content_ = final_on_close ? std::make_unique<digest_maker>() : nullptr;
    good_ = true;
    return true;
}

bool record_writer::close(const seal& s) {
    if (!file_ || !content_) return close();
    // the sum has to have seen all records
    flush();
    const std::string text = seal_text(s, *content_);
    content_.reset();
    write_through(text.data(), text.size());
    return close();
}

bool record_writer::close() {
    if (!file_) return false;
    flush();
    // the content reaches the disk before the name does
    if (!temporary_.empty() && good_ && fsync(fileno(file_)) != 0) good_ = false;
    if (std::fclose(file_) != 0) good_ = false;
    file_ = nullptr;
    if (!temporary_.empty()) {
        if (good_ && std::rename(temporary_.c_str(), name_.c_str()) != 0) good_ = false;
        if (!good_) std::remove(temporary_.c_str());
        temporary_.clear();
    }
    return good_;
}

void record_writer::flush() {
    write_through(buffer_.data(), buffer_.size());
    buffer_.clear();
}

void record_writer::write_through(const void* p, std::size_t n) {
    if (n == 0) return;
    // the sum grows with the file: no second pass over it
    if (content_) content_->bytes(p, n);
    if (std::fwrite(p, 1, n, file_) != n) good_ = false;
}

bool record_reader::open(const std::string& name) {
    close();
    std::error_code ec;
    if (!std::filesystem::is_regular_file(name, ec)) return false;
    file_ = std::fopen(name.c_str(), "rb");
    if (!file_) return false;
    std::setvbuf(file_, nullptr, _IONBF, 0);
    size_ = std::filesystem::file_size(name, ec);
    if (ec) size_ = 0;
    buffer_.resize(static_cast<std::size_t>(std::min<std::uint64_t>(capacity, std::max<std::uint64_t>(size_, 1))));
    failed_ = false;
    at_ = end_ = 0;
    left_ = passed_ = 0;
    return true;
}

void record_reader::close() {
    if (file_) std::fclose(file_);
    file_ = nullptr;
    at_ = end_ = 0;
    left_ = 0;
}

void record_reader::rewind() {
    if (!file_) return;
    std::rewind(file_);
    at_ = end_ = 0;
    left_ = passed_ = 0;
}

bool record_reader::go_to(std::uint64_t position) {
    if (!file_ || position > size_ || std::fseek(file_, static_cast<long>(position), SEEK_SET) != 0) return false;
    at_ = end_ = 0;
    left_ = 0;
    passed_ = position;
    return true;
}

bool record_reader::fill() {
    at_ = 0;
    end_ = std::fread(buffer_.data(), 1, buffer_.size(), file_);
    if (std::ferror(file_)) {
        failed_ = true;
        end_ = 0; // a part of a record is no record
    }
    return end_ > 0;
}

// The way over the end of the buffer.
bool record_reader::take_slow(void* p, std::size_t n) {
    auto* to = static_cast<char*>(p);
    left_ -= n;
    while (n > 0) {
        if (at_ == end_ && !fill()) return false;
        const std::size_t m = std::min(n, end_ - at_);
        std::memcpy(to, buffer_.data() + at_, m);
        at_ += m;
        to += m;
        n -= m;
    }
    return true;
}

bool record_reader::next() {
    if (!file_) return false;
    while (left_ > 0) { // pass over what was not taken
        if (left_ > end_ - at_) {
            left_ -= end_ - at_;
            at_ = end_;
            if (!fill()) return false;
        } else {
            at_ += left_;
            left_ = 0;
        }
    }
    // size_, of when the file was opened, bounds every length before it is believed
    if (passed_ + sizeof(std::uint64_t) > size_) return false;
    std::uint64_t length = 0;
    left_ = sizeof length;
    if (!take(&length, sizeof length)) return false;
    passed_ += sizeof length;
    if (length > size_ - passed_) return false; // the frame says more than the file holds
    passed_ += length;
    left_ = length;
    return true;
}

bool file_exists(const std::string& name) {
    std::error_code ec;
    return std::filesystem::exists(name, ec) && !std::filesystem::is_directory(name, ec);
}

} // namespace tarvex
