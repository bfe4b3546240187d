// Which header lines of an answer are HTTP whose end is beyond doubt.

#include <algorithm>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "http/HTTPFraming.h"

namespace zembra {
namespace {

using namespace std::string_literals;

/// Whether all lines of `header` are taken.
bool isTaken(HTTPFraming& framing, std::string_view header) {
    while (!header.empty()) {
        const std::size_t size = std::min(header.find('\n'), header.size() - 1) + 1;
        if (!framing.takeLine(header.substr(0, size))) return false;
        header.remove_prefix(size);
    }
    return true;
}

TEST(HTTPFramingTest, TakesWhatIsBeyondDoubt) {
    const std::string okay = "HTTP/1.1 200 OK\r\n";
    struct {
        std::string header;
        bool hasWholeHeader, endsWithConnection;
    } const rows[] = {
        {okay, false, true},
        {okay + "Content-Length: 2\r\n\r\n", true, false},
        {okay + "content-length:\t2 \r\nContent-Length: 2\r\n\r\n", true, false},
        {okay + "Content-Length: 9223372036854775807\r\n\r\n", true, false},
        {okay + "transfer-encoding: Chunked\r\n\r\nX-Trailer: 1\r\nContent-Length: x\r\n\r\n", true, false},
        {okay + "\r\n", true, true},
        {okay + "X-Folded: one\r\n two\r\n\tthree\r\n\r\n", true, true},
        {"HTTP/1.0 200\n\n", true, true},
        {"HTTP/1.1 204 No\r\n\r\n", true, false},
        {"HTTP/1.1 304 No\r\n\r\n", true, false},
        {"HTTP/1.1 103 Hints\r\nContent-Length: 5\r\n\r\n", false, false},
        {"HTTP/1.1 103 Hints\r\nContent-Length: 5\r\n\r\n" + okay + "\r\n", true, true},
        {"HTTP/1.1 101 Switching\r\n\r\n", true, true},
    };
    for (const auto& [header, hasWholeHeader, endsWithConnection] : rows) {
        HTTPFraming framing;
        EXPECT_TRUE(isTaken(framing, header)) << header;
        EXPECT_EQ(framing.hasWholeHeader(), hasWholeHeader) << header;
        EXPECT_EQ(framing.endsWithConnection(), endsWithConnection) << header;
    }
}

TEST(HTTPFramingTest, RefusesWhatAnotherReaderMayUnderstandOtherwise) {
    const std::string okay = "HTTP/1.1 200 OK\r\n";
    for (const std::string& header : {
             "HTTP/2 200\r\n"s,
             "HTTP/1.x 200\r\n"s,
             "HTTP/1.1 20\r\n"s,
             "HTTP/1.1 2x0\r\n"s,
             "HTTP/1.1\t200\r\n"s,
             "HTTP/1.1 2000\r\n"s,
             "HTTP/1.1  200 OK\r\n"s,
             "http/1.1 200 OK\r\n"s,
             okay + "Content-Length: 2\r\nContent-Length: 3\r\n",
             okay + "Content-Length: 2, 2\r\n",
             okay + "Content-Length: +2\r\n",
             okay + "Content-Length: 0x2\r\n",
             okay + "Content-Length: 9223372036854775808\r\n",
             okay + "Content-Length:\r\n",
             okay + "Content-Length: 2\r\n 3\r\n",
             okay + "Transfer-Encoding: gzip, chunked\r\n",
             okay + "Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n",
             okay + "Transfer-Encoding: chunked\r\n , identity\r\n",
             okay + "X: a\rb\r\n",
             okay + "X: a" + '\0' + "b\r\n",
             okay + ": a\r\n",
             okay + "X : a\r\n",
             okay + "no field\r\n",
             okay + " folded: a\r\n",
             okay + "X: a\r\n\r\n folded: a\r\n",
             "HTTP/1.1 103 Hints\r\nX: a\r\n\r\n" + okay + " folded: a\r\n",
         }) {
        HTTPFraming framing;
        EXPECT_FALSE(isTaken(framing, header)) << header;
    }
}

}  // namespace
}  // namespace zembra
