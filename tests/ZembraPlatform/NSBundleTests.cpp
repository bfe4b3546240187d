// Bundles from files and from code, and the texts of message catalogues.

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <tuple>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <ZembraPlatform/NSBundle.h>

#include "support/ErrorMatchers.h"

namespace {

bool isProcAbsent = false;

}  // namespace

/// The system call, on a system that has no /proc if a test wants so.
extern "C" __attribute__((visibility("default"))) ssize_t readlink(const char* path, char* buffer,
                                                                   std::size_t size) noexcept {
    if (isProcAbsent && std::string_view(path).starts_with("/proc/")) return errno = ENOENT, -1;
    return ::readlinkat(AT_FDCWD, path, buffer, size);
}

namespace zembra::test {
namespace {

using namespace testing;

/// What is made of an info file with these contents.
std::shared_ptr<NSBundle> bundleWith(const std::string& contents) {
    const std::string file = TempDir() + "zembra-" + std::to_string(getpid()) + ".plist";
    std::ofstream(file, std::ios::binary) << contents;
    auto bundle = NSBundle::bundleWithInfoFile(file);
    std::filesystem::remove(file);
    return bundle;
}

std::string dictionary(const std::string& value) {
    return "<?xml version=\"1.0\"?><plist><dict><key>a</key>" + value + "</dict></plist>";
}

TEST(InfoDictionary, HoldsWhatTheFileSays) {
    using namespace std::chrono;
    const std::pair<std::string, Value> cases[] = {
        {"<string>a&amp;b &#252; ö</string>", "a&b ü ö"},
        {"<string></string>", ""},
        {"<true/>", true},
        {"<integer>-42</integer>", -42},
        {"<!-- <integer>your own</integer> --><integer> 9223372036854775807\n</integer>", INT64_MAX},
        {"<real>1.5</real>", 1.5},
        {"<date>2026-01-02T03:04:05Z</date>", Date(sys_days(2026y / 1 / 2) + 3h + 4min + 5s)},
        {"<data>AAEC</data>", std::string("\0\1\2", 3)},
        {"<array><string>x</string><dict/></array>", Value::array({"x", Value::dictionary({})})},
    };
    for (const auto& [text, value] : cases) {
        const auto bundle = bundleWith("\xEF\xBB\xBF" + dictionary(text));
        EXPECT_THAT(bundle->infoDictionaryError(), IsNull()) << text;
        EXPECT_EQ(bundle->objectForInfoDictionaryKey("a"), value) << text;
    }
}

TEST(InfoDictionary, IsEmptyAndSaysWhyWhereTheFileCannotBeUsed) {
    std::string nested = "<dict/>";
    for (int i = 0; i < 2000; ++i)
        nested = "<array>" + nested + "</array>";
    constexpr NSInteger kMalformed = NSBundleErrorFileMalformed;
    const std::tuple<std::shared_ptr<NSBundle>, NSInteger, const char*> cases[] = {
        {NSBundle::bundleWithInfoFile("/a/b"), NSBundleErrorFileNotFound, "/a/b cannot be used: there is no"},
        {NSBundle::bundleWithInfoFile("/etc/passwd/b"), NSBundleErrorFileNotFound, "there is no such file"},
        {NSBundle::bundleWithInfoFile("/"), NSBundleErrorFileNotReadable, "/ cannot be used: Is a directory"},
        {bundleWith(""), kMalformed, "no XML property list"},
        {bundleWith("client id = 5"), kMalformed, "no XML property list"},
        {bundleWith(dictionary("").substr(0, 50)), kMalformed, "plist cannot be used: it is no XML"},
        {bundleWith("<plist><array/></plist>"), kMalformed, "no dictionary"},
        {bundleWith(dictionary("<string>\xFC</string>")), kMalformed, "not UTF-8 text"},
        {bundleWith(dictionary({"<string>b\0</string>", 19})), kMalformed, "not UTF-8 text"},
        {bundleWith(dictionary("<integer>9223372036854775808</integer>")), kMalformed, "an integer"},
        {bundleWith(dictionary("<integer>42x</integer>")), kMalformed, "an integer"},
        {bundleWith(dictionary("<integer>042</integer>")), kMalformed, "an integer"},
        {bundleWith(dictionary("<integer/>")), kMalformed, "an integer"},
        {bundleWith(dictionary(nested)), kMalformed, "nested too deeply"},
        {bundleWith(dictionary(std::string(300'000, ' '))), kMalformed, "larger than 256 KiB"},
    };
    for (const auto& [bundle, code, reason] : cases) {
        EXPECT_TRUE(bundle->objectForInfoDictionaryKey("a").isNothing()) << reason;
        ASSERT_THAT(bundle->infoDictionaryError(), IsError(NSBundleErrorDomain, code)) << reason;
        EXPECT_THAT(bundle->infoDictionaryError()->localizedDescription(), HasSubstr(reason));
    }
}

TEST(MainBundle, IsReadBesideTheExecutableOrHandedOverInCode) {
    const auto info = [](const char* key) { return NSBundle::mainBundle()->objectForInfoDictionaryKey(key); };
    EXPECT_EQ(info("CFBundleIdentifier"), Value("com.example.tests <&>"));
    NSBundle::setMainBundle(std::make_shared<NSBundle>(Value::dictionary({{"ZMBSDKClientID", "mine"}})));
    EXPECT_EQ(info("ZMBSDKClientID"), Value("mine"));
    isProcAbsent = true;
    NSBundle::setMainBundle(nullptr);
    EXPECT_EQ(info("ZMBSDKClientID"), Value(""));
    EXPECT_EQ(info("CFBundleIdentifier"), Value("com.example.tests <&>"));
}

const NSBundle::Catalogues kCatalogues{ZEMBRA_TEST_LOCALE_DIRECTORY, "messages"};

TEST(MessageCatalogues, AreThoseOfTheEnvironmentsLanguages) {
    const NSBundle bundle(Value(), kCatalogues);
    // The catalogues come from machines of different byte order.
    const std::string german = "Der Dienst ist gestört.", english = "The service is out of order.";
    std::string manyLanguages;
    for (char letter = 'a'; letter < 'a' + 16; ++letter)
        manyLanguages += std::string(2, letter) + ':';
    manyLanguages += "de";
    const std::pair<std::vector<std::pair<const char*, std::string>>, std::string> cases[] = {
        {{}, english},  // the development language, in a process without a locale
        {{{"LANG", "C.UTF-8"}}, english},
        {{{"LANG", "de_AT.UTF-8@euro"}}, german},
        {{{"LC_MESSAGES", "de"}, {"LANG", "en_GB"}}, german},
        {{{"LC_ALL", "en_GB"}, {"LC_MESSAGES", "de"}}, english},
        {{{"LC_ALL", ""}, {"LC_MESSAGES", "de"}}, german},  // empty is like absent
        {{{"LANGUAGE", "xx::de_CH:en"}, {"LANG", "C"}}, german},
        {{{"LANGUAGE", "fr"}, {"LANG", "de_DE"}}, german},  // the French one is not in UTF-8
        {{{"LANG", "de/../de"}}, english},                  // a path is no language
        {{{"LANGUAGE", std::string(65, '_') + ":de"}}, german},
        {{{"LANGUAGE", manyLanguages}}, english},  // the 17th is not looked at
    };
    for (const auto& [variables, text] : cases) {
        for (const char* name : {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"})
            unsetenv(name);
        for (const auto& [name, value] : variables)
            setenv(name, value.c_str(), 1);
        EXPECT_EQ(bundle.localizedStringForKey("server_error", "", std::nullopt), text)
            << PrintToString(variables);
    }
}

TEST(MessageCatalogues, FallBackToTheValueAndThenTheKey) {
    unsetenv("LANGUAGE");
    setenv("LC_ALL", "de_DE", 1);
    const NSBundle bundle(Value(), kCatalogues);
    using Text = std::optional<std::string>;
    const std::tuple<Text, Text, Text, std::string> cases[] = {
        {"network_error", "", {}, "There is no connection."},  // a text only English has
        {"unknown", "", {}, "unknown"},
        {"unknown", "default", {}, "default"},
        {"unknown", {}, {}, "unknown"},
        {"untranslated", "", {}, "untranslated"},
        {"file", "", {}, "Datei"},
        {"", "", {}, ""},  // the catalogue's header is no message
        {{}, {}, {}, ""},
        {{}, "default", {}, "default"},
        {"server_error", "", "no such table", "server_error"},
        {"server_error", "", "../LC_MESSAGES/messages", "server_error"},
    };
    for (const auto& [key, value, table, text] : cases)
        EXPECT_EQ(bundle.localizedStringForKey(key, value, table), text) << key.value_or("no key");
    EXPECT_EQ(NSBundle(Value()).localizedStringForKey("server_error", "", {}), "server_error");
}

// Catalogues made by hand, as msgfmt makes none: files of the fuzz target's corpus, after a line with a key.
TEST(MessageCatalogues, ThatAreDamagedHaveNoTexts) {
    const std::tuple<const char*, const char*, const char*> cases[] = {
        {"empty", "server_error", "a text"},  // the file is whole, and
        {"empty", "empty", "empty"},          // its other translation empty
        {"beyond", "server_error", "server_error"},
        {"across", "server_error", "server_error"},
    };
    const std::filesystem::path directory = TempDir() + "zembra-locale-" + std::to_string(getpid());
    std::filesystem::create_directories(directory / "en/LC_MESSAGES");
    for (const auto& [name, key, text] : cases) {
        std::ifstream file(std::string(ZEMBRA_TEST_CATALOGUES "/") + name, std::ios::binary);
        ASSERT_TRUE(file.ignore(1000, '\n')) << name;
        std::ofstream(directory / "en/LC_MESSAGES/messages.mo", std::ios::binary) << file.rdbuf();
        const NSBundle bundle(Value(), NSBundle::Catalogues{directory, "messages"});
        EXPECT_EQ(bundle.localizedStringForKey(key, "", {}), text) << name;
    }
    std::filesystem::remove_all(directory);
}

}  // namespace
}  // namespace zembra::test
