#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <system_error>

/// Reading small files whole; not part of the public interface.
namespace zembra {

/// The contents of a regular file of at most `limit` bytes. Otherwise an empty text and the reason in `error`
/// (`std::errc::file_too_large` for a longer one); a device or a pipe is never opened.
std::string contentsOfFile(const std::filesystem::path& file, std::size_t limit, std::error_code& error);

}  // namespace zembra
