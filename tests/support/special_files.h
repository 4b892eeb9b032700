// Files that are there but give trouble.
#pragma once
#include "support/fixture.h"

#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace tarvex {

// Makes a file that nobody, root included, can open: the name of a local socket in the working directory.
inline void write_unopenable(const std::string& name) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_LT(name.size(), sizeof(address.sun_path));
    std::memcpy(address.sun_path, name.data(), name.size());
    const int socket_number = socket(AF_UNIX, SOCK_STREAM, 0);
    EXPECT_EQ(bind(socket_number, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    close(socket_number);
}

} // namespace tarvex
