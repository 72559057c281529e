// Flow files: save, load, torn tails, versions, file readers, and a
// DataReader that falls back on the file and returns to memory.
#include "flow/flowfile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "flow/datamem.h"
#include "flow/datareader.h"
#include "containers/vector.h"
#include "tests/support/temp_dir.h"

using Base::DataFlow;
using Base::DataMem;
using test_support::TempDir;

namespace {

unsigned short record_size(unsigned long id) {
    return static_cast<unsigned short>(8 + (id * 2654435761u >> 5) % 700);
}

void write_record(DataFlow* flow, unsigned long id) {
    unsigned short size = record_size(id);
    char* room = flow->alloc_object(size);
    std::memcpy(room, &id, 8);
    for (unsigned short j = 8; j < size; j++) room[j] = static_cast<char>(id * 7 + j);
    flow->commit_object(size, false);
}

// Checks the records that stand back to back in [p, p + length), from id on;
// returns how many there were, or -1 on a wrong byte.
long check_run(const char* p, unsigned long length, unsigned long id) {
    long n = 0;
    while (length > 0) {
        unsigned short size = record_size(id);
        if (size > length) return -1;
        unsigned long got;
        std::memcpy(&got, p, 8);
        if (got != id) return -1;
        for (unsigned short j = 8; j < size; j++)
            if (p[j] != static_cast<char>(id * 7 + j)) return -1;
        p += size;
        length -= size;
        id++;
        n++;
    }
    return n;
}

long file_size(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? static_cast<long>(st.st_size) : -1;
}

void* version(unsigned long v) { return reinterpret_cast<void*>(v); }

// Loads the flow's file into it; the number of records loaded.
unsigned long load(DataFlow& flow, const std::string& dir, const char* name = nullptr) {
    DataFlow::Loader loader(&flow, dir.c_str(), name, 0, nullptr);
    unsigned long loaded = 0, last = 0;
    while (loader.invoke()) loaded++;
    if (loaded > 0) std::memcpy(&last, loader.get_last(), 8);
    EXPECT_EQ(last + (loaded > 0), flow.get_count()) << "the last record loaded";
    return loaded;
}

void expect_records(DataFlow& flow, unsigned long n) {
    DataFlow::Iterator it(&flow, nullptr, nullptr, nullptr);
    for (unsigned long id = 0; id < n; id++) {
        const DataFlow::Item* item = it.next();
        ASSERT_NE(item, nullptr) << id;
        ASSERT_EQ(item->length, record_size(id)) << id;
        ASSERT_EQ(check_run(item->data, item->length, id), 1) << id;
    }
}

void save_all(DataFlow::Saver& saver) {
    int got;
    while ((got = saver.invoke()) == 1) {
    }
    ASSERT_EQ(got, 0);
}

}  // namespace

TEST(FlowFile, SaveLoadAndTornTail) {
    TempDir dir;
    const unsigned long N = 3000;
    std::string path = dir.path + "/00000012.flow";
    {
        DataFlow flow(0x12, 0, 0, nullptr, nullptr, 0, version(5), false, false);
        for (unsigned long id = 0; id < N; id++) write_record(&flow, id);
        DataFlow::Saver saver(&flow, dir.path.c_str(), nullptr, false, nullptr, 0, nullptr);
        save_all(saver);
    }
    long whole = file_size(path);
    long expect = 2;
    for (unsigned long id = 0; id < N; id++) expect += 4 + record_size(id);
    ASSERT_EQ(whole, expect);

    // The process's view is thrown away and the file loaded back.
    {
        DataFlow flow(0x12, 0, 0, nullptr, nullptr, 0, version(5), false, false);
        ASSERT_EQ(load(flow, dir.path), N);
        expect_records(flow, N);
        EXPECT_EQ(file_size(path), whole);  // a clean end cuts nothing
    }
    // Cut inside the last record, then inside the last length word: each
    // load ends at the last whole record and cuts the file back to it.
    long before_last = whole - 4 - record_size(N - 1);
    long before_two = before_last - 4 - record_size(N - 2);
    struct Cut {
        long at;
        unsigned long records;
        long end;
    } cuts[] = {{whole - 3, N - 1, before_last}, {before_last - 2, N - 2, before_two}};
    for (const Cut& cut : cuts) {
        ASSERT_EQ(truncate(path.c_str(), cut.at), 0);
        DataFlow flow(0x12, 0, 0, nullptr, nullptr, 0, version(5), false, false);
        EXPECT_EQ(load(flow, dir.path), cut.records);
        EXPECT_EQ(file_size(path), cut.end);
    }
    // The Saver then appends behind the last whole record.
    {
        DataFlow flow(0x12, 0, 0, nullptr, nullptr, 0, version(5), false, false);
        ASSERT_EQ(load(flow, dir.path), N - 2);
        DataFlow::Saver saver(&flow, dir.path.c_str(), nullptr, true, nullptr, 0, nullptr);
        for (unsigned long id = N - 2; id < N + 10; id++) write_record(&flow, id);
        save_all(saver);
    }
    DataFlow flow(0x12, 0, 0, nullptr, nullptr, 0, version(5), false, false);
    ASSERT_EQ(load(flow, dir.path), N + 10);
    expect_records(flow, N + 10);
}

