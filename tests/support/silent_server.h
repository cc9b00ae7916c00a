// A server that is there and does nothing.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

namespace velstream::testing {

/// Takes connections on a free port of the loopback, as the kernel does, and never says a word.
class SilentServer {
public:
    SilentServer() : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto* any = reinterpret_cast<sockaddr*>(&address);
        if (bind(socket_, any, size) == 0 && listen(socket_, 8) == 0 && getsockname(socket_, any, &size) == 0)
            port_ = ntohs(address.sin_port);
    }
    ~SilentServer()
    {
        if (connection_ >= 0) close(connection_);
        close(socket_);
    }
    SilentServer(const SilentServer&) = delete;
    SilentServer& operator=(const SilentServer&) = delete;

    int port() const { return port_; }

    /// Waits for a client and its first words.
    bool take_request(std::chrono::milliseconds bound)
    {
        pollfd waited{socket_, POLLIN, 0};
        if (poll(&waited, 1, static_cast<int>(bound.count())) != 1) return false;
        connection_ = accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC);
        pollfd request{connection_, POLLIN, 0};
        return poll(&request, 1, static_cast<int>(bound.count())) == 1;
    }

private:
    int socket_;
    int connection_ = -1;
    int port_ = 0;
};

} // namespace velstream::testing
