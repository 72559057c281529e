// The business packet of the trading protocol: a 20-byte header and a body
// of at most 4000 bytes, a run of records each behind an
// XmpPacket::FieldHeader. It sits at offset 6 of a data frame:
//
//   0 Xmp header (4) | 4 Crp header (2) | 6 Qelc header (20) | 26 body
//
// QelcPacket builds a packet in a buffer that the caller attaches (the 20
// header bytes, then room for the body): add_field appends records, commit
// writes the header in stream form. A refused add_field changes nothing, so
// the caller can commit what is there and go on in a new packet.
// QelcPacket::Iterator walks the records of a received body; a body cut off
// inside a record ends the walk quietly. Neither reads or writes outside
// header and body as BodyLength states them.
//
// Header on the wire, all numbers big-endian:
//   0 Version | 1 Chain | 2 Subject(2) | 4 PacketId(4) | 8 SequenceLow(4)
//   12 SequenceHigh | 13 FieldCount | 14 BodyLength(2) | 16 RequestId(4)
// The sequence number is 40 bits: SequenceLow + (SequenceHigh << 32).
#pragma once

namespace Base {
class FieldDesc;
}

namespace Network {

class QelcPacket {
public:
    static constexpr unsigned short MAX_PACKAGE_SIZE = 4026;  // Xmp + Crp + header + body
    static constexpr unsigned short MAX_BODY_SIZE = 4000;
    static constexpr int HEADER_SIZE = 20;
    static constexpr int FRAME_PREFIX_SIZE = 6;  // Xmp and Crp headers ahead of the packet
    static constexpr unsigned char DEFAULT_VERSION = 4;
    static constexpr unsigned char CHAIN_LAST = 'L';
    static constexpr unsigned char MAX_FIELD_COUNT = 255;
    static constexpr unsigned short END = 65535;  // no record: never a record id

    // Host form: the wire's fields in the wire's order with native numbers;
    // it happens to take 20 bytes as well, and a body may follow it directly.
    struct Header {
        unsigned char Version;
        unsigned char Chain;
        unsigned short Subject;
        unsigned int PacketId;
        unsigned int SequenceLow;
        unsigned char SequenceHigh;
        unsigned char FieldCount;
        unsigned short BodyLength;
        unsigned int RequestId;

        unsigned long get_sequence() const
        {
            return SequenceLow | static_cast<unsigned long>(SequenceHigh) << 32;
        }
        void set_sequence(unsigned long sequence)
        {
            SequenceLow = static_cast<unsigned int>(sequence);
            SequenceHigh = static_cast<unsigned char>(sequence >> 32);
        }
    };

    typedef void (*ToStreamCoder)(const void* record, void* stream, int record_size);
    typedef int (*FromStreamCoder)(void* record, const void* stream, int stream_size, bool raw);

    QelcPacket(unsigned int packet_id, unsigned int request_id, unsigned char chain);

    // Binds to a buffer of HEADER_SIZE + MAX_BODY_SIZE bytes: the body starts
    // 20 bytes in; FieldCount, BodyLength and RequestId become 0, Chain 'L'.
    void attach(void* packet_area);

    static void to_stream(const Header* header, char* out);
    static void from_stream(Header* header, const char* in);

    // Appends a record frame and returns its size bytes for the caller to
    // fill, or null when the record doesn't fit (255 records or 4000 bytes).
    char* add_field(unsigned short id, unsigned short size);
    // The same with id and stream size of desc. A non-null record is coded
    // into the value by coder, or by XmpPacket::to_stream when coder is null,
    // with desc's struct size as the record size; a null record leaves the
    // value area as it is.
    char* add_field(const Base::FieldDesc* desc, const void* record, ToStreamCoder coder = nullptr);
    // Writes the header in stream form ahead of the body; returns
    // 20 + BodyLength (0 when nothing is attached).
    int commit();

    // The start of the frame around a packet body.
    static const char* get_xmp_header(const void* body) { return static_cast<const char*>(body) - 26; }

    Header& get_header() { return header; }
    const Header& get_header() const { return header; }
    char* get_body() const { return body; }

    class Iterator {
    public:
        Iterator() { attach(nullptr, nullptr); }
        Iterator(const Header* header, const void* body) { attach(header, body); }

        // A null body with a header takes the body to follow the host-form
        // header directly. The body must hold header->BodyLength bytes.
        void attach(const Header* header, const void* body);

        // Moves to the next record; its id, or END when no whole record is left.
        unsigned short next();
        // The current record's value and length; null and 0 when there is none.
        const char* get_field(unsigned short& size) const;
        // Decodes the current record by desc or by a generated coder; results
        // as XmpPacket::from_stream. With no current record the record is
        // zeroed and the result is 0.
        int get_field(void* record, const Base::FieldDesc* desc, bool raw) const;
        int get_field(void* record, FromStreamCoder coder, bool raw) const;

        const Header* get_header() const { return header; }
        int get_position() const { return position; }
        unsigned short get_field_id() const { return field_id; }

    private:
        const Header* header;
        const char* body;
        int position;                  // bytes of body consumed
        unsigned short field_id;       // END when there is no current record
        unsigned short field_length;
    };

private:
    Header header;
    char* body;  // first body byte of the attached buffer, or null
};

}  // namespace Network
