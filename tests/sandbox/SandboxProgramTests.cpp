// The sandbox program, run as a process of its own.

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <tuple>

#include <ZembraSandbox/SandboxServer.h>
#include <gmock/gmock.h>
#include <sys/wait.h>

#include "sandbox/Peer.h"

namespace zembra::sandbox {
namespace {

using namespace std::string_literals;
using namespace testing;

std::string contents(const std::string& file) {
    std::ifstream stream(file);
    return {std::istreambuf_iterator<char>(stream), {}};
}

/// A run of the program, with its output and its errors on one pipe.
class Program {
public:
    explicit Program(const std::string& arguments)
        : output_(popen(("echo $$; exec '" ZEMBRA_SANDBOX_PROGRAM "' 2>&1 " + arguments).c_str(), "re")),
          process_(std::stoi(line())) {}

    /// What comes before the next `end`, or else all the rest.
    std::string line(int end = '\n') {
        std::string text;
        for (int next = fgetc(output_); next != EOF && next != end; next = fgetc(output_))
            text += static_cast<char>(next);
        return text;
    }
    std::string rest() { return line(EOF); }
    void signal(int number) { kill(process_, number); }

    /// Waits for the end. The exit status; -1 where a signal ended it.
    int status() {
        const int status = pclose(output_);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    FILE* const output_;
    const pid_t process_;
};

TEST(SandboxProgram, ServesAtItsPortWithItsFileUntilItIsInterrupted) {
    std::string port;
    {
        const SandboxServer server;  // finds a free one
        port = std::to_string(server.port());
        Program program("--port " + port);
        EXPECT_THAT(program.rest(), AllOf(HasSubstr(port), HasSubstr("in use")));
        EXPECT_EQ(program.status(), 1);
    }
    const std::string address = "Base address: https://127.0.0.1:", authority = "CA file: ";
    const std::string own = TempDir() + "sandbox-" + port + ".pem";
    for (const auto& [end, arguments, addressLine, fileLine] :
         {std::tuple(SIGINT, ""s, address, authority + "/"),
          {SIGTERM, "--port " + port, address + port + "/api/v1/", authority + "/"},
          {SIGHUP, "--ca-file " + own, address, authority + own}}) {
        Program program(arguments);
        const std::string first = program.line(), second = program.line();
        EXPECT_THAT(first, StartsWith(addressLine));
        EXPECT_THAT(second, StartsWith(fileLine));
        const std::string file = second.substr(authority.size());
        const Reply reply = send(first.substr(first.find("https")) + "app/token", contents(file),
                                 "client_id=sandbox.demo&signature=com.example.host");
        EXPECT_EQ(reply.status, 200) << curl_easy_strerror(reply.code);
        EXPECT_THAT(program.line(), AllOf(HasSubstr("client_id=sandbox.demo"),
                                          HasSubstr(R"("token": "****")"), Not(HasSubstr("app-"))));
        Program intruder("--ca-file " + file);
        EXPECT_THAT(intruder.rest(), AllOf(HasSubstr(file), HasSubstr("exists (if a run that was killed")));
        EXPECT_EQ(intruder.status(), 1);
        EXPECT_TRUE(std::filesystem::exists(file)) << "what another one made stays";
        program.signal(end);
        EXPECT_EQ(program.rest(), "");
        EXPECT_EQ(program.status(), 0);
        EXPECT_FALSE(std::filesystem::exists(file));
    }
}

TEST(SandboxProgram, RefusesAWrongUsage) {
    for (const std::string arguments :
         {"--port", "--port 0", "--port 65536", "--port 80x", "--ca-file", "--what", "x"}) {
        Program program(arguments);
        EXPECT_THAT(program.rest(), AllOf(HasSubstr("zembra-sandbox: "),
                                          HasSubstr(arguments.substr(0, arguments.find(' ')))));
        EXPECT_EQ(program.status(), 2);
    }
}

TEST(SandboxProgram, NamesAFolderForTemporaryFilesThatIsNone) {
    setenv("TMPDIR", "/nonexistent/folder", 1);
    Program program("");
    EXPECT_THAT(program.rest(), HasSubstr("/nonexistent/folder/zembra-sandbox-"));
    EXPECT_EQ(program.status(), 1);
}

TEST(SandboxProgram, ListsTheOutcomesInItsHelpAndItsReadme) {
    Program program("--help");
    EXPECT_THAT(program.rest(),
                AllOf(HasSubstr("--ca-file PATH"), HasSubstr(SandboxServer::outcomeTables())));
    EXPECT_EQ(program.status(), 0);
    EXPECT_THAT(contents(ZEMBRA_SANDBOX_README), HasSubstr(SandboxServer::outcomeTables()));
}

}  // namespace
}  // namespace zembra::sandbox