TEST(FlowFile, VersionsAndEmptyFiles) {
    TempDir dir;
    std::string path = dir.path + "/quotes.flow";
    // A file of 0 bytes: nothing loads, and a Saver writes a header.
    std::fclose(std::fopen(path.c_str(), "wb"));
    {
        DataFlow flow(1, 0, 0, nullptr, nullptr, 0, version(3), false, false);
        EXPECT_EQ(load(flow, dir.path, "quotes"), 0u);
        DataFlow::Saver saver(&flow, dir.path.c_str(), "quotes", true, nullptr, 0, nullptr);
        EXPECT_EQ(file_size(path), 2);
    }
    // A 2-byte file of a newer version: the flow takes the version.
    {
        DataFlow flow(1, 0, 0, nullptr, nullptr, 0, version(1), false, false);
        EXPECT_EQ(load(flow, dir.path, "quotes"), 0u);
        EXPECT_EQ(flow.get_version(), version(3));
    }
    // A flow newer than its file: the file is out of date and removed.
    {
        DataFlow flow(1, 0, 0, nullptr, nullptr, 0, version(4), false, false);
        DataFlow::Loader loader(&flow, dir.path.c_str(), "quotes", 0, nullptr);
        EXPECT_EQ(file_size(path), -1);
    }
    // The flow moves to a new version while saving: the file restarts.
    {
        DataFlow flow(1, 0, 0, nullptr, nullptr, 0, version(4), false, false);
        DataFlow::Saver saver(&flow, dir.path.c_str(), "quotes", false, nullptr, 0, nullptr);
        for (unsigned long id = 0; id < 50; id++) write_record(&flow, id);
        save_all(saver);
        DataFlow* next = flow.shift(version(5));
        for (unsigned long id = 0; id < 7; id++) write_record(next, id);
        save_all(saver);
        long expect = 2;
        for (unsigned long id = 0; id < 7; id++) expect += 4 + record_size(id);
        EXPECT_EQ(file_size(path), expect);
        FILE* f = std::fopen(path.c_str(), "rb");
        unsigned char header[2];
        ASSERT_EQ(std::fread(header, 1, 2, f), 2u);
        std::fclose(f);
        EXPECT_EQ(header[0] << 8 | header[1], 5);
    }
    // append false removes an old file first.
    {
        DataFlow flow(1, 0, 0, nullptr, nullptr, 0, version(5), false, false);
        DataFlow::Saver saver(&flow, dir.path.c_str(), "quotes", false, nullptr, 0, nullptr);
        EXPECT_EQ(file_size(path), 2);
        // Loader::truncate empties a file, header included.
        DataFlow other(1, 0, 0, nullptr, nullptr, 0, version(5), false, false);
        DataFlow::Loader loader(&other, dir.path.c_str(), "quotes", 0, nullptr);
        loader.truncate();
        EXPECT_EQ(file_size(path), 0);
    }
}

