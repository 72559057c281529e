// The text decoders of configuration and record files: Json, and Csv with
// a header line and data lines, quoted and plain.
#include <cstdint>
#include <string>

#include "text/csv.h"
#include "text/json.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    Base::Json json;
    json.parse(text.c_str(), int(text.size()));

    for (bool quoted : {false, true}) {
        Base::Csv csv(quoted, 512);
        size_t at = 0;
        bool head = true;
        while (at <= text.size()) {
            size_t end = text.find('\n', at);
            if (end == std::string::npos) end = text.size();
            std::string line = text.substr(at, end - at);
            if (head)
                head = !csv.read_head(line.c_str());
            else
                csv.read_data(line.c_str());
            at = end + 1;
        }
    }
    return 0;
}
