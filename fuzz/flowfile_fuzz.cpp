// A flow file as found on disk after a crash or in the hands of someone
// else: the loader takes what is whole and stops at the first torn or
// forged record.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "flow/dataflow.h"
#include "flow/flowfile.h"

namespace {

// The run's own directory, gone when the run ends (each input's file is
// removed after it).
struct ScratchDir {
    ScratchDir() {
        char name[] = "/tmp/qel_fuzz_flowXXXXXX";
        made = mkdtemp(name) != nullptr;
        path = made ? name : "/tmp";
    }
    ~ScratchDir() {
        if (made) rmdir(path.c_str());
    }
    bool made;
    std::string path;
};

const std::string& dir() {
    static ScratchDir scratch;
    return scratch.path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // One flow for the whole run, emptied each time: a fresh one costs a
    // block of a megabyte.
    static Base::DataFlow flow(7, 0, 0, nullptr, nullptr, 0, nullptr, false, false);
    flow.clear(0);
    char path[512];
    flow.get_file_name(dir().c_str(), "fuzz", path);
    FILE* file = std::fopen(path, "wb");
    if (!file) return 0;
    std::fwrite(data, 1, size, file);
    std::fclose(file);
    {
        Base::DataFlow::Loader loader(&flow, dir().c_str(), "fuzz", 0, nullptr);
        while (loader.invoke()) {
        }
    }
    Base::DataFlow::Iterator it(&flow, nullptr, nullptr, nullptr);
    // Every byte handed out is read, so that a record reaching past what
    // was loaded is seen.
    volatile unsigned long sum = 0;
    while (const Base::DataFlow::Item* item = it.next())
        for (unsigned int i = 0; i < item->length; i++) sum = sum + static_cast<unsigned char>(item->data[i]);
    std::remove(path);
    return 0;
}
