// The sandbox program: a server until it is interrupted.

#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>

#include <ZembraSandbox/SandboxServer.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

namespace {

using zembra::sandbox::Exchange;
using zembra::sandbox::SandboxServer;

constexpr int kFailure = 1;
constexpr int kUsageFailure = 2;

constexpr std::string_view kUsage = R"(Usage: zembra-sandbox [--port N] [--ca-file PATH] [--help]

A stand-in for the platform's API on https://127.0.0.1. It prints its base address and the file with
its certificate authority, then a line for each request, tokens masked, until it gets SIGINT,
SIGTERM or SIGHUP.

  --port N        listen on this port; otherwise on a free one
  --ca-file PATH  write the certificate authority to this new file; otherwise to a temporary one.
                  The file is removed at the end
  --help          print this text

Exit status: 0 after such a signal or --help, 1 if the server cannot start, 2 for a wrong usage.

Well-known values and what they lead to:

)";

struct UsageFailure : std::runtime_error {
    using runtime_error::runtime_error;
};

struct Arguments {
    bool isHelp = false;
    std::uint16_t port = 0;
    std::optional<std::filesystem::path> authorityFile;
};

Arguments parsed(int count, char** texts) {
    Arguments arguments;
    for (int i = 1; i < count; ++i) {
        const std::string_view option = texts[i];
        const auto value = [&]() -> std::string_view {
            if (++i == count) throw UsageFailure(std::string(option) + " needs a value");
            return texts[i];
        };
        if (option == "--help") {
            arguments.isHelp = true;
        } else if (option == "--port") {
            const std::string_view text = value();
            const auto [end, error] = std::from_chars(text.begin(), text.end(), arguments.port);
            if (error != std::errc() || end != text.end() || arguments.port == 0) {
                throw UsageFailure("--port needs a number from 1 to 65535");
            }
        } else if (option == "--ca-file") {
            arguments.authorityFile = value();
        } else {
            throw UsageFailure("unknown argument " + std::string(option));
        }
    }
    return arguments;
}

/// The file with a server's certificate authority; it is removed at the end.
class AuthorityFile {
public:
    AuthorityFile(const SandboxServer& server, const std::optional<std::filesystem::path>& file)
        : path_(std::filesystem::absolute(file ? *file : temporaryFile(server))) {
        server.writeCertificateAuthority(path_);
    }
    ~AuthorityFile() {
        std::error_code ignored;
        std::filesystem::remove(path_, ignored);
    }
    AuthorityFile(const AuthorityFile&) = delete;
    AuthorityFile& operator=(const AuthorityFile&) = delete;

    const std::filesystem::path& path() const { return path_; }

private:
    // Not std::filesystem::temp_directory_path, whose failure names no folder.
    static std::filesystem::path temporaryFile(const SandboxServer& server) {
        const char* const folder = std::getenv("TMPDIR");
        return std::filesystem::path(folder != nullptr && *folder != '\0' ? folder : "/tmp") /
               ("zembra-sandbox-" + std::to_string(getpid()) + "-" + std::to_string(server.port()) + ".pem");
    }

    const std::filesystem::path path_;
};

void serve(const Arguments& arguments) {
    // The signals that end the program are for sigwait. Output that nobody reads is no reason to end.
    sigset_t ends;
    sigemptyset(&ends);
    for (const int end : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&ends, end);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);
    signal(SIGPIPE, SIG_IGN);

    const auto print = [](const std::string& text) { std::cout << text + "\n" << std::flush; };
    const SandboxServer server(
        {.port = arguments.port, .onExchange = [&](const Exchange& exchange) { print(exchange.line); }});
    const AuthorityFile file(server, arguments.authorityFile);
    print("Base address: " + server.baseAddress() + "\nCA file: " + file.path().string());
    int received = 0;
    sigwait(&ends, &received);
}

}  // namespace

int main(int count, char** texts) {
    try {
        const Arguments arguments = parsed(count, texts);
        if (arguments.isHelp) {
            std::cout << kUsage << SandboxServer::outcomeTables();
        } else {
            serve(arguments);
        }
        return EXIT_SUCCESS;
    } catch (const UsageFailure& failure) {
        std::cerr << "zembra-sandbox: " << failure.what() << "; see zembra-sandbox --help\n";
        return kUsageFailure;
    } catch (const std::exception& failure) {
        std::cerr << "zembra-sandbox: " << failure.what() << "\n";
        return kFailure;
    }
}
