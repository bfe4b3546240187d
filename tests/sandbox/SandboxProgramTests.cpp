#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <ZembraSandbox/SandboxServer.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "sandbox/Peer.h"

namespace zembra::sandbox {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

std::string contents(const std::string& file) {
    std::ifstream stream(file);
    return {std::istreambuf_iterator<char>(stream), {}};
}

/// A run of the program, with its output and its errors on one pipe.
class Program {
public:
    explicit Program(std::vector<std::string> arguments) {
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, ends[1], STDERR_FILENO);
        arguments.insert(arguments.begin(), ZEMBRA_SANDBOX_PROGRAM);
        std::vector<char*> texts;
        for (std::string& argument : arguments)
            texts.push_back(argument.data());
        texts.push_back(nullptr);
        EXPECT_EQ(posix_spawn(&process_, texts[0], &actions, nullptr, texts.data(), environ), 0);
        posix_spawn_file_actions_destroy(&actions);
        close(ends[1]);
        output_ = fdopen(ends[0], "r");
    }
    ~Program() { fclose(output_); }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    /// What comes before the next `end`, or else all the rest.
    std::string line(int end = '\n') {
        std::string text;
        for (int next = fgetc(output_); next != EOF && next != end; next = fgetc(output_))
            text += static_cast<char>(next);
        return text;
    }
    std::string rest() { return line(EOF); }
    void signal(int number) { kill(process_, number); }

    /// The exit status; -1 where a signal ended it.
    int status() {
        int status = 0;
        waitpid(process_, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    pid_t process_ = 0;
    FILE* output_ = nullptr;
};

std::string after(const std::string& prefix, const std::string& line) {
    EXPECT_TRUE(line.starts_with(prefix)) << line;
    return line.substr(std::min(prefix.size(), line.size()));
}

TEST(SandboxProgram, ServesUntilItIsInterrupted) {
    for (const int end : {SIGINT, SIGTERM}) {
        Program program({});
        const std::string address = after("Base address: ", program.line());
        const std::string file = after("CA file: ", program.line());
        const Reply reply = send({.url = address + "app/token",
                                  .authority = contents(file),
                                  .form = "client_id=sandbox.demo&signature=com.example.host"});
        EXPECT_EQ(reply.status, 200) << curl_easy_strerror(reply.code);
        EXPECT_THAT(program.line(), AllOf(HasSubstr("client_id=sandbox.demo"),
                                          HasSubstr(R"("token": "****")"), Not(HasSubstr("app-"))));
        EXPECT_TRUE(std::filesystem::exists(file));
        program.signal(end);
        EXPECT_EQ(program.status(), 0);
        EXPECT_FALSE(std::filesystem::exists(file));
        EXPECT_EQ(program.rest(), "");
    }
}

TEST(SandboxProgram, TakesAPortAndAFile) {
    std::string port;
    {
        const SandboxServer server;  // finds a free one
        port = std::to_string(server.port());
        Program program({"--port", port});
        EXPECT_THAT(program.rest(), AllOf(HasSubstr(port), HasSubstr("in use")));
        EXPECT_EQ(program.status(), 1);
    }
    const std::string file = testing::TempDir() + "sandbox-" + port + ".pem";
    Program program({"--port", port, "--ca-file", file});
    EXPECT_EQ(program.line(), "Base address: https://127.0.0.1:" + port + "/api/v1/");
    EXPECT_EQ(program.line(), "CA file: " + file);

    Program second({"--ca-file", file});
    EXPECT_THAT(second.rest(), AllOf(HasSubstr(file), HasSubstr("exists")));
    EXPECT_EQ(second.status(), 1);
    EXPECT_TRUE(std::filesystem::exists(file)) << "what another one made stays";

    program.signal(SIGTERM);
    EXPECT_EQ(program.status(), 0);
    EXPECT_FALSE(std::filesystem::exists(file));
}

TEST(SandboxProgram, RefusesAWrongUsage) {
    const std::vector<std::string> usages[] = {
        {"--port"}, {"--port", "0"}, {"--port", "65536"}, {"--port", "80x"}, {"--ca-file"}, {"--what"},
        {"x"}};
    for (const auto& arguments : usages) {
        Program program(arguments);
        EXPECT_THAT(program.rest(), AllOf(HasSubstr("zembra-sandbox: "), HasSubstr(arguments.front())));
        EXPECT_EQ(program.status(), 2);
    }
}

TEST(SandboxProgram, ListsTheOutcomesInItsHelpAndItsReadme) {
    Program program({"--help"});
    EXPECT_THAT(program.rest(),
                AllOf(HasSubstr("--ca-file PATH"), HasSubstr(SandboxServer::outcomeTables())));
    EXPECT_EQ(program.status(), 0);
    EXPECT_THAT(contents(ZEMBRA_SANDBOX_README), HasSubstr(SandboxServer::outcomeTables()));
}

}  // namespace
}  // namespace zembra::sandbox
