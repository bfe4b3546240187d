#pragma once

// Reading small files whole, for bundles and trusted authorities; any thread.

#include <cstddef>
#include <filesystem>
#include <string>
#include <system_error>

namespace zembra {

/// The contents of a regular file of at most `limit` bytes. Otherwise an empty text and the reason in `error`
/// (`std::errc::file_too_large` for a longer one); a device or a pipe is never opened.
std::string contentsOfFile(const std::filesystem::path& file, std::size_t limit, std::error_code& error);

}  // namespace zembra
