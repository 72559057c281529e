#include "network/uri.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

// Front addresses, partial texts, and a text longer than the buffer is cut.
TEST(Uri, FrontAddressesAndPartialTexts) {
    Base::Uri uri("tcp://host:80/a/b");
    EXPECT_STREQ(uri.get_protocol(), "tcp");
    EXPECT_STREQ(uri.get_host(), "host");
    EXPECT_EQ(uri.get_port(), 80);
    EXPECT_STREQ(uri.get_path(), "a/b");
    uri.parse("tcp://:9");
    EXPECT_STREQ(uri.get_host(), "");
    EXPECT_EQ(uri.get_port(), 9);
    EXPECT_EQ(uri.get_path(), nullptr);
    uri.parse("127.0.0.1");
    EXPECT_EQ(uri.get_protocol(), nullptr);
    EXPECT_EQ(uri.get_host(), nullptr);
    EXPECT_EQ(uri.get_port(), 0);
    uri.parse("tcp:127.0.0.1:5");
    EXPECT_STREQ(uri.get_protocol(), "tcp");
    EXPECT_EQ(uri.get_host(), nullptr);
    uri.parse(("tcp://" + std::string(200, 'h') + ":1").c_str());
    EXPECT_EQ(std::strlen(uri.get_text()), 127u);
}
