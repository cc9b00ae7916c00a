// nginx with its RTMP module: takes published streams, plays them, and records what it got.
#pragma once

#include "process.h"
#include "temporary_folder.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

namespace peers {

/// A port of 127.0.0.1 that nobody listens on just now.
inline int find_free_port()
{
    const int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* any = reinterpret_cast<sockaddr*>(&address);
    const bool is_bound = bind(probe, any, size) == 0 && getsockname(probe, any, &size) == 0;
    close(probe);
    return is_bound ? ntohs(address.sin_port) : 0;
}

/// Its files lie in a folder of its own, which is removed with it. Two applications: "live" sends a player nothing
/// before the first key frame of the video, and records; "plain" sends what comes as it comes, sound first if need be.
class RtmpServer {
public:
    RtmpServer()
    {
        std::filesystem::create_directory(folder_.file("record"));
        // Another process may take the port between the look for it and the start.
        for (int attempt = 0; attempt < 5 && port_ == 0; ++attempt)
            start(find_free_port());
    }
    RtmpServer(const RtmpServer&) = delete;
    RtmpServer& operator=(const RtmpServer&) = delete;

    /// 0 when it did not start.
    int port() const { return port_; }
    /// @param application  "live" or "plain".
    std::string url(const std::string& application = "live") const
    {
        return "rtmp://127.0.0.1:" + std::to_string(port_) + "/" + application + "/test";
    }

    /// Waits until a client of this kind ("publish", "play", "disconnect") is told of in the log.
    bool wait_for(const std::string& event)
    {
        while (const std::optional<std::string> line = process_->read_line()) {
            if (line->find(" " + event) != std::string::npos) return true;
        }
        return false;
    }

    /// Falls silent, with its connections open, until it is resumed.
    void pause() { process_->pause(); }
    void resume() { process_->resume(); }

    /// Ends the server. @return the file of what was published to "live", once its publisher has gone.
    std::string take_recording()
    {
        if (!wait_for("disconnect")) return {};
        process_->terminate();
        process_->wait();
        return folder_.file("record/test.flv");
    }

private:
    void start(int port)
    {
        const std::string path = folder_.file("nginx.conf");
        // One process in the foreground: it keeps the user it was started by, and ends with the test.
        std::ofstream(path) << "load_module /usr/lib/nginx/modules/ngx_rtmp_module.so;\n"
                               "daemon off;\nmaster_process off;\n"
                               "error_log /dev/stdout info;\n"
                               "pid nginx.pid;\n"
                               "events { worker_connections 64; }\n"
                               "rtmp {\n access_log off;\n server {\n  listen 127.0.0.1:"
                            << port
                            << ";\n"
                               "  application live { live on; wait_key on; wait_video on;\n"
                               "   record all; record_path "
                            << folder_.file("record")
                            << "; record_max_size 100M; }\n"
                               "  application plain { live on; }\n }\n}\n";
        process_ = std::make_unique<ChildProcess>(std::vector<std::string>{
            "/usr/sbin/nginx", "-p", folder_.path().string(), "-c", path, "-e", folder_.file("start.log")});
        if (wait_for("using the")) port_ = port; // "using the "epoll" event method": it listens
    }

    velstream::testing::TemporaryFolder folder_;
    std::unique_ptr<ChildProcess> process_;
    int port_ = 0;
};

/// A camera that publishes an MP4 file to an RTMP server, at the speed of its frames and over and over again.
class RtmpPublisher : public ChildProcess {
public:
    RtmpPublisher(const std::string& file, const std::string& url)
        : ChildProcess({"ffmpeg", "-nostdin", "-v", "error", "-re", "-stream_loop", "-1", "-i", file, "-c", "copy",
                        "-f", "flv", url})
    {
    }
};

} // namespace peers