// A FileReader follows a file that a Saver on another thread is writing:
// it never hands out a partial record and picks up where it stopped.
TEST(FlowFile, FileReaderFollowsASaver) {
    TempDir dir;
    const unsigned long N = 4000;
    DataFlow flow(9, 0, 0, nullptr, nullptr, 100, nullptr, false, false);
    Base::Vector offsets(8, 64, 1, nullptr);
    std::string path = dir.path + "/00000009.flow";
    DataFlow::Saver saver(&flow, dir.path.c_str(), nullptr, false, nullptr, 64, &offsets);
    std::thread writer([&] {
        for (unsigned long id = 100; id < 100 + N; id++) {
            write_record(&flow, id);
            saver.invoke();
        }
    });
    DataFlow::FileReader reader(9, 100, path.c_str(), 64, &offsets);
    EXPECT_FALSE(reader.seek(99));
    unsigned long id = 100;
    std::string fault;
    while (id < 100 + N) {
        unsigned short length = 3000;
        const char* got = reader.read(length);
        if (!got) {
            std::this_thread::yield();
            continue;
        }
        long n = check_run(got, length, id);
        if (n <= 0) {
            fault = "bad run at " + std::to_string(id);
            break;
        }
        id += n;
        EXPECT_EQ(reader.tell(), id);
    }
    writer.join();
    EXPECT_EQ(fault, "");
    unsigned short length = 0;
    EXPECT_EQ(reader.read(length), nullptr);  // at the end: null, place kept
    EXPECT_EQ(reader.tell(), 100 + N);
    // Seeks by the offset table land on the right records.
    EXPECT_GT(offsets.get_count(), 60u);
    for (unsigned long to : {100ul, 128ul, 129ul, 2000ul, 4099ul}) {
        ASSERT_TRUE(reader.seek(to));
        length = 0;
        const char* got = reader.read(length);
        ASSERT_NE(got, nullptr);
        EXPECT_EQ(check_run(got, length, to), 1) << to;
    }
    // A length too small for the next record: null, the record stays.
    ASSERT_TRUE(reader.seek(500));
    length = 5;
    EXPECT_EQ(reader.read(length), nullptr);
    EXPECT_EQ(reader.tell(), 500u);
}

// A reader seeks far behind its recycle cell: it reads from the file, and
// comes back to memory by itself once it has caught up.
TEST(FlowFile, DataReaderFallsBackOnTheFileAndReturns) {
    TempDir dir;
    const unsigned long N = 20000;
    const unsigned long KEEP = 500;
    DataFlow flow(3, 0, 0, nullptr, nullptr, 0, nullptr, false, false);
    DataFlow::Recycler recycler(&flow, KEEP);
    Base::Vector offsets(8, 256, 1, nullptr);
    std::string path = dir.path + "/00000003.flow";
    unsigned long* saver_cell = recycler.alloc_reader();
    DataFlow::Saver saver(&flow, dir.path.c_str(), nullptr, false, saver_cell, 256, &offsets);
    unsigned long* cell = recycler.alloc_reader();
    Base::DataReader reader(&flow, nullptr, nullptr, cell, KEEP, path.c_str(), 256, &offsets,
                            nullptr);

    unsigned long id = 0;
    auto read_some = [&](unsigned long until, bool* saw_file) {
        while (id < until) {
            unsigned short length = 4000;
            const char* got = reader.read(length);
            if (saw_file && reader.in_file()) *saw_file = true;
            ASSERT_NE(got, nullptr) << id;
            long n = check_run(got, length, id);
            ASSERT_GT(n, 0) << id;
            id += n;
            ASSERT_EQ(reader.tell(), id);
        }
    };
    for (unsigned long i = 0; i < N; i++) {
        write_record(&flow, i);
        saver.invoke();
        if (i % 100 == 0) recycler.invoke();
        if (i % 3 == 0) read_some(i / 2, nullptr);  // the reader follows at half speed
    }
    read_some(N, nullptr);
    while (recycler.invoke()) {
    }
    EXPECT_GT(flow.get_recycle_count(), N / 2);
    EXPECT_FALSE(reader.in_file());

    // Seek back to the start: memory no longer has it.
    ASSERT_TRUE(reader.seek(0));
    EXPECT_TRUE(reader.in_file());
    EXPECT_TRUE(reader.available());
    id = 0;
    bool saw_file = false;
    read_some(N, &saw_file);
    EXPECT_TRUE(saw_file);
    EXPECT_FALSE(reader.in_file());  // back in memory
    unsigned short length = 0;
    EXPECT_EQ(reader.read(length), nullptr);
    EXPECT_FALSE(reader.available());
    write_record(&flow, N);
    EXPECT_TRUE(reader.available());
    const char* got = reader.read(length);
    ASSERT_NE(got, nullptr);
    EXPECT_EQ(check_run(got, length, N), 1);
    recycler.free_reader(cell);
}

