// LogSaver drains trace flows into <prefix>_<n>.slog, 100 records a call.
#include "network/logsaver.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

using Base::DataFlow;

namespace {

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream all;
    all << in.rdbuf();
    return all.str();
}

void append(DataFlow* flow, const std::string& text) {
    char* room = flow->alloc_object(static_cast<unsigned short>(text.size()));
    std::memcpy(room, text.data(), text.size());
    flow->commit_object(static_cast<unsigned short>(text.size()), true);
}

}  // namespace

TEST(LogSaver, DrainsFlowsIntoNumberedFiles) {
    char pattern[] = "/tmp/logsaver_XXXXXX";
    std::string dir = mkdtemp(pattern);
    std::string prefix = dir + "/log";
    DataFlow first(1, 0, 0, nullptr, nullptr, 0, nullptr, false, false);
    DataFlow second(2, 0, 0, nullptr, nullptr, 0, nullptr, false, false);
    DataFlow* flows[] = {&first, &second};
    std::string expect_first, expect_second;
    for (int i = 0; i < 150; i++) {
        std::string record = "[" + std::to_string(i) + "]";
        append(&first, record);
        expect_first += record;
    }
    append(&second, "only");
    expect_second = "only";
    {
        Network::LogSaver saver(prefix.c_str(), flows, 2);
        EXPECT_TRUE(saver.on_invoke());
        // 100 of the first flow so far, all of the second.
        std::string part;
        for (int i = 0; i < 100; i++) part += "[" + std::to_string(i) + "]";
        EXPECT_EQ(read_file(prefix + "_1.slog"), part);
        EXPECT_EQ(read_file(prefix + "_2.slog"), expect_second);
        EXPECT_TRUE(saver.on_invoke());
        EXPECT_EQ(read_file(prefix + "_1.slog"), expect_first);
        EXPECT_FALSE(saver.on_invoke());
    }
    // Files are opened for appending: a second run adds to them.
    {
        Network::LogSaver saver(prefix.c_str(), flows + 1, 1);
        EXPECT_TRUE(saver.on_invoke());
        EXPECT_EQ(read_file(prefix + "_1.slog"), expect_first + expect_second);
    }
    // A file that cannot be opened: records are read and dropped.
    {
        std::string missing = dir + "/no/such/dir";
        Network::LogSaver saver(missing.c_str(), flows, 1);
        EXPECT_TRUE(saver.on_invoke());
        EXPECT_TRUE(saver.on_invoke());
        EXPECT_FALSE(saver.on_invoke());
    }
    std::system(("rm -rf " + dir).c_str());
}
