// What happens once in a process, measured in many: its start, the first shared manager, the first exchange.

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <ZembraSandbox/SandboxServer.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace zembra::bench {
namespace {

using Clock = std::chrono::steady_clock;
using Nanoseconds = std::chrono::duration<double, std::nano>;

constexpr int kRounds = 20;
constexpr int kProcessesPerRound = 10;

/// What became of a process.
struct Outcome {
    Nanoseconds time;           // from its start to its end
    Nanoseconds processorTime;  // all of it
    std::string output;
};

Nanoseconds nanoseconds(const timeval& time) {
    return std::chrono::seconds(time.tv_sec) + std::chrono::microseconds(time.tv_usec);
}

/// Runs a program to its end. Throws where it does not end well.
Outcome run(std::vector<std::string> command) {
    std::vector<char*> arguments;
    for (std::string& argument : command)
        arguments.push_back(argument.data());
    arguments.push_back(nullptr);
    int channel[2];
    if (pipe2(channel, O_CLOEXEC) != 0) throw std::runtime_error("There is no pipe.");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, channel[1], STDOUT_FILENO);

    const auto before = Clock::now();
    pid_t process = -1;
    const int failure = posix_spawn(&process, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(channel[1]);
    int status = -1;
    rusage usage{};
    if (failure == 0) wait4(process, &status, 0, &usage);
    const auto after = Clock::now();

    char text[64];  // a number: it fits into the pipe before anyone reads it
    const ssize_t size = read(channel[0], text, sizeof text);
    close(channel[0]);
    if (status != 0) throw std::runtime_error(command[0] + " failed.");
    return {after - before, nanoseconds(usage.ru_utime) + nanoseconds(usage.ru_stime),
            std::string(text, static_cast<std::size_t>(size > 0 ? size : 0))};
}

/// Measures `command`: its whole run, or else the time that it prints.
void add(const std::string& name, const std::vector<std::string>& command, bool isWholeRun) {
    const auto body = [command, isWholeRun](benchmark::State& state) {
        Nanoseconds time{0};
        Nanoseconds processorTime{0};
        for ([[maybe_unused]] auto _ : state) {
            const Outcome outcome = run(command);
            const Nanoseconds elapsed = isWholeRun ? outcome.time : Nanoseconds(std::stod(outcome.output));
            time += elapsed;
            processorTime += outcome.processorTime;
            state.SetIterationTime(std::chrono::duration<double>(elapsed).count());
        }
        state.counters["time_ns"] = {time.count(), benchmark::Counter::kAvgIterations};
        if (isWholeRun)
            state.counters["cpu_ns"] = {processorTime.count(), benchmark::Counter::kAvgIterations};
    };
    benchmark::RegisterBenchmark(name.c_str(), body)
        ->Iterations(kProcessesPerRound)
        ->Repetitions(kRounds)
        ->UseManualTime()
        ->Unit(benchmark::kMicrosecond);
}

/// The sandbox's authority in a file.
class AuthorityFile {
public:
    explicit AuthorityFile(const sandbox::SandboxServer& server)
        : path_(std::filesystem::temp_directory_path() /
                ("zembra-authority-" + std::to_string(getpid()) + ".pem")) {
        server.writeCertificateAuthority(path_);
    }
    ~AuthorityFile() { std::filesystem::remove(path_); }
    AuthorityFile(const AuthorityFile&) = delete;
    AuthorityFile& operator=(const AuthorityFile&) = delete;

    std::string path() const { return path_; }

private:
    const std::filesystem::path path_;
};

int runBenchmarks(int count, char** arguments) {
    benchmark::Initialize(&count, arguments);
    if (benchmark::ReportUnrecognizedArguments(count, arguments)) return EXIT_FAILURE;
    const sandbox::SandboxServer server;
    const AuthorityFile authority(server);
    const std::string address = server.baseAddress();
    add("Start/empty", {ZEMBRA_START_EMPTY}, true);
    add("Start/libcurl", {ZEMBRA_START_LIBCURL}, true);
    add("Start/SDK", {ZEMBRA_START_SDK}, true);
    add("FirstSharedManager/SDK", {ZEMBRA_START_SDK, "shared-manager"}, false);
    add("FirstExchange/libcurl", {ZEMBRA_START_LIBCURL, address, authority.path()}, false);
    add("FirstExchange/SDK", {ZEMBRA_START_SDK, address, authority.path()}, false);
    benchmark::RunSpecifiedBenchmarks();
    return EXIT_SUCCESS;
}

}  // namespace
}  // namespace zembra::bench

int main(int count, char** arguments) {
    try {
        return zembra::bench::runBenchmarks(count, arguments);
    } catch (const std::exception& failure) {
        std::cerr << failure.what() << '\n';
        return EXIT_FAILURE;
    }
}
