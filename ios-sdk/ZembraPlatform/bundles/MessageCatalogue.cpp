// gettext catalogues in memory, and the languages that the environment asks for; any thread.

#include "bundles/MessageCatalogue.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include <ZembraPlatform/NSString.h>

#include "system/FileContents.h"

namespace zembra {

namespace {

constexpr std::size_t kLargestFile = 16u << 20;
constexpr std::uint32_t kMagic = 0x950412de;
constexpr std::uint32_t kSwappedMagic = 0xde120495;

// Environments are anybody's to fill: what is longer or more than this is not looked at.
constexpr std::size_t kLongestLanguage = 64;
constexpr std::size_t kMostLanguages = 16;

/// The 32-bit numbers of a catalogue, whose byte order is that of the machine that wrote it.
class Words {
public:
    explicit Words(std::string_view contents) : contents_(contents) { isBigEndian_ = at(0) == kSwappedMagic; }

    bool isCatalogue() const { return at(0) == kMagic; }

    /// The number at a byte offset; 0 beyond the end.
    std::uint32_t at(std::uint64_t offset) const {
        if (offset + 4 > contents_.size()) return 0;
        std::uint32_t word = 0;
        for (std::size_t i = 0; i < 4; ++i) {
            const auto byte = static_cast<std::uint8_t>(contents_[static_cast<std::size_t>(offset) + i]);
            word |= std::uint32_t{byte} << (8 * (isBigEndian_ ? 3 - i : i));
        }
        return word;
    }

private:
    std::string_view contents_;
    bool isBigEndian_ = false;
};

bool isUTF8Charset(std::string_view header) {
    constexpr std::string_view kCharset = "charset=";
    const std::size_t start = header.find(kCharset);
    if (start == std::string_view::npos) return true;
    std::string name(header.substr(start + kCharset.size()));
    name.resize(std::min(name.size(), name.find_first_of(" \t\r\n;")));
    std::ranges::transform(name, name.begin(), [](char c) {
        return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    });
    // The name that a catalogue's template carries is left in place where a file has only ASCII texts.
    return name == "UTF-8" || name == "UTF8" || name == "US-ASCII" || name == "ASCII" || name == "CHARSET";
}

}  // namespace

std::optional<MessageCatalogue> MessageCatalogue::read(const std::filesystem::path& file) {
    std::error_code error;
    std::string contents = contentsOfFile(file, kLargestFile, error);
    if (error) return std::nullopt;
    return parse(std::move(contents));
}

std::optional<MessageCatalogue> MessageCatalogue::parse(std::string contents) {
    MessageCatalogue catalogue(std::move(contents));
    const std::size_t size = catalogue.contents_.size();
    const Words words(catalogue.contents_);
    if (!words.isCatalogue() || words.at(4) >> 16 > 1) return std::nullopt;

    const std::uint64_t count = words.at(8), keys = words.at(12), texts = words.at(16);
    if (keys + 8 * count > size || texts + 8 * count > size) return std::nullopt;

    // Strings that lie across each other are damage, and slow to compare.
    std::uint64_t total = 0;
    for (std::uint64_t i = 0; i < count; ++i) {
        Message message{words.at(keys + 8 * i + 4), words.at(keys + 8 * i), words.at(texts + 8 * i + 4),
                        words.at(texts + 8 * i)};
        if (message.keyOffset + message.keyLength > size || message.textOffset + message.textLength > size)
            return std::nullopt;
        total += message.keyLength + message.textLength;
        if (total > size) return std::nullopt;
        // Key and text with plural forms hold all of them, separated by zero bytes.
        message.keyLength = std::min(message.keyLength, catalogue.keyOf(message).find('\0'));
        message.textLength = std::min(message.textLength, catalogue.textOf(message).find('\0'));
        if (message.keyLength == 0) {
            if (!isUTF8Charset(catalogue.textOf(message))) return std::nullopt;
        } else if (message.textLength != 0 && isWellFormedUTF8(catalogue.textOf(message))) {
            catalogue.messages_.push_back(message);
        }
    }
    std::ranges::stable_sort(catalogue.messages_, {},
                             [&](const Message& message) { return catalogue.keyOf(message); });
    return catalogue;
}

std::optional<std::string_view> MessageCatalogue::find(std::string_view key) const {
    const auto keyOfMessage = [this](const Message& message) { return keyOf(message); };
    const auto found = std::ranges::lower_bound(messages_, key, {}, keyOfMessage);
    if (found == messages_.end() || keyOf(*found) != key) return std::nullopt;
    return textOf(*found);
}

std::vector<std::string> languagesFromEnvironment() {
    std::vector<std::string> languages;
    const auto add = [&](std::string_view language) {
        // A name is part of a path: one that would lead elsewhere is no language.
        if (language == "C" || language == "POSIX" || language.starts_with("C.")) return;
        if (language.find('/') != std::string_view::npos || language.starts_with('.')) return;
        if (language.size() > kLongestLanguage) return;
        while (!language.empty() && languages.size() < kMostLanguages) {
            if (std::ranges::find(languages, language) == languages.end()) languages.emplace_back(language);
            const std::size_t lessSpecific = language.find_last_of("@._");
            language = lessSpecific == std::string_view::npos ? "" : language.substr(0, lessSpecific);
        }
    };
    const auto variable = [](const char* name) -> std::string_view {
        const char* const value = std::getenv(name);
        return value == nullptr ? "" : value;
    };

    std::string_view list = variable("LANGUAGE");
    while (!list.empty()) {
        const std::size_t end = std::min(list.find(':'), list.size());
        add(list.substr(0, end));
        list.remove_prefix(std::min(end + 1, list.size()));
    }
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        if (const std::string_view locale = variable(name); !locale.empty()) {
            add(locale);
            break;
        }
    }
    return languages;
}

}  // namespace zembra
