// The generic record coders, driven by a FieldDesc at run time. Forms:
//   internal - the record in memory, FIXEDPOINT members as scaled integers;
//   struct   - the same layout with FIXEDPOINT members as doubles;
//   stream   - packed, big-endian, FIXEDPOINT members as doubles.
// Every coder follows the same ladder for a short source: members are taken
// whole, in order; at the first member that len doesn't cover, the rest of
// the destination is zeroed. The reading coders return the members taken.
// The generated per-record coders do the same work unrolled, byte for byte.
#pragma once

namespace Base {

class FieldDesc;

class FieldCoder {
public:
    // len counts bytes of the structure.
    static void to_stream(const FieldDesc* desc, const void* src, void* dst, int len);
    // len counts bytes of the stream. raw true leaves FIXEDPOINT members as
    // doubles (the struct form), false converts them to scaled integers.
    static int from_stream(const FieldDesc* desc, void* dst, const void* src, int len, bool raw);
    static int to_struct(const FieldDesc* desc, const void* src, void* dst, int len);
    static void to_struct(const FieldDesc* desc, void* record);
    static int from_struct(const FieldDesc* desc, void* dst, const void* src, int len);
    static void from_struct(const FieldDesc* desc, void* record);
};

}  // namespace Base
