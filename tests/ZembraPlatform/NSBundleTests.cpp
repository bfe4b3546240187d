// Bundles from files and from code, and the texts of message catalogues.

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>

#include <fcntl.h>
#include <gmock/gmock.h>
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

const std::filesystem::path kOwnPath = TempDir() + "zembra-" + std::to_string(getpid());

/// What is made of an info file with these contents.
std::shared_ptr<NSBundle> bundleWith(const std::string& contents) {
    std::ofstream(kOwnPath, std::ios::binary) << contents;
    auto bundle = NSBundle::bundleWithInfoFile(kOwnPath);
    std::filesystem::remove(kOwnPath);
    return bundle;
}

std::string dictionary(const std::string& value) {
    return "<?xml version=\"1.0\"?><plist><dict><key>a</key>" + value + "</dict></plist>";
}

TEST(InfoDictionary, HoldsWhatTheFileSays) {
    using namespace std::chrono;
    const std::map<std::string, Value> cases{
        {"<string>a&amp;b &#252; ö</string>", "a&b ü ö"},
        {"<integer>-42</integer>", -42},
        {"<!-- <integer>your own</integer> --><integer> 9223372036854775807\n</integer>", INT64_MAX},
        {"<real>1.5</real>", 1.5},
        {"<date>2026-01-02T03:04:05Z</date>", Date(sys_days(2026y / 1 / 2) + 3h + 4min + 5s)},
        {"<data>AAEC</data>", std::string("\0\1\2", 3)},
        {"<array><true/><dict/></array>", Value::array({true, Value::dictionary({})})},
    };
    for (const auto& [text, value] : cases) {
        const auto bundle = bundleWith("\xEF\xBB\xBF" + dictionary(text));
        EXPECT_THAT(bundle->infoDictionaryError(), IsNull()) << text;
        EXPECT_EQ(bundle->objectForInfoDictionaryKey("a"), value) << text;
    }
}

