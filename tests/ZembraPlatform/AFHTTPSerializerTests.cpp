#include <string>
#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ZembraPlatform/AFHTTPSessionManager.h>
#include <ZembraPlatform/NSBundle.h>

#include "support/ErrorMatchers.h"

namespace zembra {
namespace {

TEST(AFHTTPRequestSerializerTest, FormsCarryAnyBytes) {
    const std::string_view marks("-._~ !\"#$%&'()*+,/:;<=>?@[\\]^`{|}\r\n\x7F\xC3\xBC\0", 39);
    const std::string encoded =
        "-._~%20%21%22%23%24%25%26%27%28%29%2A%2B%2C%2F%3A%3B%3C%3D%3E%3F%40%5B%5C%5D%5E%60%7B%7C%7D%0D%0A%"
        "7F%C3%BC%00";
    const Value mixed = Value::dictionary(
        {{marks, marks}, {"azAZ09", true}, {"a", Value::null()}, {"n", 1.5}, {"l", Value::array({1, "b"})}});
    EXPECT_EQ(AFHTTPRequestSerializer::formWithParameters(mixed),
              encoded + "=" + encoded + "&azAZ09=true&a=null&n=1.5&l=%5B1%2C%22b%22%5D");
    for (const Value& none : {Value(), Value::dictionary({}), Value("a=b"), Value::array({1})})
        EXPECT_EQ(AFHTTPRequestSerializer::formWithParameters(none), "");
}

TEST(AFHTTPRequestSerializerTest, HeadersStartWithAUserAgentAndCompareWithoutRegardToCase) {
    const std::pair<std::vector<Value::Entry>, std::string> cases[] = {
        {{{"CFBundleName", "Map"}, {"CFBundleShortVersionString", "2.1"}, {"CFBundleVersion", 7}}, "Map/2.1"},
        {{{"CFBundleName", "a\r\nb\xC3\xA9\x7F c"}, {"CFBundleVersion", 7}}, "a__b___ c/7"},
        {{}, "AFHTTPSerializerTests"},
    };
    for (const auto& [info, expected] : cases) {
        const auto bundle = std::make_shared<NSBundle>(Value::dictionary(info));
        NSBundle::setMainBundle(info.empty() ? nullptr : bundle);
        AFHTTPRequestSerializer serializer;
        const std::string agent = serializer.valueForHTTPHeaderField("USER-AGENT").value();
        EXPECT_EQ(agent.substr(0, agent.find(" (Linux ")), expected);
        serializer.setValue("own", "user-Agent");
        EXPECT_EQ(serializer.valueForHTTPHeaderField("User-agent"), "own");
        EXPECT_EQ(serializer.HTTPRequestHeaders().size(), 1u);
        serializer.setValue(std::nullopt, "user-agent");
        EXPECT_EQ(serializer.valueForHTTPHeaderField("User-Agent"), std::nullopt);
    }
}

TEST(AFHTTPResponseSerializerTest, JudgesStatusThenContentTypeThenBody) {
    constexpr NSInteger kStatus = AFHTTPSessionErrorUnacceptableStatus;
    constexpr NSInteger kType = AFHTTPSessionErrorUnacceptableContentType;
    // Status, content type, body, then the error's code, or 0 and the object.
    const std::tuple<NSInteger, const char*, const char*, NSInteger, Value> cases[] = {
        {200, "application/json", "{\"a\":1}", 0, Value::dictionary({{"a", 1}})},
        {299, "Application/JSON;charset=utf-8", " [1] ", 0, Value::array({1})},
        {201, "\tapplication/json ; a=b", "\"s\"", 0, "s"},
        {200, "application/json", "null", 0, Value::null()},
        {204, nullptr, "", 0, {}},
        {200, "application/json", "", 0, {}},
        {200, "text/html", "", kType, {}},
        {200, "application/jsonp", "{}", kType, {}},
        {200, "application/json, text/html", "{}", kType, {}},
        {200, nullptr, "{}", kType, {}},
        {199, "application/json", "{}", kStatus, {}},
        {300, "application/json", "{}", kStatus, {}},
        {401, "text/html", "<", kStatus, {}},
        {200, "application/json", "{}{}", AFHTTPSessionErrorCannotDecodeBody, {}},
    };
    AFHTTPResponseSerializer serializer;
    serializer.setAcceptableContentTypes({"application/JSON"});
    for (const auto& [status, contentType, body, code, object] : cases) {
        SCOPED_TRACE(std::to_string(status) + ' ' + (contentType ? contentType : "-") + ' ' + body);
        NSHTTPURLResponse::HeaderFields fields;
        if (contentType) fields["CONTENT-TYPE"] = contentType;
        const auto response = std::make_shared<NSHTTPURLResponse>(NSURL::URLWithString("u"), status, fields);
        NSErrorPtr error;
        EXPECT_EQ(serializer.responseObjectForResponse(response, body, &error), object);
        EXPECT_EQ(error == nullptr, code == 0);
        if (code == 0) continue;
        ASSERT_THAT(error, test::IsError(AFHTTPSessionErrorDomain, code));
        const bool isDecoded = code != AFHTTPSessionErrorCannotDecodeBody;
        const Value carried = error->userInfo()[AFNetworkingOperationFailingURLResponseErrorKey];
        EXPECT_EQ(carried, isDecoded ? Value(response) : Value());
        EXPECT_EQ(error->userInfo()[NSUnderlyingErrorKey].as<NSError>() != nullptr, !isDecoded);
    }
}

}  // namespace
}  // namespace zembra
