#include "Children.h"

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <utility>

#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace zembra::lab {

std::string Ending::text() const {
    if (isHang) return "hang";
    if (WIFSIGNALED(status)) return "signal " + std::to_string(WTERMSIG(status));
    return status == 0 ? "clean" : "exit status " + std::to_string(WEXITSTATUS(status));
}

namespace {

pid_t spawn(const std::vector<std::string>& command) {
    std::vector<char*> arguments;
    for (const std::string& argument : command)
        arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    pid_t child = -1;
    if (::posix_spawn(&child, arguments[0], nullptr, nullptr, arguments.data(), ::environ) != 0) std::abort();
    return child;
}

}  // namespace

Ending run(const std::vector<std::string>& command) {
    return await(spawn(command));
}

Ending await(pid_t child) {
    Ending ending;
    const auto descriptor = static_cast<int>(::syscall(SYS_pidfd_open, child, 0));
    if (descriptor == -1) std::abort();
    pollfd end{descriptor, POLLIN, 0};
    const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(kLimit);
    ending.isHang = ::poll(&end, 1, static_cast<int>(milliseconds.count())) == 0;
    ::close(descriptor);
    if (ending.isHang) ::kill(child, SIGKILL);
    ::waitpid(child, &ending.status, 0);
    return ending;
}

void Tally::add(const std::string& way, const std::string& which, const Ending& ending) {
    Count& count = counts_[way];
    ++count.all;
    if (ending.isClean()) return;
    ++count.bad;
    std::cout << way << ", " << which << ": " << ending.text() << std::endl;
}

int Tally::print() const {
    Count sum;
    for (const auto& [way, count] : counts_) {
        std::cout << way << ": " << count.bad << " bad of " << count.all << '\n';
        sum.all += count.all;
        sum.bad += count.bad;
    }
    std::cout << "in all: " << sum.bad << " bad of " << sum.all << std::endl;
    return sum.bad == 0 ? 0 : 1;
}

int runBesideServer(const std::vector<std::string>& arguments, test::Script script) {
    const test::TLSServer server(std::move(script));
    std::vector<std::string> command = arguments;
    command[0] = "/proc/self/exe";
    command.push_back(server.address());
    command.push_back(test::TLSServer::certificateAuthority());
    int status = 0;
    ::waitpid(spawn(command), &status, 0);
    return status == 0 ? 0 : 1;
}

}  // namespace zembra::lab