TEST(InfoDictionary, IsEmptyAndSaysWhyWhereTheFileCannotBeUsed) {
    std::string nested;
    for (int i = 0; i < 2000; ++i)
        nested = "<array>" + nested + "</array>";
    const auto check = [](const NSBundle& bundle, NSInteger code, const char* reason) {
        EXPECT_TRUE(bundle.objectForInfoDictionaryKey("a").isNothing()) << reason;
        ASSERT_THAT(bundle.infoDictionaryError(), IsError(NSBundleErrorDomain, code)) << reason;
        EXPECT_THAT(bundle.infoDictionaryError()->localizedDescription(), HasSubstr(reason));
    };
    const auto bundleAt = NSBundle::bundleWithInfoFile;
    check(*bundleAt("/a/b", {}), NSBundleErrorFileNotFound, "/a/b cannot be used: there is no such file");
    check(*bundleAt("/etc/passwd/b", {}), NSBundleErrorFileNotFound, "there is no such file");
    check(*bundleAt("/", {}), NSBundleErrorFileNotReadable, "/ cannot be used: Is a directory");
    const std::pair<std::string, const char*> malformed[] = {
        {"", "no XML property list"},
        {"<plist>", "no XML property list"},
        {"<plist><array/></plist>", "no dictionary"},
        {dictionary("<string>\xFC</string>"), "not UTF-8 text"},
        {dictionary({"<string>b\0</string>", 19}), "not UTF-8 text"},
        {dictionary("<integer>9223372036854775808</integer>"), "an integer"},
        {dictionary("<integer>42x</integer>"), "an integer"},
        {dictionary("<integer>042</integer>"), "an integer"},
        {dictionary(nested), "nested too deeply"},
        {dictionary(std::string(300'000, ' ')), "larger than 256 KiB"},
    };
    for (const auto& [contents, reason] : malformed)
        check(*bundleWith(contents), NSBundleErrorFileMalformed, reason);
}

TEST(MainBundle, IsReadBesideTheExecutableOrHandedOverInCode) {
    const auto identifier = [] {
        return NSBundle::mainBundle()->objectForInfoDictionaryKey("CFBundleIdentifier");
    };
    EXPECT_EQ(identifier(), "com.example.tests <&>");
    NSBundle::setMainBundle(std::make_shared<NSBundle>(Value::dictionary({{"CFBundleIdentifier", "mine"}})));
    EXPECT_EQ(identifier(), "mine");
    isProcAbsent = true;
    NSBundle::setMainBundle(nullptr);
    EXPECT_EQ(identifier(), "com.example.tests <&>");
}

const NSBundle kBundle(Value(), NSBundle::Catalogues{ZEMBRA_TEST_LOCALE_DIRECTORY, "messages"});

TEST(MessageCatalogues, AreThoseOfTheEnvironmentsLanguages) {
    // The catalogues come from machines of different byte order.
    const std::string german = "Der Dienst ist gestört.", english = "The service is out of order.";
    const std::pair<std::map<const char*, std::string>, std::string> cases[] = {
        {{}, english},  // the development language, in a process without a locale
        {{{"LANG", "de_AT.UTF-8@euro"}}, german},
        {{{"LC_ALL", "xx"}, {"LC_MESSAGES", "de"}}, english},
        {{{"LC_ALL", ""}, {"LC_MESSAGES", "de"}, {"LANG", "en"}}, german},  // empty is like absent
        {{{"LANGUAGE", "xx::de_CH:en"}, {"LANG", "C"}}, german},
        {{{"LANG", "de/../de"}}, english},  // a path is no language
        {{{"LANGUAGE", std::string(65, '_') + ":de"}}, german},
        {{{"LANGUAGE", "a:b:c:d:e:f:g:h:i:j:k:l:m:n:o:p:de"}}, english},  // the 17th is not looked at
    };
    for (const auto& [variables, text] : cases) {
        for (const char* name : {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"})
            unsetenv(name);
        for (const auto& [name, value] : variables)
            setenv(name, value.c_str(), 1);
        EXPECT_EQ(kBundle.localizedStringForKey("server_error", "", {}), text) << PrintToString(variables);
    }
}

TEST(MessageCatalogues, FallBackToTheValueAndThenTheKey) {
    setenv("LANGUAGE", "de_DE", 1);
    const struct {
        std::optional<std::string> key, value, table;
        std::string text;
    } cases[] = {
        {"network_error", "", {}, "There is no connection."},  // a text only English has
        {"unknown", "default", {}, "default"},
        {"untranslated", "", {}, "untranslated"},
        {"file", "", {}, "Datei"},
        {"", "", {}, ""},  // the catalogue's header is no message
        {{}, "default", {}, "default"},
        {"server_error", "", "no such table", "server_error"},
        {"server_error", "", "../LC_MESSAGES/messages", "server_error"},
    };
    for (const auto& [key, value, table, text] : cases)
        EXPECT_EQ(kBundle.localizedStringForKey(key, value, table), text) << key.value_or("no key");
}

// Catalogues made by hand, as msgfmt makes none: files of the fuzz target's corpus, after a line with a key.
TEST(MessageCatalogues, ThatAreDamagedHaveNoTexts) {
    const struct {
        const char *file, *key, *text;
    } cases[] = {
        {"empty", "server_error", "a text"},  // the file is whole, and
        {"empty", "empty", "empty"},          // its other translation empty
        {"beyond", "server_error", "server_error"},
        {"across", "server_error", "server_error"},
        {"malformed", "server_error", "server_error"},  // no UTF-8
        {"latin", "a", "a"},                            // its header says ISO 8859-1
    };
    std::filesystem::create_directories(kOwnPath / "en/LC_MESSAGES");
    for (const auto& [name, key, text] : cases) {
        std::ifstream file(std::string(ZEMBRA_TEST_CATALOGUES "/") + name, std::ios::binary);
        ASSERT_TRUE(file.ignore(1000, '\n')) << name;
        std::ofstream(kOwnPath / "en/LC_MESSAGES/messages.mo", std::ios::binary) << file.rdbuf();
        const NSBundle bundle(Value(), NSBundle::Catalogues{kOwnPath, "messages"});
        EXPECT_EQ(bundle.localizedStringForKey(key, "", {}), text) << name;
    }
    std::filesystem::remove_all(kOwnPath);
}

}  // namespace
}  // namespace zembra::test
