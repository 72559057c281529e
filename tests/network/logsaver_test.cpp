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
    std::stringstream all;
    all << std::ifstream(path, std::ios::binary).rdbuf();
    return all.str();
}

// Appends records [from] .. [to - 1] to flow and gives their text.
std::string append(DataFlow* flow, int from, int to) {
    std::string all;
    for (int i = from; i < to; i++) {
        std::string text = "[" + std::to_string(i) + "]";
        std::memcpy(flow->alloc_object(static_cast<unsigned short>(text.size())), text.data(), text.size());
        flow->commit_object(static_cast<unsigned short>(text.size()), true);
        all += text;
    }
    return all;
}

}  // namespace

TEST(LogSaver, DrainsFlowsIntoNumberedFiles) {
    char pattern[] = "/tmp/logsaver_XXXXXX";
    std::string dir = mkdtemp(pattern), prefix = dir + "/log";
    DataFlow first(1, 0, 0, nullptr, nullptr, 0, nullptr, false, false);
    DataFlow second(2, 0, 0, nullptr, nullptr, 0, nullptr, false, false);
    DataFlow* flows[] = {&first, &second};
    std::string head = append(&first, 0, 100), tail = append(&first, 100, 150), only = append(&second, 7, 8);
    {
        Network::LogSaver saver(prefix.c_str(), flows, 2);
        EXPECT_TRUE(saver.on_invoke());
        EXPECT_EQ(read_file(prefix + "_1.slog"), head);
        EXPECT_EQ(read_file(prefix + "_2.slog"), only);
        EXPECT_TRUE(saver.on_invoke());
        EXPECT_EQ(read_file(prefix + "_1.slog"), head + tail);
        EXPECT_FALSE(saver.on_invoke());
    }
    {  // Files are opened for appending: a second run adds to them.
        Network::LogSaver saver(prefix.c_str(), flows + 1, 1);
        EXPECT_TRUE(saver.on_invoke());
        EXPECT_EQ(read_file(prefix + "_1.slog"), head + tail + only);
    }
    {  // A file that cannot be opened: records are read and dropped.
        Network::LogSaver saver((dir + "/no/such/dir").c_str(), flows, 1);
        EXPECT_TRUE(saver.on_invoke());
        EXPECT_TRUE(saver.on_invoke());
        EXPECT_FALSE(saver.on_invoke());
    }
    std::system(("rm -rf " + dir).c_str());
}
