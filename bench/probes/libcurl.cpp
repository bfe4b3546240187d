// A program linked to libcurl alone. Without arguments it does nothing; with the address of a sandbox and the
// file of its authority it makes one exchange and prints how long that took, in nanoseconds, from the
// process's first touch of the library on.

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

#include <curl/curl.h>

#include "BareClient.h"

int main(int count, char** arguments) {
    if (count < 3) return EXIT_SUCCESS;
    std::ifstream file(arguments[2]);
    const std::string authority(std::istreambuf_iterator<char>(file), {});

    const auto before = std::chrono::steady_clock::now();
    curl_global_init(CURL_GLOBAL_ALL);
    zembra::bench::BareClient client(std::string(arguments[1]) + "app/token", authority, {});
    if (!client.post("client_id=sandbox.demo&signature=com.example.host")) return EXIT_FAILURE;
    std::cout << std::chrono::nanoseconds(std::chrono::steady_clock::now() - before).count() << '\n';
}
