#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// How `NSBundle` finds the text of a message; not part of the public interface.
namespace zembra {

/// The messages of one gettext catalogue (a .mo file), held in memory and checked as it was read.
class MessageCatalogue {
public:
    /// The catalogue in `file`, or `std::nullopt` where there is none that can be used: no such file, more
    /// than 16 MiB, damaged, or not in UTF-8.
    static std::optional<MessageCatalogue> read(const std::filesystem::path& file);

    /// The same for a file's contents.
    static std::optional<MessageCatalogue> parse(std::string contents);

    /// The text under `key` (its singular where it has a plural), or `std::nullopt`. The empty key holds the
    /// catalogue's own header and is never found. The view lives as long as the catalogue.
    [[nodiscard]] std::optional<std::string_view> find(std::string_view key) const;

private:
    explicit MessageCatalogue(std::string contents) : contents_(std::move(contents)) {}

    struct Message {
        std::size_t keyOffset, keyLength, textOffset, textLength;
    };

    std::string_view keyOf(const Message& message) const {
        return std::string_view(contents_).substr(message.keyOffset, message.keyLength);
    }
    std::string_view textOf(const Message& message) const {
        return std::string_view(contents_).substr(message.textOffset, message.textLength);
    }

    std::string contents_;
    std::vector<Message> messages_;  // sorted by key
};

/// The languages that the environment asks for, best first, each followed by its less specific forms
/// (de_AT.UTF-8, de_AT, de): LANGUAGE (a list) unless the locale is C or POSIX, else the first of LC_ALL,
/// LC_MESSAGES and LANG that is set.
std::vector<std::string> languagesFromEnvironment();

}  // namespace zembra