TEST(FlowFile, DataReaderGathersAdjacentRecords) {
    DataFlow flow(3, 0, 0, nullptr, nullptr, 0, nullptr, false, false);
    for (unsigned long i = 0; i < 10; i++) write_record(&flow, i);
    Base::DataReader reader(&flow, nullptr, nullptr, nullptr, 0, "", 0, nullptr, nullptr);
    unsigned short length = 0;
    const char* got = reader.read(length);  // 0: exactly one record
    ASSERT_NE(got, nullptr);
    EXPECT_EQ(length, record_size(0));
    length = 3;  // smaller than the next record: null, length 0, kept
    EXPECT_EQ(reader.read(length), nullptr);
    EXPECT_EQ(length, 0);
    EXPECT_EQ(reader.tell(), 1u);
    length = static_cast<unsigned short>(record_size(1) + record_size(2) + record_size(3) - 1);
    got = reader.read(length);
    ASSERT_NE(got, nullptr);
    EXPECT_EQ(check_run(got, length, 1), 2);
    EXPECT_EQ(reader.tell(), 3u);
    length = 60000;
    got = reader.read(length);
    EXPECT_EQ(check_run(got, length, 3), 7);
    reader.reset();
    EXPECT_EQ(reader.tell(), 0u);
}

// A run that read() hands out ends where its block does. The step into the
// next block hands the run's block back to the writer, so it must wait for
// the next read(): here the writer fills two more blocks while the caller
// holds the run, and would write over it in reused memory. Likewise the hop
// past a finished version frees it, and must wait for the next read().
TEST(FlowFile, AHandedOutRunOutlivesTheStepPastIt) {
    DataFlow flow(3, 0, 0, nullptr, nullptr, 0, version(1), true, false);
    unsigned long written = 0;
    while (flow.mem->current.load() == flow.mem->head.load()) write_record(&flow, written++);
    write_record(&flow, written++);
    const unsigned long second_block = flow.mem->current.load()->first.load();
    Base::DataReader reader(&flow, nullptr, nullptr, nullptr, 0, "", 0, nullptr, nullptr);
    unsigned long run_first = 0;
    unsigned short length = 0;
    const char* run = nullptr;
    auto read_run = [&] {
        run_first = reader.tell();
        length = 60000;
        run = reader.read(length);
        return run ? check_run(run, length, run_first) : 0;
    };
    while (reader.tell() < second_block) ASSERT_GT(read_run(), 0);
    ASSERT_EQ(reader.tell(), second_block);
    for (int leave = 0; leave < 2; leave++) {  // the writer fills two more blocks
        const DataMem::Block* filling = flow.mem->current.load();
        while (flow.mem->current.load() == filling) write_record(&flow, written++);
    }
    EXPECT_EQ(check_run(run, length, run_first), static_cast<long>(second_block - run_first));
    ASSERT_GT(read_run(), 0);  // this step hands the first block back
    EXPECT_EQ(flow.get_recycle_count(), second_block);

    DataFlow* next_day = flow.shift(version(2));
    for (unsigned long i = 0; i < 5; i++) write_record(next_day, i);
    while (reader.tell() < written) ASSERT_GT(read_run(), 0);
    // The last run of the old version is whole; the next read hops.
    EXPECT_EQ(check_run(run, length, run_first), static_cast<long>(written - run_first));
    length = 60000;
    run = reader.read(length);
    EXPECT_EQ(check_run(run, length, 0), 5);
    EXPECT_EQ(reader.get_flow(), next_day);
    EXPECT_EQ(flow.mem->head.load(), nullptr);  // the old version went back after all
}
