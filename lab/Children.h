#pragma once

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include <sys/types.h>

#include "support/TLSServer.h"

/// What the lab's programs have in common: child processes, how they end, and the table of it.
namespace zembra::lab {

/// How long a child may take before it counts as hanging, and is killed.
inline constexpr std::chrono::seconds kLimit{20};

/// A child's wait status, or that it hung.
struct Ending {
    int status = 0;
    bool isHang = false;

    [[nodiscard]] bool isClean() const noexcept { return !isHang && status == 0; }

    /// "clean", "hang", "exit status 3", "signal 11".
    [[nodiscard]] std::string text() const;
};

/// Runs a program with these arguments; the first one is its path.
[[nodiscard]] Ending run(const std::vector<std::string>& command);

/// Waits for a child that the caller forked.
[[nodiscard]] Ending await(pid_t child);

/// Counts how children ended, by the way that they took. Prints a line for each that did not end clean.
class Tally {
public:
    void add(const std::string& way, const std::string& which, const Ending& ending);

    /// Prints a line for each way; 0 where all ended clean, as a program's exit status.
    [[nodiscard]] int print() const;

private:
    struct Count {
        int all = 0;
        int bad = 0;
    };
    std::map<std::string, Count> counts_;
};

/// Runs this program (its path is the first of `arguments`) again with a server's address and its authority's
/// PEM text as two arguments more, beside that server, which lives here: so the process under test has
/// neither the server's threads nor its memory. Returns the exit status.
[[nodiscard]] int runBesideServer(const std::vector<std::string>& arguments, test::Script script);

}  // namespace zembra::lab
