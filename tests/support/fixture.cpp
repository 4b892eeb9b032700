#include "support/fixture.h"

#include "support/screen.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sys/wait.h>
#include <unistd.h>

namespace tarvex {

void write_file(const std::string& name, std::string_view text) {
    std::ofstream out(name, std::ios::binary);
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
    EXPECT_TRUE(out.good()) << name;
}

std::string read_file(const std::string& name) {
    std::ifstream in(name, std::ios::binary);
    EXPECT_TRUE(in.good()) << "no file " << name;
    return {std::istreambuf_iterator<char>(in), {}};
}

program_result run_binary(const std::string& binary, const std::vector<std::string>& args) {
    std::vector<char*> list{const_cast<char*>(binary.c_str())};
    for (const auto& a : args) list.push_back(const_cast<char*>(a.c_str()));
    list.push_back(nullptr);
    int ends[2];
    if (pipe(ends) != 0) return {-1, "no pipe"};
    const pid_t child = fork();
    if (child == 0) {
        dup2(open("/dev/null", O_RDONLY), 0);
        dup2(ends[1], 1);
        dup2(ends[1], 2);
        close(ends[0]);
        close(ends[1]);
        execv(binary.c_str(), list.data());
        _exit(127);
    }
    close(ends[1]);
    program_result result{-1, {}};
    char buffer[4096];
    for (ssize_t n; (n = read(ends[0], buffer, sizeof buffer)) > 0;)
        result.output.append(buffer, static_cast<std::size_t>(n));
    close(ends[0]);
    int status = 0;
    if (child > 0 && waitpid(child, &status, 0) == child)
        result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

tarvex_test::tarvex_test() : before_(std::filesystem::current_path()) {
    std::string name = testing::TempDir() + "tvx_test_XXXXXX";
    if (!mkdtemp(name.data())) std::abort();
    directory_ = name;
    std::filesystem::current_path(directory_);
    screen().redirect(text_);
    new_analysis();
}

tarvex_test::~tarvex_test() {
    new_analysis();
    screen().redirect(std::cout);
    std::error_code ec;
    std::filesystem::current_path(before_, ec);
    std::filesystem::remove_all(directory_, ec);
}

void tarvex_test::TearDown() {
    if (HasFailure() && !text_.str().empty()) std::cerr << "--- screen ---\n" << text_.str() << "--------------\n";
}

} // namespace tarvex
