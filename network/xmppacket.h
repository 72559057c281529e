// The outer frame of everything on a channel's TCP stream and in a packet
// flow: a 4-byte header (Type, ExtLength, big-endian Length) that says what
// follows and how long it is.
//
//   Type 0   control frame: Length 0, ExtLength bytes of one control item
//            (tag, value length, value). Tag 5 is a heartbeat, tag 7 a
//            heartbeat-interval announcement. Never compressed or enciphered.
//   Type 2   data frame: ExtLength 0, Length = 2 + 20 + body; a Crp header,
//            a Qelc header and the body follow.
//   Type 17  in-process reference: ExtLength 8, Length 0, then a native
//            pointer to a data frame held elsewhere. Never sent.
//
// A Qelc packet's body is a run of records, each behind a 4-byte FieldHeader
// (big-endian id and length). The class also holds the generic coders that
// walk a record's Base::FieldDesc: internal form (fixed-point members as
// scaled 64-bit integers) to stream form (packed, big-endian, fixed-point as
// doubles) and back, and internal form to struct form (same layout,
// fixed-point as native doubles) and back. A source shorter than the record
// is an older version: members that it doesn't cover wholly come out zero.
// No coder reports an error or checks the size of its destination.
#pragma once

namespace Base {
class FieldDesc;
}

namespace Network {

class XmpPacket {
public:
    static constexpr unsigned short MAX_PACKAGE_SIZE = 4100;  // header + MAX_BODY_SIZE
    static constexpr unsigned short MAX_BODY_SIZE = 4096;     // placeholder Length of a fresh frame
    static constexpr int HEADER_SIZE = 4;
    static constexpr int FIELD_HEADER_SIZE = 4;

    static constexpr unsigned char TYPE_CONTROL = 0;
    static constexpr unsigned char TYPE_DATA = 2;
    static constexpr unsigned char TYPE_REFERENCE = 17;

    static constexpr unsigned char TAG_HEARTBEAT = 5;
    static constexpr unsigned char TAG_HEARTBEAT_INTERVAL = 7;
    static constexpr int HEARTBEAT_SIZE = 6;           // 00 02 00 00 05 00
    static constexpr int HEARTBEAT_INTERVAL_SIZE = 10;  // 00 06 00 00 07 04 + 4 bytes
    static constexpr int REFERENCE_SIZE = 12;           // 11 08 00 00 + pointer

    struct Header {
        unsigned char Type;
        unsigned char ExtLength;  // extension bytes directly behind the header
        unsigned short Length;    // payload bytes behind header and extension
    };

    struct FieldHeader {
        unsigned short FieldId;
        unsigned short FieldLength;  // bytes of stream form behind the header
    };

    XmpPacket() {}
    ~XmpPacket() {}

    // 4 bytes each way; only Length and the field header's two numbers swap.
    static void to_stream(const Header* header, char* out);
    static void from_stream(Header* header, const char* in);
    static void to_stream(const FieldHeader* header, char* out);
    static void from_stream(FieldHeader* header, const char* in);

    // Control frames, written whole into out; the results are their sizes.
    static int write_heartbeat(char* out);
    static int write_heartbeat_interval(char* out, unsigned int seconds);
    // True when the size bytes at frame are exactly a tag-7 frame; gives its
    // number of seconds.
    static bool read_heartbeat_interval(const char* frame, int size, unsigned int& seconds);
    // True when the size bytes at frame begin with one whole data frame of
    // the shape this system writes and reads: Type 2, ExtLength 0 (flows put
    // subject and sequence at fixed offsets), at least the Crp header, and
    // Length + 4 within size.
    static bool is_data_frame(const char* frame, int size);

    // Internal record to stream form. record_size bounds what is read of
    // record; stream must hold desc->stream_size bytes.
    static void to_stream(const Base::FieldDesc* desc, const void* record, void* stream, int record_size);
    // Stream form to internal record, or with raw to struct form (fixed-point
    // bytes only swapped). Returns the number of members decoded.
    static int from_stream(const Base::FieldDesc* desc, void* record, const void* stream, int stream_size, bool raw);
    // Internal to struct form; out must hold desc->struct_size bytes.
    static void to_struct(const Base::FieldDesc* desc, const void* record, void* out, int record_size);
    static void to_struct(const Base::FieldDesc* desc, void* record);
    // Struct to internal form; returns the number of members converted.
    static int from_struct(const Base::FieldDesc* desc, void* record, const void* in, int in_size);
    static void from_struct(const Base::FieldDesc* desc, void* record);
};

}  // namespace Network
