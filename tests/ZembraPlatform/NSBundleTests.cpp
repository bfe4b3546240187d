#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <ZembraPlatform/NSBundle.h>

#include "support/ErrorMatchers.h"

namespace zembra::test {
namespace {

using ::testing::HasSubstr;
using ::testing::IsNull;

/// A folder that goes with the test.
class TemporaryFolder {
public:
    TemporaryFolder() {
        std::string pattern = (std::filesystem::temp_directory_path() / "zembra-XXXXXX").string();
        path = mkdtemp(pattern.data());
    }
    ~TemporaryFolder() { std::filesystem::remove_all(path); }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::filesystem::path write(const std::string& name, const std::string& contents) const {
        const auto file = path / name;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << contents;
        return file;
    }

    std::filesystem::path path;
};

std::string plist(const std::string& body) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist>" + body + "</plist>";
}

// The info dictionary
// --------------------------------------------------------------------------------------------

TEST(InfoDictionary, HoldsWhatTheFileSays) {
    const TemporaryFolder folder;
    const auto file = folder.write("Info.plist", "\xEF\xBB\xBF" + plist(R"(<dict>
        <key>ZMBSDKClientID</key><string>a&amp;b &#252; ö</string>
        <key>empty</key><string></string>
        <key>yes</key><true/>
        <key>number</key><integer>-42</integer>
        <key>real</key><real>1.5</real>
        <key>date</key><date>2026-01-02T03:04:05Z</date>
        <key>data</key><data>AAEC</data>
        <key>list</key><array><string>x</string><dict/></array>
        </dict>)"));
    const auto bundle = NSBundle::bundleWithInfoFile(file);
    EXPECT_THAT(bundle->infoDictionaryError(), IsNull());
    using namespace std::chrono;
    const std::pair<const char*, Value> entries[] = {
        {"ZMBSDKClientID", "a&b ü ö"},
        {"empty", ""},
        {"yes", true},
        {"number", -42},
        {"real", 1.5},
        {"date", Date(sys_days(2026y / 1 / 2) + 3h + 4min + 5s)},
        {"data", Value(std::string("\0\1\2", 3))},
        {"list", Value::array({"x", Value::dictionary({})})},
        {"absent", {}},
    };
    for (const auto& [key, value] : entries)
        EXPECT_EQ(bundle->objectForInfoDictionaryKey(key), value) << key;
}

TEST(InfoDictionary, IsEmptyAndSaysWhyWhereTheFileCannotBeUsed) {
    const TemporaryFolder folder;
    std::string nested = "<dict/>";
    for (int i = 0; i < 2000; ++i)
        nested = "<array>" + nested + "</array>";
    const auto dictionary = [](const std::string& text) {
        return plist("<dict><key>a</key>" + text + "</dict>");
    };
    constexpr NSInteger kMalformed = NSBundleErrorFileMalformed;
    const std::string zero(1, '\0');
    const struct {
        std::filesystem::path file;
        NSInteger code;
        const char* reason;
    } cases[] = {
        {folder.path / "absent", NSBundleErrorFileNotFound, "no such file"},
        {folder.path, NSBundleErrorFileNotReadable, "directory"},
        {folder.write("empty", ""), kMalformed, "no XML property list"},
        {folder.write("text", "client id = 5"), kMalformed, "no XML property list"},
        {folder.write("cut", dictionary("").substr(0, 60)), kMalformed, "no XML property list"},
        {folder.write("array", plist("<array/>")), kMalformed, "no dictionary"},
        {folder.write("latin1", dictionary("<string>\xFC</string>")), kMalformed, "not UTF-8 text"},
        {folder.write("zero", dictionary("<string>b" + zero + "</string>")), kMalformed, "not UTF-8 text"},
        {folder.write("deep", dictionary(nested)), kMalformed, "nested too deeply"},
        {folder.write("large", plist(std::string(300'000, ' '))), kMalformed, "larger than 256 KiB"},
    };
    for (const auto& [file, code, reason] : cases) {
        const auto bundle = NSBundle::bundleWithInfoFile(file);
        EXPECT_TRUE(bundle->objectForInfoDictionaryKey("a").isNothing()) << file;
        const NSErrorPtr error = bundle->infoDictionaryError();
        ASSERT_THAT(error, IsError(NSBundleErrorDomain, code)) << file;
        EXPECT_THAT(error->localizedDescription(), HasSubstr(reason));
        EXPECT_THAT(error->localizedDescription(), HasSubstr(file.string()));
    }
}

TEST(MainBundle, IsReadBesideTheExecutableOrHandedOverInCode) {
    const auto clientId = [] { return NSBundle::mainBundle()->objectForInfoDictionaryKey("ZMBSDKClientID"); };
    EXPECT_EQ(NSBundle::mainBundle()->objectForInfoDictionaryKey("CFBundleIdentifier"),
              Value("com.example.tests <&>"));
    EXPECT_EQ(clientId(), Value(""));
    NSBundle::setMainBundle(std::make_shared<NSBundle>(Value::dictionary({{"ZMBSDKClientID", "mine"}})));
    EXPECT_EQ(clientId(), Value("mine"));
    NSBundle::setMainBundle(nullptr);
    EXPECT_EQ(clientId(), Value(""));
}

// Messages
// -------------------------------------------------------------------------------------------------------

class LocalizedStringTest : public ::testing::Test {
protected:
    /// The message as a process with these variables sees it.
    std::string message(std::vector<std::pair<const char*, const char*>> environment,
                        std::optional<std::string_view> key = "server_error",
                        std::optional<std::string_view> value = "",
                        std::optional<std::string_view> table = std::nullopt) const {
        for (const char* name : {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"})
            unsetenv(name);
        for (const auto& [name, text] : environment)
            setenv(name, text, 1);
        return bundle.localizedStringForKey(key, value, table);
    }

    const NSBundle bundle{Value(), NSBundle::Catalogues{ZEMBRA_TEST_LOCALE_DIRECTORY, "messages"}};
};

TEST_F(LocalizedStringTest, FollowsTheLanguagesOfTheEnvironment) {
    const std::string german = "Der Dienst ist gestört.", english = "The service is out of order.";
    EXPECT_EQ(message({}), english) << "the development language, in a process without a locale";
    EXPECT_EQ(message({{"LANG", "C.UTF-8"}}), english);
    EXPECT_EQ(message({{"LANG", "de_AT.UTF-8@euro"}}), german);
    EXPECT_EQ(message({{"LC_MESSAGES", "de"}, {"LANG", "en_GB"}}), german);
    EXPECT_EQ(message({{"LC_ALL", "en_GB"}, {"LC_MESSAGES", "de"}}), english);
    EXPECT_EQ(message({{"LC_ALL", ""}, {"LC_MESSAGES", "de"}}), german) << "empty is like absent";
    EXPECT_EQ(message({{"LANGUAGE", "xx::de_CH:en"}, {"LANG", "C"}}), german);
    EXPECT_EQ(message({{"LANGUAGE", "fr"}, {"LANG", "de_DE"}}), german) << "the French one is not in UTF-8";
    EXPECT_EQ(message({{"LANG", "de/../de"}}), english) << "a path is no language";
}

TEST_F(LocalizedStringTest, FallsBackToTheValueAndThenTheKey) {
    const std::pair<const char*, const char*> german = {"LANG", "de_DE"};
    EXPECT_EQ(message({german}, "network_error"), "There is no connection.") << "a text only English has";
    EXPECT_EQ(message({german}, "unknown"), "unknown");
    EXPECT_EQ(message({german}, "unknown", "default"), "default");
    EXPECT_EQ(message({german}, "unknown", std::nullopt), "unknown");
    EXPECT_EQ(message({german}, "untranslated"), "untranslated");
    EXPECT_EQ(message({german}, "file"), "Datei");
    EXPECT_EQ(message({german}, ""), "") << "the catalogue's header is no message";
    EXPECT_EQ(message({german}, std::nullopt), "");
    EXPECT_EQ(message({german}, std::nullopt, "default"), "default");
    EXPECT_EQ(message({german}, "server_error", "", "no such table"), "server_error");
    EXPECT_EQ(message({german}, "server_error", "", "../LC_MESSAGES/messages"), "server_error");
    EXPECT_EQ(NSBundle(Value()).localizedStringForKey("server_error", "", std::nullopt), "server_error");
}

TEST(MessageCatalogues, MayComeFromAMachineOfTheOtherByteOrder) {
    std::ifstream stream(ZEMBRA_TEST_LOCALE_DIRECTORY "/de/LC_MESSAGES/messages.mo", std::ios::binary);
    std::string catalogue{std::istreambuf_iterator<char>(stream), {}};
    ASSERT_GT(catalogue.size(), 28u);
    std::uint32_t hashTable[2];  // how many entries it has, and where it starts
    std::memcpy(hashTable, catalogue.data() + 20, sizeof hashTable);
    // The header, both tables and the hash table are numbers of four bytes.
    const auto end = catalogue.begin() + hashTable[1] + 4 * hashTable[0];
    for (auto word = catalogue.begin(); word < end; word += 4)
        std::reverse(word, word + 4);
    const TemporaryFolder folder;
    folder.write("en/LC_MESSAGES/messages.mo", catalogue);
    const NSBundle bundle(Value(), NSBundle::Catalogues{folder.path, "messages"});
    EXPECT_EQ(bundle.localizedStringForKey("server_error", "", std::nullopt), "Der Dienst ist gestört.");
}

}  // namespace
}  // namespace zembra::test
