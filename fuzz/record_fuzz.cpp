// The record decoders: the packed stream form (big-endian, shorter records
// tolerated) and the var form of every Qel record; the first two bytes of
// the input pick the record, the rest is its form.
#include <cstdint>
#include <vector>

#include "network/xmppacket.h"
#include "record/fielddesc.h"
#include "record/gen/qelfield.h"

namespace {

const std::vector<const Base::FieldDesc*>& descs() {
    static std::vector<const Base::FieldDesc*> all = [] {
        std::vector<const Base::FieldDesc*> found;
        for (unsigned int id = 0; id < 65535; id++)
            if (const Base::FieldDesc* desc = get_qel_field_desc(static_cast<unsigned short>(id)))
                found.push_back(desc);
        return found;
    }();
    return all;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2 || descs().empty()) return 0;
    const Base::FieldDesc* desc = descs()[(data[0] << 8 | data[1]) % descs().size()];
    // The form in a buffer of exactly its size.
    std::vector<char> form(data + 2, data + size);
    std::vector<char> record(desc->struct_size);
    int length = int(form.size());
    Network::XmpPacket::from_stream(desc, record.data(), form.data(), length, false);
    Network::XmpPacket::from_stream(desc, record.data(), form.data(), length, true);
    desc->from_var_stream(record.data(), form.data(), length);
    return 0;
}
