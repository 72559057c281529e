#include "text/json.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "containers/queue.h"
#include "containers/vector.h"
#include "tests/support/temp_dir.h"

using Base::Json;
using test_support::TempDir;

namespace {

bool parse(Json& json, const std::string& text) {
    // A heap copy of exactly the text's length, without a terminator, so that
    // AddressSanitizer catches any read beyond the given length.
    char* copy = static_cast<char*>(std::malloc(text.size() ? text.size() : 1));
    std::memcpy(copy, text.data(), text.size());
    bool ok = json.parse(copy, static_cast<int>(text.size()));
    std::free(copy);
    return ok;
}

const Json::Value* value_of(const Json& json, const char* name) {
    const Json::Property* property = json.get_root()->get_property(name);
    return property ? property->get_value() : nullptr;
}

std::string output(const Json& json) {
    int length = json.output(static_cast<char*>(nullptr), 0);
    std::vector<char> buffer(length + 1);
    EXPECT_EQ(length, json.output(buffer.data(), 0));
    return std::string(buffer.data(), length);
}

}  // namespace

TEST(JsonTest, NumbersStayScaledIntegers) {
    Json json;
    ASSERT_TRUE(parse(json, "{\"a\":1.50, \"b\":-0.05, \"c\":42, \"d\":0.1, \"e\":123456789,"
                            "\"f\":9.000000001, \"g\":123456789012, \"h\":7.}"));
    // Each number as its digits and the count of decimals behind the point.
    for (auto [name, number, places] : {std::tuple<const char*, long, int>{"a", 150, 2}, {"b", -5, 2}, {"c", 42, 0},
                                        {"f", 9000000001L, 9}, {"h", 7, 0}}) {
        int decimals = -1;
        EXPECT_EQ(number, Json::get_number(value_of(json, name), decimals)) << name;
        EXPECT_EQ(places, decimals) << name;
    }
    EXPECT_EQ(Json::VALUE_NUMBER + 1, value_of(json, "d")->type);
    EXPECT_DOUBLE_EQ(1.5, Json::get_float(value_of(json, "a")));
    // Twelve digits: the 32-bit weight wraps at the eleventh digit.
    int decimals = -1;
    EXPECT_EQ(3456789012L + 2L * 1410065408L + 1L * 1215752192L,
              Json::get_number(value_of(json, "g"), decimals));

    // Printing gives back the digits of the input, decimals and zeros included.
    std::string text = output(json);
    for (const char* printed : {"\"a\":1.50,", "\"b\":-0.05,", "\"c\":42,", "\"d\":0.1,", "\"f\":9.000000001,", "\"h\":7\n"})
        EXPECT_NE(std::string::npos, text.find(printed)) << printed;
}

TEST(JsonTest, StringsAndEscapes) {
    Json json;
    ASSERT_TRUE(parse(json, "{\"a\":\"\\u0041\", \"b\":\"\\u4E2D\", \"c\":\"q\\\"t\\\\s\\/\\b\\f\\n\\r\\t\","
                            "\"n\\u0061me\":\"x\"}"));
    EXPECT_STREQ("A", value_of(json, "a")->string);
    EXPECT_STREQ("\x4E\x2D", value_of(json, "b")->string);
    EXPECT_STREQ("q\"t\\s/\b\f\n\r\t", value_of(json, "c")->string);
    EXPECT_NE(nullptr, value_of(json, "name"));

    char escaped[64];
    EXPECT_EQ(19, Json::escape_to(escaped, "q\"t\\s/\b\f\n\r\t"));
    EXPECT_STREQ("q\\\"t\\\\s\\/\\b\\f\\n\\r\\t", escaped);
    EXPECT_EQ(19, Json::escape_to(nullptr, "q\"t\\s/\b\f\n\r\t"));
    EXPECT_EQ(3, Json::escape_to(escaped, "a\x01z"));  // no \u is ever written

    // The escaped text round-trips through output and a new parse.
    std::string text = output(json);
    EXPECT_NE(std::string::npos, text.find("\"q\\\"t\\\\s\\/\\b\\f\\n\\r\\t\""));
    Json again;
    ASSERT_TRUE(parse(again, text));
    EXPECT_STREQ("q\"t\\s/\b\f\n\r\t", value_of(again, "c")->string);

    char text_bad[] = "ab\\qc";
    EXPECT_FALSE(Json::escape_from(text_bad));
    char text_cut[] = "ab\\u00";
    EXPECT_FALSE(Json::escape_from(text_cut));
    char text_lone[] = "ab\\";
    EXPECT_FALSE(Json::escape_from(text_lone));

    EXPECT_FALSE(parse(json, "{\"a\":\"\\x\"}"));
    EXPECT_FALSE(parse(json, "{\"a\":\"\\u12\"}"));
    EXPECT_FALSE(parse(json, "{\"a\":\"abc"));
    EXPECT_FALSE(parse(json, "{\"a\":\"abc\\"));
}

