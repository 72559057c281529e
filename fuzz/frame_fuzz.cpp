// The read path's decoding of one frame behind its 4-byte transport header:
// the Crp header, zero decompression, the Qelc header, the record walk, and
// each known record decoded by its catalogue description.
#include <cstdint>
#include <cstring>
#include <vector>

#include "network/crppacket.h"
#include "network/qelcpacket.h"
#include "network/xmppacket.h"
#include "record/fielddesc.h"
#include "record/gen/qelfield.h"

using Network::CrpPacket;
using Network::QelcPacket;
using Network::XmpPacket;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < size_t(CrpPacket::HEADER_SIZE) || size > 2 * XmpPacket::MAX_PACKAGE_SIZE) return 0;
    CrpPacket::Header crp;
    CrpPacket::from_stream(&crp, reinterpret_cast<const char*>(data));
    const uint8_t* body = data + CrpPacket::HEADER_SIZE;
    int length = int(size) - CrpPacket::HEADER_SIZE;
    std::vector<unsigned char> plain(2 * XmpPacket::MAX_PACKAGE_SIZE);
    if (crp.Method == CrpPacket::METHOD_ZERO) {
        int out = int(plain.size());
        if (CrpPacket::decode_zero(plain.data(), out, body, length) != 0) return 0;
        length = out;
    } else {
        std::memcpy(plain.data(), body, size_t(length));
    }
    if (length < QelcPacket::HEADER_SIZE) return 0;
    // Exactly the decoded bytes, so that a read past them is seen.
    std::vector<char> packet(plain.begin(), plain.begin() + length);
    QelcPacket::Header header;
    QelcPacket::from_stream(&header, packet.data());
    if (QelcPacket::HEADER_SIZE + header.BodyLength > length) return 0;
    QelcPacket::Iterator it(&header, packet.data() + QelcPacket::HEADER_SIZE);
    std::vector<char> record;
    const Base::FieldDesc* last = nullptr;
    for (unsigned short id = it.next(); id != QelcPacket::END; id = it.next()) {
        const Base::FieldDesc* desc = get_qel_field_desc(id);
        if (!desc) continue;
        record.assign(desc->struct_size, '\0');
        it.get_field(record.data(), desc, false);
        last = desc;
    }
    // At the end mark there is no current record: nothing may be read.
    if (last) it.get_field(record.data(), last, true);
    return 0;
}
