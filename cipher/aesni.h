// Cipher::AesNi: AES on the processor's AES instructions, for Cipher::Aes
// when supported() says the CPU has them. Nothing here may run otherwise.
//
// keys are the expanded round keys as bytes, 16 per round and rounds + 1 of
// them (rounds is 10, 12 or 14): for encoding the key schedule in order, for
// decoding that of the equivalent inverse cipher (reverse order, the inner
// ones through InvMixColumns). blocks counts 16-byte blocks. dst may equal
// src in every function; other overlaps are not allowed.
#pragma once

#include <cstddef>

namespace Cipher {
namespace AesNi {

// True when the CPU has the AES and SSE4.1 instructions; read once.
bool supported();

void encode_blocks(const unsigned char* keys, int rounds, unsigned char* dst,
                   const unsigned char* src, size_t blocks);
void decode_blocks(const unsigned char* keys, int rounds, unsigned char* dst,
                   const unsigned char* src, size_t blocks);

// CBC: chain holds the previous cipher block (the IV at first) and is left
// holding the last one.
void encode_cbc(const unsigned char* keys, int rounds, unsigned char* chain, unsigned char* dst,
                const unsigned char* src, size_t blocks);
void decode_cbc(const unsigned char* keys, int rounds, unsigned char* chain, unsigned char* dst,
                const unsigned char* src, size_t blocks);

// CTR over length bytes: counter is one 128-bit big-endian number, wrapping
// at 2^128, one value per block; a partial last block uses the front of its
// key stream. counter is left at the value of the last block used.
void ctr(const unsigned char* keys, int rounds, unsigned char* counter, unsigned char* dst,
         const unsigned char* src, size_t length);

}  // namespace AesNi
}  // namespace Cipher