TEST(JsonTest, NestedObjectsArraysAndLayout) {
    Json json;
    ASSERT_TRUE(parse(json, " \r\n{\"a\":[1,2,],\"o\":{\"p\":{\"q\":true},\"r\":null,\"s\":false,},"
                            "\"e\":[],\"x\":{},\"arr\":[{\"k\":\"v\"},[3]],} trailing text is ignored"));
    const Json::Value* a = value_of(json, "a");
    ASSERT_EQ(Json::VALUE_ARRAY, a->type);
    ASSERT_NE(nullptr, a->array->get(1));
    EXPECT_EQ(nullptr, a->array->get(2));
    EXPECT_EQ(2, static_cast<const Json::Value*>(a->array->get(1))->number);
    const Json::Object* o = value_of(json, "o")->object;
    const Json::Object* p = o->get_property("p")->get_value()->object;
    EXPECT_TRUE(p->get_property("q")->get_value()->boolean);
    EXPECT_EQ(Json::VALUE_NULL, o->get_property("r")->get_value()->type);
    EXPECT_EQ(Json::VALUE_BOOL, o->get_property("s")->get_value()->type);
    EXPECT_FALSE(o->get_property("s")->get_value()->boolean);

    EXPECT_EQ("{\n"
              "\t\"a\":\n\t[\n\t\t1,\n\t\t2\n\t],\n"
              "\t\"o\":\n\t{\n\t\t\"p\":\n\t\t{\n\t\t\t\"q\":true\n\t\t},\n\t\t\"r\":null,\n\t\t\"s\":false\n\t},\n"
              "\t\"e\":\n\t[\n\t],\n"
              "\t\"x\":\n\t{\n\t},\n"
              "\t\"arr\":\n\t[\n\t\t{\n\t\t\t\"k\":\"v\"\n\t\t},\n\t\t[\n\t\t\t3\n\t\t]\n\t]\n"
              "}\n",
              output(json));

    // A hidden property is neither found nor written, and the comma before
    // the last visible one goes with it.
    const_cast<Json::Property*>(json.get_root()->get_property("arr"))->set_hidden(true);
    EXPECT_EQ(nullptr, json.get_root()->get_property("arr"));
    std::string text = output(json);
    EXPECT_NE(std::string::npos, text.find("\t\"x\":\n\t{\n\t}\n}\n"));

    // The same through a stream.
    FILE* file = tmpfile();
    int length = json.output(file, 0);
    EXPECT_EQ(static_cast<long>(length), ftell(file));
    fclose(file);
}

TEST(JsonTest, MalformedTextFailsCleanly) {
    const char* bad[] = {
        "", "   ", "[1]", "{", "{\"a\"", "{\"a\":", "{\"a\":1", "{\"a\":1,", "{\"a\" 1}", "{a:1}",
        "{\"a\":[1,2}", "{\"a\":[1 2]}", "{\"a\":tru}", "{\"a\":nul", "{\"a\":{\"b\":[{\"c\":\"d}]}}",
        "{,}", "{\"a\":1,,}", "{\"a\":[,]}", "{\"a\":\"x\"\"b\":1}", "{\"a\":-x}", "{\"a\":1}x",
        // Numbers: no exponents, and no more than the nine decimals of the tables.
        "{\"a\":1e5}", "{\"a\":1.2.3}", "{\"a\":-}", "{\"a\":.5}", "{\"a\":0.1234567891}",
    };
    for (const char* text : bad) {
        Json json;
        bool ok = parse(json, text);
        if (std::strcmp(text, "{\"a\":1}x") == 0) {
            EXPECT_TRUE(ok);  // text behind the root is ignored
            continue;
        }
        EXPECT_FALSE(ok) << text;
        EXPECT_EQ(nullptr, json.get_root()) << text;
    }
    // Every prefix of a valid text: each must fail or pass without reading
    // past its length.
    std::string good = "{\"a\":[1.5,{\"b\":\"c\\u0041\\n\"},true,null],\"d\":-12}";
    for (size_t n = 0; n < good.size(); ++n) {
        Json json;
        EXPECT_FALSE(parse(json, good.substr(0, n))) << n;
    }
    Json json;
    EXPECT_TRUE(parse(json, good));

    // Deep nesting is refused instead of exhausting the stack.
    std::string deep = "{\"a\":" + std::string(100000, '[');
    EXPECT_FALSE(parse(json, deep));
    std::string fine = "{\"a\":" + std::string(100, '[') + std::string(100, ']') + "}";
    EXPECT_TRUE(parse(json, fine));
}

TEST(JsonTest, FilesMergeInOrder) {
    TempDir dir;
    std::string first = dir.write("first.json", "{\"name\":\"one\",\"a\":1}");
    std::string second = dir.write("second.json", "{\"name\":\"two\",\"b\":2.5}");
    std::string broken = dir.write("broken.json", "{\"name\":");
    std::string missing = dir.path + "/missing.json";

    Json json;
    ASSERT_TRUE(json.parse((first + " \t" + second).c_str(), true));
    EXPECT_STREQ("one", value_of(json, "name")->string);
    ASSERT_NE(nullptr, value_of(json, "b"));
    int count = 0;
    for (Base::Queue::Iterator it(json.get_root()->get_properties()); !it.is_end(); it.next()) ++count;
    EXPECT_EQ(4, count);

    EXPECT_TRUE(json.parse((missing + " " + second).c_str(), false));
    EXPECT_STREQ("two", value_of(json, "name")->string);
    EXPECT_TRUE(json.parse(missing.c_str(), false));
    ASSERT_NE(nullptr, json.get_root());
    EXPECT_EQ(nullptr, json.get_root()->get_property("name"));

    EXPECT_FALSE(json.parse((first + " " + missing).c_str(), true));
    EXPECT_EQ(nullptr, json.get_root());
    EXPECT_FALSE(json.parse((first + " " + broken).c_str(), false));
    EXPECT_EQ(nullptr, json.get_root());

    // A name in quotes keeps its blanks together, and its quotes.
    EXPECT_TRUE(json.parse(("'" + dir.path + "/a b.json'").c_str(), false));
    Json::Object* object = Json::parse_file(second.c_str());
    ASSERT_NE(nullptr, object);
    EXPECT_EQ(2.5, Json::get_float(object->get_property("b")->get_value()));
    delete object;
    EXPECT_EQ(nullptr, Json::parse_file(broken.c_str()));
    EXPECT_EQ(nullptr, Json::parse_file(missing.c_str()));
}
