#pragma once

// How `NSBundle` finds the text of a message: gettext's files and the environment's languages; any thread.

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

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
/// (de_AT.UTF-8, de_AT, de): those of the list LANGUAGE, then that of the first of LC_ALL, LC_MESSAGES and
/// LANG that is set and not empty. The C and POSIX locales ask for none. At most 16; a name of more than 64
/// bytes is passed over.
std::vector<std::string> languagesFromEnvironment();

}  // namespace zembra
