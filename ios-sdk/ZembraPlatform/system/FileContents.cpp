// Reading small files whole; any thread.

#include "system/FileContents.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <fstream>

namespace zembra {

std::string contentsOfFile(const std::filesystem::path& file, std::size_t limit, std::error_code& error) {
    const auto status = std::filesystem::status(file, error);
    if (error) return {};
    if (!std::filesystem::is_regular_file(status)) {
        error = std::make_error_code(std::filesystem::is_directory(status) ? std::errc::is_a_directory
                                                                           : std::errc::invalid_argument);
        return {};
    }
    errno = 0;
    std::ifstream stream(file, std::ios::binary);
    if (!stream) {
        error = std::error_code(errno != 0 ? errno : EIO, std::generic_category());
        return {};
    }
    const std::uintmax_t size = std::filesystem::file_size(file, error);
    if (error) return {};
    std::string contents(static_cast<std::size_t>(std::min<std::uintmax_t>(size, limit)) + 1, '\0');
    stream.read(contents.data(), static_cast<std::streamsize>(contents.size()));
    contents.resize(static_cast<std::size_t>(stream.gcount()));
    if (stream.bad()) error = std::make_error_code(std::errc::io_error);
    if (contents.size() > limit) error = std::make_error_code(std::errc::file_too_large);
    return error ? std::string() : contents;
}

}  // namespace zembra
