#include <cstdio>
#include <string>

#include <gtest/gtest.h>

#include <ZembraPlatform/AFHTTPSessionManager.h>
#include <ZembraPlatform/NSBundle.h>

namespace zembra {
namespace {

TEST(AFHTTPRequestSerializerTest, FormsCarryAnyBytes) {
    std::string bytes;
    for (int byte = 0; byte < 256; ++byte)
        bytes += static_cast<char>(byte);
    const std::string form = AFHTTPRequestSerializer::formWithParameters(Value::dictionary({{bytes, bytes}}));
    std::string expected;  // letters, digits and four marks as they are, all else as two digits
    for (const char byte : bytes) {
        char code[4];
        std::snprintf(code, sizeof code, "%%%02X", static_cast<unsigned char>(byte));
        const bool isPlain = std::isalnum(static_cast<unsigned char>(byte)) ||
                             std::string("-._~").find(byte) != std::string::npos;
        expected += isPlain ? std::string(1, byte) : code;
    }
    EXPECT_EQ(form, expected + '=' + expected);

    const Value mixed =
        Value::dictionary({{"z", true}, {"a", Value::null()}, {"n", 1.5}, {"l", Value::array({1, "b"})}});
    EXPECT_EQ(AFHTTPRequestSerializer::formWithParameters(mixed), "z=true&a=null&n=1.5&l=%5B1%2C%22b%22%5D");
    for (const Value& none : {Value(), Value::dictionary({}), Value("a=b"), Value::array({1})})
        EXPECT_EQ(AFHTTPRequestSerializer::formWithParameters(none), "");
}

TEST(AFHTTPRequestSerializerTest, HeaderNamesCompareWithoutRegardToCase) {
    AFHTTPRequestSerializer serializer;
    serializer.setValue("one", "X-Name");
    serializer.setValue("two", "x-name");
    EXPECT_EQ(serializer.valueForHTTPHeaderField("X-NAME"), "two");
    serializer.setValue(std::nullopt, "X-name");
    EXPECT_EQ(serializer.valueForHTTPHeaderField("x-name"), std::nullopt);
    EXPECT_EQ(serializer.HTTPRequestHeaders().size(), 1u);
}

TEST(AFHTTPRequestSerializerTest, TheUserAgentNamesTheHostInSafeCharacters) {
    const auto agentOf = [](Value info) {
        NSBundle::setMainBundle(std::make_shared<NSBundle>(std::move(info)));
        const std::string agent = AFHTTPRequestSerializer().valueForHTTPHeaderField("User-Agent").value();
        NSBundle::setMainBundle(nullptr);
        return agent.substr(0, agent.find(" (Linux "));
    };
    const Value named = Value::dictionary(
        {{"CFBundleName", "Trail Map"}, {"CFBundleShortVersionString", "2.1"}, {"CFBundleVersion", 7}});
    EXPECT_EQ(agentOf(named), "Trail Map/2.1");
    EXPECT_EQ(agentOf(Value::dictionary({{"CFBundleName", "a\r\nb\xC3\xA9"}, {"CFBundleVersion", 7}})),
              "a__b__/7");
    EXPECT_EQ(agentOf({}), "AFHTTPSerializerTests");
}

TEST(AFHTTPResponseSerializerTest, JudgesStatusThenContentTypeThenBody) {
    constexpr NSInteger kStatus = AFHTTPSessionErrorUnacceptableStatus;
    constexpr NSInteger kType = AFHTTPSessionErrorUnacceptableContentType;
    constexpr NSInteger kBody = AFHTTPSessionErrorCannotDecodeBody;
    const struct {
        NSInteger status;
        const char* contentType;
        const char* body;
        NSInteger code;  // 0 where the answer is accepted
        Value object = {};
    } kCases[] = {
        {200, "application/json", "{\"a\":1}", 0, Value::dictionary({{"a", 1}})},
        {299, "Application/JSON;charset=utf-8", " [1] ", 0, Value::array({1})},
        {201, "\tapplication/json ; a=b", "\"s\"", 0, "s"},
        {200, "application/json", "null", 0, Value::null()},
        {204, nullptr, "", 0},
        {200, "application/json", "", 0},
        {200, "text/html", "", kType},
        {200, "application/jsonp", "{}", kType},
        {200, "application/json, text/html", "{}", kType},
        {200, nullptr, "{}", kType},
        {199, "application/json", "{}", kStatus},
        {300, "application/json", "{}", kStatus},
        {401, "text/html", "<", kStatus},
        {0, nullptr, "", kStatus},
        {200, "application/json", "{}{}", kBody},
        {200, "application/json", "\xEF\xBB\xBF{}", kBody},
    };
    AFHTTPResponseSerializer serializer;
    serializer.setAcceptableContentTypes({"application/JSON"});
    for (const auto& [status, contentType, body, code, object] : kCases) {
        SCOPED_TRACE(std::to_string(status) + ' ' + (contentType ? contentType : "-") + ' ' + body);
        NSHTTPURLResponse::HeaderFields fields;
        if (contentType) fields["CONTENT-TYPE"] = contentType;
        const auto response = std::make_shared<NSHTTPURLResponse>(NSURL::URLWithString("u"), status, fields);
        NSErrorPtr error;
        EXPECT_EQ(serializer.responseObjectForResponse(response, body, &error), object);
        ASSERT_EQ(error ? error->code() : 0, code);
        if (!error) continue;
        EXPECT_EQ(error->domain(), AFHTTPSessionErrorDomain);
        const Value carried = error->userInfo()[AFNetworkingOperationFailingURLResponseErrorKey];
        EXPECT_EQ(carried, code == kBody ? Value() : Value(response));
        EXPECT_EQ(error->userInfo()[NSUnderlyingErrorKey].as<NSError>() != nullptr, code == kBody);
    }
}

}  // namespace
}  // namespace zembra
