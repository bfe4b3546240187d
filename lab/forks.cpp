// Forks: children that are forked while I/O threads make connections. One of two does nothing but exit, the
// other makes a client and an exchange of its own first.
//
//     zembra-lab-forks [<forks, 3000 unless given>]
//
// Loopback only, a few minutes. The process that forks has the server's address and its authority's PEM text
// as arguments, too.

#include <cstdlib>
#include <string>

#include <unistd.h>

#include "Children.h"
#include "support/POSTResult.h"

using namespace zembra;

namespace {

constexpr int kClients = 4;  // each with an I/O thread

/// A client that makes one connection after another.
void connectForEver(AFHTTPSessionManager& client) {
    const auto again = [&client](auto&&...) { connectForEver(client); };
    client.POST("token", {}, nullptr, again, again);
}

}  // namespace

int main(int count, char** arguments) {
    const std::string forks = count > 1 ? arguments[1] : "3000";
    if (count < 4)
        return lab::runBesideServer(
            {arguments[0], forks}, test::answering("{}", std::string("Connection: close\r\n") + test::kJSON));

    const auto newClient = [&] {
        auto client = std::make_unique<AFHTTPSessionManager>(NSURL::URLWithString(arguments[2]));
        client->addTrustedCertificateAuthority(arguments[3]);
        return client;
    };
    std::vector<std::unique_ptr<AFHTTPSessionManager>> clients(kClients);
    for (auto& client : clients) {
        client = newClient();
        client->setCompletionQueue([](const auto& task) { task(); });
        for (int request = 0; request < 4; ++request)
            connectForEver(*client);
    }
    lab::Tally tally;
    for (int fork = 0; fork < std::stoi(forks); ++fork) {
        const bool makesExchange = fork % 2 != 0;
        const pid_t child = ::fork();
        if (child == -1) std::abort();
        if (child == 0) {
            const bool isRight = !makesExchange || test::performPOST(*newClient()).isSuccess();
            std::exit(isRight ? 0 : 1);
        }
        tally.add(makesExchange ? "an exchange of its own" : "exit alone", "fork " + std::to_string(fork),
                  lab::await(child));
    }
    return tally.print();
}
