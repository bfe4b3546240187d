// What the HTTP client sends by default, and what it makes of an answer, without a server.

#include <gmock/gmock.h>

#include <ZembraPlatform/AFHTTPSessionManager.h>
#include <ZembraPlatform/NSBundle.h>

namespace zembra {
namespace {

TEST(AFHTTPRequestSerializerTest, FormsCarryAnyBytes) {
    const std::string_view marks("-._~ !\"#$%&'()*+,/:;<=>?@[\\]^`{|}\r\n\x7F\xC3\xBC\0", 39);
    const std::string encoded =
        "-._~%20%21%22%23%24%25%26%27%28%29%2A%2B%2C%2F%3A%3B%3C%3D%3E%3F%40%5B%5C%5D%5E%60%7B%7C%7D%0D%0A%"
        "7F%C3%BC%00";
    const Value mixed = Value::dictionary(
        {{marks, marks}, {"azAZ09", true}, {"a", Value::null()}, {"l", Value::array({1, "b"})}});
    EXPECT_EQ(AFHTTPRequestSerializer::formWithParameters(mixed),
              encoded + "=" + encoded + "&azAZ09=true&a=null&l=%5B1%2C%22b%22%5D");
    EXPECT_EQ(AFHTTPRequestSerializer::formWithParameters("a=b"), "");
}

TEST(AFHTTPRequestSerializerTest, HeadersStartWithAUserAgentAndCompareWithoutRegardToCase) {
    const struct {
        Value info;
        std::string agent;
    } cases[] = {
        {Value::dictionary(
             {{"CFBundleName", "Map"}, {"CFBundleShortVersionString", "2.1"}, {"CFBundleVersion", 7}}),
         "Map/2.1"},
        {Value::dictionary({{"CFBundleName", "a\r\nb\xC3\xA9\x7F c"}, {"CFBundleVersion", 7}}),
         "a__b___ c/7"},
        {{}, "AFHTTPSerializerTests"},
    };
    for (const auto& [info, expected] : cases) {
        NSBundle::setMainBundle(std::make_shared<NSBundle>(info));
        AFHTTPRequestSerializer serializer;
        const std::string agent = serializer.valueForHTTPHeaderField("USER-AGENT").value();
        EXPECT_EQ(agent.substr(0, agent.find(" (Linux ")), expected);
        serializer.setValue("own", "user-Agent");
        EXPECT_EQ(serializer.HTTPRequestHeaders(), (NSHTTPURLResponse::HeaderFields{{"User-Agent", "own"}}));
        serializer.setValue(std::nullopt, "user-agent");
        EXPECT_EQ(serializer.valueForHTTPHeaderField("User-Agent"), std::nullopt);
    }
}

TEST(AFHTTPResponseSerializerTest, JudgesStatusThenContentTypeThenBody) {
    constexpr NSInteger kStatus = AFHTTPSessionErrorUnacceptableStatus;
    constexpr NSInteger kType = AFHTTPSessionErrorUnacceptableContentType;
    constexpr NSInteger kBody = AFHTTPSessionErrorCannotDecodeBody;
    const struct {
        NSInteger status;
        const char* contentType;
        const char* body;
        NSInteger error;
        Value object = {};
    } cases[] = {
        {200, "application/json", "{\"a\":1}", 0, Value::dictionary({{"a", 1}})},
        {299, "\tApplication/JSON ;charset=utf-8", " [1] ", 0, Value::array({1})},
        {204, nullptr, "", 0},
        {200, "application/json", "", 0},
        {200, "text/html", "", kType},
        {200, "application/jsonp", "{}", kType},
        {200, nullptr, "{}", kType},
        {199, "application/json", "{}", kStatus},
        {300, "text/html", "<", kStatus},
        {200, "application/json", "{}{}", kBody},
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
        EXPECT_EQ(error ? error->code() : 0, code);
        if (!error) continue;
        EXPECT_EQ(error->domain(), AFHTTPSessionErrorDomain);
        const Value& info = error->userInfo();
        EXPECT_EQ(info[AFNetworkingOperationFailingURLResponseErrorKey],
                  code == kBody ? Value() : Value(response));
        EXPECT_EQ(info[NSUnderlyingErrorKey].as<NSError>() != nullptr, code == kBody);
    }
}

}  // namespace
}  // namespace zembra
