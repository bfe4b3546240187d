// The sandbox program, run as a process of its own.

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <ZembraSandbox/SandboxServer.h>
#include <gmock/gmock.h>
#include <sys/wait.h>

#include "sandbox/Peer.h"

namespace zembra::sandbox {
namespace {

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
    void signal(int number) { kill(process_, number); }

    /// Waits for the end, with this exit status and these texts in what is left to print.
    void expectEnd(int status, const std::vector<std::string>& texts) {
        const std::string rest = line(EOF);
        for (const std::string& text : texts)
            EXPECT_THAT(rest, HasSubstr(text));
        EXPECT_EQ(pclose(output_), status << 8);
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
        Program("--port " + port).expectEnd(1, {port, "in use"});
    }
    const std::string address = "Base address: https://127.0.0.1:", authority = "CA file: ";
    const std::string own = TempDir() + "sandbox-" + port + ".pem";
    const struct {
        int end;
        std::string arguments, addressLine, fileLine;
    } cases[] = {
        {SIGINT, "", address, authority + "/"},
        {SIGTERM, "--port " + port, address + port + "/api/v1/", authority + "/"},
        {SIGHUP, "--ca-file " + own, address, authority + own},
    };
    for (const auto& [end, arguments, addressLine, fileLine] : cases) {
        Program program(arguments);
        const std::string first = program.line(), second = program.line();
        EXPECT_THAT(first, StartsWith(addressLine));
        EXPECT_THAT(second, StartsWith(fileLine));
        const std::string file = second.substr(authority.size());
        const Reply reply = send(first.substr(first.find("https")) + "app/token", contents(file),
                                 "client_id=sandbox.demo&signature=com.example.host");
        EXPECT_EQ(reply.status, 200) << curl_easy_strerror(reply.code);
        EXPECT_THAT(program.line(), HasSubstr("client_id=sandbox.demo"));
        Program("--ca-file " + file).expectEnd(1, {file, "exists (if a run that was killed"});
        EXPECT_TRUE(std::filesystem::exists(file)) << "what another one made stays";
        program.signal(end);
        program.expectEnd(0, {});
        EXPECT_FALSE(std::filesystem::exists(file));
    }
}

TEST(SandboxProgram, RefusesAWrongUsage) {
    for (const std::string arguments : {"--port", "--port 0", "--port 65536", "--port 80x", "--ca-file", "x"})
        Program(arguments).expectEnd(2, {"zembra-sandbox: ", arguments.substr(0, arguments.find(' '))});
}

TEST(SandboxProgram, NamesAFolderForTemporaryFilesThatIsNone) {
    setenv("TMPDIR", "/nonexistent/folder", 1);
    Program("").expectEnd(1, {"/nonexistent/folder/zembra-sandbox-"});
}

TEST(SandboxProgram, ListsTheOutcomesInItsHelpAndItsReadme) {
    Program("--help").expectEnd(0, {"--ca-file PATH", SandboxServer::outcomeTables()});
    EXPECT_THAT(contents(ZEMBRA_SANDBOX_README), HasSubstr(SandboxServer::outcomeTables()));
}

}  // namespace
}  // namespace zembra::sandbox
