// Pauses: bursts of 1 to 8 requests at an unmodified nginx, which closes idle connections after 1, 5 or 75 s,
// and the same bursts again after pauses around that limit. No request may fail.
//
//     zembra-lab-pauses
//
// Loopback only, under three minutes. nginx must be installed, whether it serves or not.

#include <array>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "support/POSTResult.h"

using namespace zembra;
using namespace std::chrono_literals;

namespace {

constexpr int kLargestBurst = 8;
constexpr std::chrono::milliseconds kAround[] = {-200ms, -20ms, 0ms, 20ms, 200ms};
constexpr int kPauses = 2;  // of each client

/// One of nginx's servers, and how requests to it ended.
struct Site {
    std::chrono::milliseconds limit;
    std::string port = {};
    std::atomic<int> all = 0;
    std::atomic<int> bad = 0;
};

/// nginx, serving on ports of the loopback interface that were free, from a folder of its own.
class NGINX {
public:
    explicit NGINX(std::array<Site, 3>& sites) {
        const auto certificate =
            sandbox::makeCertificate({"localhost", {"IP:127.0.0.1"}}, &test::testAuthority());
        std::ofstream(folder_ / "certificate") << certificate.pem;
        std::ofstream(folder_ / "key") << certificate.privateKey;
        std::ofstream configuration(folder_ / "configuration");
        configuration << "pid pid;\nevents { worker_connections 4096; }\nhttp {\naccess_log off;\n";
        for (const char* const kind : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"})
            configuration << kind << "_temp_path " << kind << ";\n";
        std::vector<std::unique_ptr<BIO, decltype(&::BIO_free_all)>> drawn;
        for (Site& site : sites) {
            BIO* const listener = drawn.emplace_back(::BIO_new_accept("127.0.0.1:0"), &::BIO_free_all).get();
            if (BIO_do_accept(listener) != 1) std::abort();
            site.port = BIO_get_accept_port(listener);
            configuration << "server { listen 127.0.0.1:" << site.port
                          << " ssl; ssl_certificate certificate; "
                          << "ssl_certificate_key key; keepalive_timeout " << site.limit.count() << "ms; "
                          << "default_type application/json; location / { return 200 '{}'; } }\n";
        }
        configuration << "}\n";
        configuration.close();
        drawn.clear();
        if (run("")) return;
        std::cerr << "nginx does not start; Debian's package is nginx-light.\n";
        std::exit(1);
    }

    ~NGINX() {
        run(" -s stop");
        while (std::filesystem::exists(folder_ / "pid"))
            std::this_thread::sleep_for(10ms);
        std::filesystem::remove_all(folder_);
    }

private:
    /// It returns once the servers listen.
    bool run(const std::string& option) const {
        const std::string folder = folder_.string();
        return std::system(("PATH=$PATH:/usr/sbin exec nginx -p " + folder +
                            " -c configuration -e error.log" + option)
                               .c_str()) == 0;
    }

    const std::filesystem::path folder_ = [] {
        std::string name = std::filesystem::temp_directory_path() / "zembra-lab-XXXXXX";
        if (!::mkdtemp(name.data())) std::abort();
        return name;
    }();
};

/// Makes so many requests at once, and counts how they end.
void perform(AFHTTPSessionManager& client, int burst, Site& site) {
    std::latch pending(burst);
    const auto end = [&](bool isBad) {
        ++site.all;
        if (isBad) ++site.bad;
        pending.count_down();
    };
    for (int request = 0; request < burst; ++request)
        client.POST(
            "token", Value::dictionary({{"name", "value"}}), nullptr, [&](auto&&...) { end(false); },
            [&](auto&&...) { end(true); });
    pending.wait();
}

}  // namespace

int main() {
    std::array<Site, 3> sites{{{1s}, {5s}, {75s}}};
    const NGINX server(sites);
    std::vector<std::jthread> threads;
    for (Site& site : sites)
        for (const auto around : kAround)
            for (int burst = 1; burst <= kLargestBurst; ++burst)
                threads.emplace_back([=, &site] {
                    const auto client = test::clientOf("https://127.0.0.1:" + site.port + '/');
                    client->setCompletionQueue([](const auto& task) { task(); });
                    perform(*client, burst, site);
                    for (int pause = 0; pause < kPauses; ++pause) {
                        std::this_thread::sleep_for(site.limit + around);
                        perform(*client, burst, site);
                    }
                });
    threads.clear();
    int bad = 0;
    for (const Site& site : sites) {
        std::cout << "idle connections closed after " << site.limit.count() << " ms: " << site.bad
                  << " bad of " << site.all << '\n';
        bad += site.bad;
    }
    return bad == 0 ? 0 : 1;
}
